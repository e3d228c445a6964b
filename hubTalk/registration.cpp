#include "registration.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

#include "files.h"
#include "memory.h"
#include "processResults.h"
#include "sendFile.h"
#include "settings.h"
#include "text.h"
#include "stateFiles.h"

void markRegistrationPending(const char* dir) { writeTxt(dir, StateFile::REGISTRATION_PENDING, "init"); }

bool registrationPending(const char* dir) { return fileExists(dir, StateFile::REGISTRATION_PENDING); }

void registerBox(const char* dir) {
    SendFile::sendIpsCommand(dir, VERBOSE, QUIET);
    int rc = 0;
    char* reply = SendFile::sendInitCommand(dir, rc, nullptr, VERBOSE, QUIET);
    // The reply lives in the ring; keep a copy while the version files are written.
    char* kept = strdup(reply ? reply : "");
    if (!fileExists(dir, StateFile::PROGRAM_VERSION)) {
        time_t now = time(nullptr);
        struct tm utc;
        gmtime_r(&now, &utc);
        char version[32];
        strftime(version, sizeof version, "%Y%m%d:%H", &utc);
        writeTxt(dir, StateFile::PROGRAM_VERSION, version);
        writeTxt(dir, StateFile::RECEIVER_VERSION, version);
        writeTxt(dir, StateFile::DICTIONARY_VERSION, version);
    }
    if (*trim(kept)) {
        rmFile(dir, StateFile::REGISTRATION_PENDING);
        processResults(dir, kept);
    }
    free(kept);
}
