#include "options.h"

#include <getopt.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "files.h"
#include "settings.h"
#include "startup.h"

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

void locateProgram(const char* argv0) {
    const char* at = strstr(argv0, "hubTalk");
    if (!at || at == argv0) return;
    size_t n = std::min(static_cast<size_t>(at - argv0), sizeof PREFIX - 1);
    memcpy(PREFIX, argv0, n);
    PREFIX[n] = '\0';
    for (size_t i = n; i-- > 0;) {
        if (PREFIX[i] == '/' || PREFIX[i] == '\\') {
            snprintf(PROCESS_DIR, sizeof PROCESS_DIR, "%.*s", static_cast<int>(i), argv0);
            PRE = PREFIX + i + 1;
            return;
        }
    }
    PRE = PREFIX;
}

// Splits "a|b" at the first bar into the two buffers; without a bar only the first is set.
static void splitAtBar(const char* arg, char* first, char* second, bool secondOnlyWithBar) {
    const char* bar = strchr(arg, '|');
    if (!bar) {
        copyBounded(first, 256, arg);
        if (!secondOnlyWithBar) second[0] = '\0';
        return;
    }
    snprintf(first, 256, "%.*s", static_cast<int>(bar - arg), arg);
    copyBounded(second, 256, bar + 1);
}

static const int HELP_OPTION = 1000;

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
        {nullptr, 0, nullptr, 0},
    };
    opterr = 0;  // unknown options are ignored quietly
    optind = 1;
    int c;
    // "?" is left out of the option letters on purpose: getopt then reports
    // "-?" like any unknown letter, with optopt telling which one it was.
    while ((c = getopt_long(argc, argv, "PrA:Uzlqvd:f:s:p:n:V:t:R:H:C:N:e:D:S:", longOptions,
                            nullptr)) != -1) {
        switch (c) {
            case HELP_OPTION: printUsage();
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
            case 'f': copyBounded(options.nameFile, sizeof options.nameFile, optarg); break;
            case 'd':
                copyBounded(dataDir, sizeof dataDir, optarg);
                updateCert(dataDir);
                break;
            case 'V': copyBounded(viewpointDir, sizeof viewpointDir, optarg); break;
            case 'H': splitAtBar(optarg, HL7_dir, HL7_inputDir, false); break;
            case 'S': splitAtBar(optarg, ShortCodeFile, TestCodeFile, true); break;
            case 'n': NumTcpThreads = atoi(optarg); break;
            case 'R':
                // A first start names its servers before the data dir exists.
                if (dataDir[0] && !fileExists(dataDir, "")) makeDataDir(dataDir, false);
                writeTxt(dataDir, "receiver.txt", optarg);
                writeTxt(dataDir, "hosts.txt", optarg);
                break;
            case 'p': PORT = atoi(optarg); break;
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
}
