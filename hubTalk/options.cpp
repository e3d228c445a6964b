#include "options.h"

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "files.h"
#include "settings.h"
#include "startup.h"
#include "stateFiles.h"

const char* const USAGE =
    "hubTalk -d <dataDir>  [ -s loopFreqInSecs ] [ -R receiver-ip ] [ -v ] [ -q ] [ -l ] [ -z ] [ -U ]\n";

static void copyBounded(char* dst, size_t cap, const char* src) { snprintf(dst, cap, "%s", src ? src : ""); }

// The EMR interface kind named by an -A argument (by its first letter, or the
// whole word "meditouch"); sets EMR_INTF, InterfaceName and applications1.
static void selectEmrInterface(const char* arg) {
    int kind = EMR_NONE;
    switch (::tolower(static_cast<unsigned char>(arg[0]))) {
        case 'a': kind = EMR_ALLSCRIPTS; break;
        case 'c': kind = EMR_CENTRICITY; break;
        case 'e': kind = EMR_ECLINICAL; break;
        case 'o': kind = EMR_OSTI; break;
        case 's': kind = EMR_SEVOCITY; break;
        case 'f': kind = EMR_FORWARD; break;
        case 'r': kind = EMR_HL7FILE; break;
        case 'm':
            // The whole word wins over its first letter.
            kind = strcasecmp(arg, "meditouch") == 0 ? EMR_MEDITOUCH : EMR_MEDENT;
            break;
        default: break;
    }
    EMR_INTF = kind;
    if (kind != EMR_NONE)
        snprintf(InterfaceName, sizeof InterfaceName, "%.32s", arg);
    else
        InterfaceName[0] = '\0';
    snprintf(applications1, sizeof applications1, "EMR Intf: %.32s", arg);
}

void applyProcessingMode(const char* arg, int onlineCpus) {
    switch (atoi(arg)) {
        case 1: anonExport = _anonExport = true; break;
        case 2: pixelProcessing = _pixelProcessing = true; break;
        case 3: pixelProcessingRetain = _pixelProcessingRetain = true; break;
        default: break;
    }
    NUM_CPUS = std::clamp(onlineCpus, 1, 8);
    if (NUM_CPUS >= 3) NUM_WORKERS = (NUM_CPUS + 1) / 2;
    const char* dash = strchr(arg, '-');
    if (dash && dash[1]) NUM_WORKERS = std::clamp(atoi(dash + 1), 1, 8);
}

bool locateProgram(const char* argv0) {
    // Only the file name counts: the program may sit in a directory that is
    // itself called hubTalk.
    const char* base = argv0;
    for (const char* p = argv0; *p; ++p)
        if (*p == '/' || *p == '\\') base = p + 1;
    const char* at = strstr(base, "hubTalk");
    if (!at || at == argv0) return true;
    std::string prefix(argv0, static_cast<size_t>(at - argv0));
    // The worker changes into the data directory: a relative program
    // directory would no longer find the companions beside the program.
    if (base != argv0 && prefix[0] != '/') {
        while (prefix.compare(0, 2, "./") == 0) prefix.erase(0, 2);
        char cwd[PATH_MAX];
        if (!getcwd(cwd, sizeof cwd)) return false;
        prefix = std::string(cwd) + "/" + prefix;
    }
    if (prefix.size() >= sizeof PREFIX) return false;
    memcpy(PREFIX, prefix.c_str(), prefix.size() + 1);
    // The text before "hubTalk" in the file name is PRE, the directory before it PROCESS_DIR.
    size_t preAt = prefix.size() - static_cast<size_t>(at - base);
    PRE = PREFIX + preAt;
    if (preAt > 0) snprintf(PROCESS_DIR, sizeof PROCESS_DIR, "%.*s", static_cast<int>(preAt - 1), PREFIX);
    return true;
}

// A path option's value; one that does not fit is refused rather than cut,
// since a cut path names another directory.
static void copyPath(char* dst, size_t cap, const char* src, char option) {
    if (strlen(src) >= cap)
        failStart("Path given with -%c is too long (at most %zu characters)\n%s\n", option, cap - 1, src);
    copyBounded(dst, cap, src);
}

// Splits "a|b" at the first bar into the two paths; without a bar only the first is set.
static void splitAtBar(const char* arg, char* first, char* second, bool secondOnlyWithBar, char option) {
    const char* bar = strchr(arg, '|');
    if (!bar) {
        copyPath(first, 256, arg, option);
        if (!secondOnlyWithBar) second[0] = '\0';
        return;
    }
    std::string head(arg, static_cast<size_t>(bar - arg));
    copyPath(first, 256, head.c_str(), option);
    copyPath(second, 256, bar + 1, option);
}

// -p: a port number, nothing else.
static int portOption(const char* arg) {
    char* end = nullptr;
    errno = 0;
    long port = strtol(arg, &end, 10);
    if (errno || end == arg || *end || port < 1 || port > 65535)
        failStart("Port given with -p must be a number from 1 to 65535\n%s\n", arg);
    return static_cast<int>(port);
}

static const int HELP_OPTION = 1000;
static const int STATUS_OPTION = 1001;
static const int JSON_OPTION = 1002;

[[noreturn]] static void printUsage() {
    fputs(USAGE, stdout);
    exit(1);
}

void parseOptions(int argc, char** argv, StartOptions& options) {
    static const struct option longOptions[] = {
        {"help", no_argument, nullptr, HELP_OPTION},
        {"verbose", no_argument, nullptr, 'v'},
        {"quiet", no_argument, nullptr, 'q'},
        {"autoupdate", no_argument, nullptr, 'U'},
        {"local", no_argument, nullptr, 'l'},
        {"deamonize", no_argument, nullptr, 'z'},
        {"emr-intf", required_argument, nullptr, 'A'},
        {"SR2HL7", no_argument, nullptr, 'r'},
        {"REPORTCAST", no_argument, nullptr, 'P'},
        {"name-file", required_argument, nullptr, 'f'},
        {"data-dir", required_argument, nullptr, 'd'},
        {"export-dir", required_argument, nullptr, 'V'},
        {"HL7-dirs", required_argument, nullptr, 'H'},
        {"HL7-maps", required_argument, nullptr, 'S'},
        {"num-threads", required_argument, nullptr, 'n'},
        {"receiver-ip", required_argument, nullptr, 'R'},
        {"api-port", required_argument, nullptr, 'p'},
        {"ext-route", required_argument, nullptr, 'C'},
        {"lpu", required_argument, nullptr, 'N'},
        {"embed", required_argument, nullptr, 'e'},
        {"loop-sleep", required_argument, nullptr, 's'},
        {"status", no_argument, nullptr, STATUS_OPTION},
        {"json", no_argument, nullptr, JSON_OPTION},
        {nullptr, 0, nullptr, 0},
    };
    // The writes -d and -R ask for wait until the line is known: --status
    // may come after them and writes nothing. Each: a directory, and the
    // server list for it (none: only the certificate).
    std::vector<std::pair<std::string, const char*>> writes;
    opterr = 0;  // unknown options are ignored quietly
    optind = 1;
    int c;
    // "?" is left out of the option letters on purpose: getopt then reports
    // "-?" like any unknown letter, with optopt telling which one it was.
    while ((c = getopt_long(argc, argv, "PrA:Uzlqvd:f:s:p:n:V:t:R:H:C:N:e:D:S:", longOptions,
                            nullptr)) != -1) {
        switch (c) {
            case HELP_OPTION: printUsage();
            case STATUS_OPTION: options.status = true; break;
            case JSON_OPTION: options.json = true; break;
            case '?':
                if (optopt == '?') printUsage();
                break;  // unknown, or missing its argument: ignored
            case 'v': VERBOSE = true; break;
            case 'q': QUIET = true; break;
            case 'U': UPDATE = true; break;
            case 'l': REMOTE = false; break;
            case 'z': options.daemonize = true; break;
            case 'A': selectEmrInterface(optarg); break;
            case 'r': EMR_SR = true; break;
            case 'P': EMR_PDF = true; break;
            case 'f': copyPath(options.nameFile, sizeof options.nameFile, optarg, 'f'); break;
            case 'd':
                copyPath(dataDir, sizeof dataDir, optarg, 'd');
                writes.emplace_back(dataDir, nullptr);
                break;
            case 'V': copyPath(viewpointDir, sizeof viewpointDir, optarg, 'V'); break;
            case 'H': splitAtBar(optarg, HL7_dir, HL7_inputDir, false, 'H'); break;
            case 'S': splitAtBar(optarg, ShortCodeFile, TestCodeFile, true, 'S'); break;
            case 'n': NumTcpThreads = atoi(optarg); break;
            case 'R':
                // Written at once: without a data directory it would land in "/".
                if (!dataDir[0]) failStart("-R needs the data directory first: give -d before -R\n");
                writes.emplace_back(dataDir, optarg);
                break;
            case 'p': PORT = portOption(optarg); break;
            case 'C': {
                const char* colon = strchr(optarg, ':');
                if (colon) {
                    snprintf(ER_ip, sizeof ER_ip, "%.*s", static_cast<int>(colon - optarg), optarg);
                    ER_port = atoi(colon + 1);
                } else {
                    copyBounded(ER_ip, sizeof ER_ip, optarg);
                }
                break;
            }
            case 'N': applyProcessingMode(optarg, static_cast<int>(sysconf(_SC_NPROCESSORS_ONLN))); break;
            case 'e': strncpy(EmbedType, optarg, sizeof EmbedType - 1); break;
            case 's': sleepTime = std::max(atoi(optarg), 3); break;
            default: break;  // -t and -D are accepted and unused
        }
    }
    if (options.status) return;
    for (const auto& [dir, servers] : writes) {
        if (!servers) {
            updateCert(dir.c_str());
            continue;
        }
        // A first start names its servers before the data dir exists.
        if (!fileExists(dir.c_str(), "")) makeDataDir(dir.c_str(), false);
        writeTxt(dir.c_str(), StateFile::RECEIVER, servers);
        writeTxt(dir.c_str(), StateFile::SERVERS, servers);
    }
}
