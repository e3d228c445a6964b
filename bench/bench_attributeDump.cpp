// The attribute dump of the processing step (getAttrMap) beside one bare
// "dcmdump -M" process on the same file: time per call and the largest
// resident memory of the whole call (the agent's side plus the shell and
// dcmdump under it), on a small real file and on a large multiframe file.
// Usage: bench_attributeDump [MB of the large file]   (default 400)
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "dicom.h"
#include "memory.h"
#include "testUtil.h"

namespace {

const char* const TAGS[] = {"Manufacturer", "Modality", "SOPClassUID", "ManufacturerModelName",
                            "NumberOfFrames", "0035,0010", nullptr};

struct Figure {
    double seconds;
    long maxRssKb;
};

// Runs body in a child process `rounds` times; the wall time per round and
// the largest resident set of the child and everything it waited for.
template <class Body>
Figure measure(int rounds, Body body) {
    auto start = std::chrono::steady_clock::now();
    long most = 0;
    for (int i = 0; i < rounds; ++i) {
        pid_t pid = fork();
        if (pid == 0) _exit(body());
        int status = 0;
        struct rusage usage {};
        wait4(pid, &status, 0, &usage);
        if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) fprintf(stderr, "a round failed\n");
        most = std::max(most, usage.ru_maxrss);
    }
    double total = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return {total / rounds, most};
}

void compare(const char* what, const std::string& file, const std::string& dir, int rounds) {
    Figure ours = measure(rounds, [&] {
        Memory mem;
        KeyValues<char> table;
        return getAttrMap(file.c_str(), table, TAGS, dir.c_str(), "ATTRS.bench.txt", &mem);
    });
    std::string bare = "dcmdump -M";
    for (int i = 0; TAGS[i]; ++i) bare += std::string(" +P ") + TAGS[i];
    bare += " '" + file + "' > /dev/null";
    Figure peer = measure(rounds, [&] {
        execl("/bin/sh", "sh", "-c", bare.c_str(), (char*)nullptr);
        return 127;
    });
    printf("%-22s getAttrMap %8.2f ms %7.1f MB | dcmdump -M %8.2f ms %7.1f MB | ratio %.2f\n", what,
           ours.seconds * 1e3, ours.maxRssKb / 1024.0, peer.seconds * 1e3, peer.maxRssKb / 1024.0,
           ours.seconds / peer.seconds);
}

}  // namespace

int main(int argc, char** argv) {
    long megabytes = argc > 1 ? atol(argv[1]) : 400;
    TempDir t;
    compare("small CT (39 KB)", "/usr/lib/python3/dist-packages/pydicom/data/test_files/CT_small.dcm",
            t.path(), 50);

    // Frames of 512 x 512 bytes until the size asked for.
    long frames = megabytes * 1000000 / (512 * 512);
    std::string raw = t.file("pixels.raw"), dump = t.file("big.dump"), big = t.file("big.dcm");
    std::string make = "head -c " + std::to_string(frames * 512 * 512) + " /dev/zero > '" + raw + "'";
    if (system(make.c_str()) != 0) return 1;
    spit(dump, "(0008,0016) UI [1.2.840.10008.5.1.4.1.1.7.2]\n(0008,0060) CS [OT]\n"
               "(0020,000d) UI [1.2.3]\n(0028,0002) US 1\n(0028,0004) CS [MONOCHROME2]\n"
               "(0028,0008) IS [" + std::to_string(frames) + "]\n(0028,0010) US 512\n"
               "(0028,0011) US 512\n(0028,0100) US 8\n(0028,0101) US 8\n(0028,0102) US 7\n"
               "(0028,0103) US 0\n(7fe0,0010) OB =" + raw + "\n");
    if (system(("dump2dcm +te -g '" + dump + "' '" + big + "'").c_str()) != 0) return 1;
    unlink(raw.c_str());
    char label[40];
    snprintf(label, sizeof label, "multiframe (%ld MB)", megabytes);
    compare(label, big, t.path(), 5);
    return 0;
}
