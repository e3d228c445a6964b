// The router's DICOM sender: takes the router's command line
// ("-nuc --dict-path <file> --aetitle ... --call ... host port file"), which
// the system's sender refuses because of --dict-path, and runs the system's
// sender with the rest. The dictionary reaches it through DCMDICTPATH, after
// the library's own, and only when it loads: a damaged dictionary from an
// update must not stop deliveries. Time-outs for connection, association and
// messages are put in front, so a caller's own win. The exit status is the
// system sender's.
#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdict.h>
#include <limits.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <string>
#include <vector>

#include "bounds.h"

#ifndef SYSTEM_DCMSEND
#define SYSTEM_DCMSEND "/usr/bin/dcmsend"
#endif

namespace {

bool loads(const std::string& dictionary) {
    struct stat st;
    if (stat(dictionary.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size == 0) return false;
    DcmDataDictionary probe(OFFalse, OFFalse);
    return probe.loadDictionary(dictionary.c_str(), OFFalse);
}

// The same file as this program: running it would loop.
bool isSelf(const char* path) {
    char self[PATH_MAX], other[PATH_MAX];
    return realpath("/proc/self/exe", self) && realpath(path, other) && strcmp(self, other) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::vector<std::string> args = {
        SYSTEM_DCMSEND,
        "-to", std::to_string(Limits::DICOM_CONNECT_TIMEOUT_S),
        "-ta", std::to_string(Limits::DICOM_ASSOCIATION_TIMEOUT_S),
        "-td", std::to_string(Limits::DICOM_MESSAGE_TIMEOUT_S)};
    std::string dictionary;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--dict-path") == 0) {
            if (i + 1 < argc) dictionary = argv[++i];
            continue;
        }
        args.push_back(argv[i]);
    }
    struct stat st;
    if (!dictionary.empty() && stat(dictionary.c_str(), &st) == 0) {
        if (loads(dictionary)) {
            const char* base = getenv(DCM_DICT_ENVIRONMENT_VARIABLE);
            std::string path = base && *base ? base : DCM_DICT_DEFAULT_PATH;
            path += std::string(1, ENVIRONMENT_PATH_SEPARATOR) + dictionary;
            setenv(DCM_DICT_ENVIRONMENT_VARIABLE, path.c_str(), 1);
        } else {
            fprintf(stderr, "dcmsend: dictionary %s left out: it does not load\n", dictionary.c_str());
        }
    }
    // Without it the sender waits on Nagle's algorithm at every small write.
    setenv("TCP_NODELAY", "1", 1);
    if (isSelf(SYSTEM_DCMSEND)) {
        fprintf(stderr, "dcmsend: %s is this companion, not the system's sender\n", SYSTEM_DCMSEND);
        return 127;
    }
    std::vector<char*> argvOut;
    for (std::string& a : args) argvOut.push_back(&a[0]);
    argvOut.push_back(nullptr);
    execv(SYSTEM_DCMSEND, argvOut.data());
    fprintf(stderr, "dcmsend: cannot run %s: %s\n", SYSTEM_DCMSEND, strerror(errno));
    return 127;
}
