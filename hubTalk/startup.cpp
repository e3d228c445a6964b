#include "startup.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "exception.h"
#include "files.h"
#include "logRotation.h"
#include "options.h"
#include "pinnedCa.h"
#include "random.h"
#include "registration.h"
#include "settings.h"
#include "supervisor.h"
#include "text.h"
#include "stateFiles.h"

void updateCert(const char* dir) {
    if (!nonZeroFile(dir, StateFile::PINNED_CA)) writeTxt(dir, StateFile::PINNED_CA, PINNED_CA_PEM);
}

// Cutting is intended here; a direct snprintf would draw -Wformat-truncation.
static void formatInto(char* dst, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vsnprintf(dst, size, format, args);
    va_end(args);
}

void failStart(const char* format, ...) {
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
    // Marked first: an agent stopped before its registration went through
    // registers at its next start.
    markRegistrationPending(dataDir);
    writeTxt(dataDir, StateFile::HOST_NAME, name);
    char* back = readTrimmed(dataDir, StateFile::HOST_NAME);
    if (strcmp(back, name) != 0) failStart("Unable to write internal name to %s/hostName.txt\n%s", dataDir, name);
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

void prepareStart(const StartOptions& options) {
    if (!dataDir[0] || dataDir[0] == '-') failStart("No Data Dir\n%s", USAGE);
    describeHl7Dirs();
    if (ER_ip[0]) snprintf(applications1, sizeof applications1, "Routing/Retrieving (%s:%d)", ER_ip, ER_port);

    if (!fileExists(dataDir, "") && !makeDataDir(dataDir, true)) failStart("Cannot create Data Dir\n%s", dataDir);
    // The worker changes into the data dir; every later path must still find it.
    char absolute[PATH_MAX];
    if (dataDir[0] != '/') {
        if (!realpath(dataDir, absolute) || strlen(absolute) >= sizeof dataDir)
            failStart("Data directory path too long (at most %zu characters)\n%s", sizeof dataDir - 1, dataDir);
        formatInto(dataDir, sizeof dataDir, "%s", absolute);
    }
    // The download tool trusts the authority of this data directory; set
    // before any thread exists, so nothing reads the environment meanwhile.
    setenv(DATA_DIR_ENV, dataDir, 1);

    if (EMR_INTF == EMR_HL7FILE) {
        snprintf(viewpointDir, sizeof viewpointDir, "%s", HL7_dir);
        snprintf(HL7_inputDir, sizeof HL7_inputDir, "%s", HL7_dir);
        if (PORT == 0) PORT = 5678;
    }
    if (EMR_INTF == EMR_NONE && nonZeroFile(dataDir, StateFile::FILE_ONLY)) EMR_INTF = EMR_HL7FILE;
    if (EMR_INTF != EMR_NONE) {
        formatInto(HL7_cache, sizeof HL7_cache, "%s/%s", dataDir, "HL7");
        if (!makeDir(HL7_cache)) failStart("Cannot create HL7 Cache\n%s", HL7_cache);
        if (EMR_INTF == EMR_HL7FILE) snprintf(HL7_dir, sizeof HL7_dir, "%s", HL7_cache);
    }

    describeExport();

    if (anyProcessingMode()) {
        if (!viewpointDir[0] || HL7_inputDir[0] || EMR_INTF > EMR_HL7FILE)
            failStart("Anonymization (-N) requires File-Export/VP6 (-V)\n");
        appendf(applications1, sizeof applications1, " (%s)", viewpointDir);
        formatInto(qDir, sizeof qDir, "%s/Q", dataDir);
        if (!makeDir(qDir)) failStart("Cannot create anon Q Dir%s\n", qDir);
    }

    // A stream that cannot be redirected stays where it was; nothing better to report to.
    if (QUIET) redirectLogs(dataDir);

    char name[128] = {0};
    if (options.nameFile[0]) {
        readNameFile(options.nameFile, name, sizeof name);
        if (fileExists(dataDir, StateFile::HOST_NAME) && strcmp(readTrimmed(dataDir, StateFile::HOST_NAME), name) != 0)
            writeIdentity(name);
    }

    daemonInit(dataDir, options.daemonize);

    if (name[0] && !fileExists(dataDir, StateFile::HOST_NAME)) {
        writeIdentity(name);
    } else if (!*readTrimmed(dataDir, StateFile::HOST_NAME)) {
        if (!name[0]) newIdentity(name);
        writeIdentity(name);
    }
}
