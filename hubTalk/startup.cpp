#include "startup.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "exception.h"
#include "files.h"
#include "options.h"
#include "pinnedCa.h"
#include "random.h"
#include "settings.h"
#include "text.h"

void updateCert(const char* dir) {
    if (!nonZeroFile(dir, "sundel.crt")) writeTxt(dir, "sundel.crt", PINNED_CA_PEM);
}

// Cutting is intended here; a direct snprintf would draw -Wformat-truncation.
static void formatInto(char* dst, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(dst, size, format, args);
    va_end(args);
}

[[noreturn]] __attribute__((format(printf, 1, 2))) static void fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
    fflush(stderr);
    exit(1);
}

static void createDir(const char* path) {
    mkdir(path, 0775);
    chmod(path, 0775);
}

// Creates a directory the program needs; false when it is still missing.
static bool makeDir(const char* path) {
    if (fileExists(path, "")) return true;
    createDir(path);
    sleep(1);
    return fileExists(path, "");
}

bool makeDataDir(const char* dir, bool settle) {
    createDir(dir);
    if (settle) sleep(1);
    if (!fileExists(dir, "")) return false;
    updateCert(dir);
    return true;
}

// Appends to the description within its bound.
static void describe(const char* text) { appendf(applications1, sizeof applications1, "%s", text); }

static void describeHl7Dirs() {
    if ((!HL7_dir[0] && !HL7_inputDir[0]) || !applications1[0]) return;
    describe(" (");
    describe(HL7_dir);
    if (HL7_dir[0] && HL7_inputDir[0]) describe(", ");
    describe(HL7_inputDir);
    if (ShortCodeFile[0]) appendf(applications1, sizeof applications1, ", %s", ShortCodeFile);
    if (TestCodeFile[0]) appendf(applications1, sizeof applications1, ", %s", TestCodeFile);
    if (EMR_SR) describe(", SR2HL7");
    if (EMR_PDF) describe(", REPORTCAST");
    describe(")");
}

static void describeExport() {
    if (applications1[0] && viewpointDir[0]) describe(", ");
    if (viewpointDir[0] && nonZeroFile(dataDir, "CLIENTVP6.txt"))
        describe("VP6 Client");
    else if (viewpointDir[0] && nonZeroFile(dataDir, "CLIENTVP6.HEAD.txt"))
        describe("VP6 Server");
    else if (viewpointDir[0] && EMR_INTF != EMR_HL7FILE)
        describe("File-Export");
    if (EMR_INTF == EMR_HL7FILE && !HL7_inputDir[0]) describe("(with delay)");
}

// Writes the name to "hostName.txt" and checks that it reads back unchanged.
static void writeIdentity(const char* name) {
    writeTxt(dataDir, "hostName.txt", name);
    char* back = readTrimmed(dataDir, "hostName.txt");
    if (strcmp(back, name) != 0) fail("Unable to write internal name to %s/hostName.txt\n%s", dataDir, name);
}

// Waits for the name file of -f; the name is cut to 92 characters.
static void readNameFile(const char* path, char* name, size_t size) {
    for (int tries = 1;; ++tries) {
        char* text = readTrimmed(path, "");
        if (*text) {
            snprintf(name, size < 93 ? size : 93, "%s", text);
            rtrim(name);  // the cut may end on a blank, which would not read back
            return;
        }
        if (tries % 10 == 0) {
            fprintf(stderr, "File %s is empty or not there - cannot get deviceId/deviceName without it\n", path);
            fflush(stderr);
        }
        sleep(2);
    }
}

static void newIdentity(char* out) {
    unsigned char bytes[16];
    getRandomNumber(bytes, sizeof bytes);
    uuid_generate(bytes, true);
    for (int i = 0; i < 16; ++i) charToHex(bytes[i], out + 2 * i);
    out[32] = '\0';
}

static volatile sig_atomic_t stopRequested = 0;
static volatile pid_t supervisedChild = 0;

static void onTerminate(int) {
    stopRequested = 1;
    if (supervisedChild > 0) kill(supervisedChild, SIGTERM);
}

static void becomeWorker(const char* dir) {
    if (chdir(dir) != 0) logSysError("chdir to data directory failed");
    signal(SIGHUP, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, SIG_IGN);
}

// Without daemonize: chdir, ignore SIGHUP/SIGPIPE/SIGINT, return. With it, the
// caller becomes a supervising parent that restarts the worker whenever it
// ends and never returns; only the worker returns. A SIGTERM to the parent
// stops the worker and then the parent.
static void daemonInit(const char* dir, bool daemonize) {
    if (!daemonize) {
        becomeWorker(dir);
        return;
    }
    struct sigaction sa {};
    sa.sa_handler = onTerminate;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    for (;;) {
        pid_t pid = fork();
        if (pid < 0) throwFatal("Error forking");
        if (pid == 0) {
            signal(SIGTERM, SIG_DFL);
            becomeWorker(dir);
            return;
        }
        supervisedChild = pid;
        if (stopRequested) kill(pid, SIGTERM);
        int status;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
        supervisedChild = 0;
        if (stopRequested) exit(0);
        errno = 0;
        logSysError("Restarting process");
    }
}

bool prepareStart(const StartOptions& options) {
    if (!dataDir[0] || dataDir[0] == '-') fail("No Data Dir\n%s", USAGE);
    describeHl7Dirs();
    if (ER_ip[0]) snprintf(applications1, sizeof applications1, "Routing/Retrieving (%s:%d)", ER_ip, ER_port);

    if (!fileExists(dataDir, "") && !makeDataDir(dataDir, true)) fail("Cannot create Data Dir\n%s", dataDir);
    // The worker changes into the data dir; every later path must still find it.
    char absolute[PATH_MAX];
    if (dataDir[0] != '/' && realpath(dataDir, absolute) && strlen(absolute) < sizeof dataDir)
        formatInto(dataDir, sizeof dataDir, "%s", absolute);

    if (EMR_INTF == EMR_HL7FILE) {
        snprintf(viewpointDir, sizeof viewpointDir, "%s", HL7_dir);
        snprintf(HL7_inputDir, sizeof HL7_inputDir, "%s", HL7_dir);
        if (PORT == 0) PORT = 5678;
    }
    if (EMR_INTF == EMR_NONE && nonZeroFile(dataDir, "fileOnly.txt")) EMR_INTF = EMR_HL7FILE;
    if (EMR_INTF != EMR_NONE) {
        formatInto(HL7_cache, sizeof HL7_cache, "%s/%s", dataDir, "HL7");
        if (!makeDir(HL7_cache)) fail("Cannot create HL7 Cache\n%s", HL7_cache);
        if (EMR_INTF == EMR_HL7FILE) snprintf(HL7_dir, sizeof HL7_dir, "%s", HL7_cache);
    }

    describeExport();

    if (anyProcessingMode()) {
        if (!viewpointDir[0] || HL7_inputDir[0] || EMR_INTF > EMR_HL7FILE)
            fail("Anonymization (-N) requires File-Export/VP6 (-V)\n");
        appendf(applications1, sizeof applications1, " (%s)", viewpointDir);
        formatInto(qDir, sizeof qDir, "%s/Q", dataDir);
        if (!makeDir(qDir)) fail("Cannot create anon Q Dir%s\n", qDir);
    }

    if (QUIET) {
        char path[101];
        formatInto(path, sizeof path, "%s/stderr.bc.txt", dataDir);
        if (!freopen(path, "w", stderr)) {
            // Standard error stays where it was; nothing better to report to.
        }
        formatInto(path, sizeof path, "%s/stdout.bc.txt", dataDir);
        if (!freopen(path, "w", stdout)) {
            // As above.
        }
    }

    bool changed = false;
    char name[128] = {0};
    if (options.nameFile[0]) {
        readNameFile(options.nameFile, name, sizeof name);
        if (fileExists(dataDir, "hostName.txt") && strcmp(readTrimmed(dataDir, "hostName.txt"), name) != 0) {
            writeIdentity(name);
            changed = true;
        }
    }

    daemonInit(dataDir, options.daemonize);

    if (name[0] && !fileExists(dataDir, "hostName.txt")) {
        writeIdentity(name);
        changed = true;
    } else if (!*readTrimmed(dataDir, "hostName.txt")) {
        if (!name[0]) newIdentity(name);
        writeIdentity(name);
        changed = true;
    }
    return changed;
}
