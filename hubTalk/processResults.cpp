#include "processResults.h"

#include <pthread.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "files.h"
#include "keyValues.h"
#include "locks.h"
#include "memory.h"
#include "selfUpdate.h"
#include "settings.h"
#include "text.h"
#include "util.h"
#include "stateFiles.h"

char applications2[800];

namespace {

// Replies come from the main loop and the listener workers at once.
pthread_mutex_t resultsMutex = PTHREAD_MUTEX_INITIALIZER;

struct ResultsLock {
    ResultsLock() { Util::setMutexLock(&resultsMutex); }
    ~ResultsLock() { pthread_mutex_unlock(&resultsMutex); }
    ResultsLock(const ResultsLock&) = delete;
    ResultsLock& operator=(const ResultsLock&) = delete;
};

const char* const HEARTBEAT = "heartbeat";
const size_t DESCRIPTION_BOUND = 400;

// Flag files this program creates hold "heartbeat"; anything else was put
// there by a person.
void createFlag(const char* dir, const char* name) {
    if (!fileExists(dir, name)) writeTxt(dir, name, HEARTBEAT);
}

bool ownFlag(const char* dir, const char* name) { return strcmp(readTrimmed(dir, name), HEARTBEAT) == 0; }

void removeOwnFlag(const char* dir, const char* name) {
    if (ownFlag(dir, name)) rmFile(dir, name);
}

void removeFlag(const char* dir, const char* name) {
    if (fileExists(dir, name)) rmFile(dir, name);
}

std::string trimmedValue(const KeyValues<char>& table, const char* key, bool* present = nullptr) {
    char* value = table.get(key);
    if (present) *present = value != nullptr;
    return value ? trim(value) : "";
}

void storeDisplayName(const char* dir, const std::string& name) {
    if (name.empty()) return;
    std::string stored = readTrimmed(dir, StateFile::DISPLAY_NAME);
    if (stored[0] == '~') stored = Util::decrypt(stored.c_str());
    if (name != stored) writeTxt(dir, StateFile::DISPLAY_NAME, Util::encrypt3(name.c_str()));
}

void applyOptimize(const char* dir, const std::string& c) {
    size_t n = c.size();
    char first = n > 0 ? c[0] : '\0';
    char second = n > 1 ? c[1] : '\0';

    if (first == 'N')
        createFlag(dir, StateFile::NO_PROCESSING);
    else
        removeFlag(dir, StateFile::NO_PROCESSING);
    if (first == 'O' && !fileExists(dir, StateFile::OPTIMIZE_PIXEL)) {
        removeFlag(dir, StateFile::RETAIN_PIXEL);
        createFlag(dir, StateFile::OPTIMIZE_PIXEL);
    }
    if (first == 'R') createFlag(dir, StateFile::RETAIN_PIXEL);
    if (first == 'D' || first == 'R') removeOwnFlag(dir, StateFile::OPTIMIZE_PIXEL);
    if (first == 'D' || first == 'O') removeOwnFlag(dir, StateFile::RETAIN_PIXEL);

    if (n == 2 && second == 'A') {
        createFlag(dir, StateFile::STRICT_ANON);
        createFlag(dir, StateFile::ANON);
    } else {
        removeOwnFlag(dir, StateFile::STRICT_ANON);
    }
    if (n == 3 && second == 'A' && c[2] == 'N') {
        createFlag(dir, StateFile::ANON);
        if (nonZeroFile(dir, StateFile::STRICT_ANON)) writeTxt(dir, StateFile::NON_STRICT, HEARTBEAT);
    } else if (nonZeroFile(dir, StateFile::NON_STRICT)) {
        rmFile(dir, StateFile::NON_STRICT);
    }
    if ((n >= 2 && second != 'A') || n == 1) removeFlag(dir, StateFile::ANON);
}

void recomputeFlags(const char* dir, const std::string& c) {
    anonExport = _anonExport;
    pixelProcessing = _pixelProcessing;
    pixelProcessingRetain = _pixelProcessingRetain;
    if (nonZeroFile(dir, StateFile::ANON))
        anonExport = true;
    else if (_anonExport && c.size() >= 2 && c[1] == 'Y')
        anonExport = false;

    if (nonZeroFile(dir, StateFile::NO_PROCESSING)) {
        anonExport = pixelProcessing = pixelProcessingRetain = false;
    } else if (nonZeroFile(dir, StateFile::RETAIN_PIXEL)) {
        pixelProcessingRetain = true;
        pixelProcessing = false;
    } else if (nonZeroFile(dir, StateFile::OPTIMIZE_PIXEL)) {
        pixelProcessing = true;
        pixelProcessingRetain = false;
    }
}

// Runs under the reply lock, which copyDescription takes as well: the
// heartbeat never sees a half-written description.
void rebuildDescription(const char* dir) {
    if (!viewpointDir[0] || HL7_inputDir[0] || (EMR_INTF != EMR_NONE && EMR_INTF != EMR_HL7FILE)) return;
    applications2[0] = '\0';
    if (anonExport) {
        appendf(applications2, DESCRIPTION_BOUND, ", anonymization for export");
        bool nonStrict = !nonZeroFile(dir, StateFile::STRICT_ANON) || nonZeroFile(dir, StateFile::NON_STRICT);
        appendf(applications2, DESCRIPTION_BOUND, "%s", nonStrict ? " (non-strict," : " (strict,");
        appendf(applications2, DESCRIPTION_BOUND, "%s", pixelProcessing ? "optimized)" : "original)");
    } else if (pixelProcessing) {
        appendf(applications2, DESCRIPTION_BOUND, ", Sundel Image Processing");
    } else if (pixelProcessingRetain) {
        appendf(applications2, DESCRIPTION_BOUND, ", Sundel Image Processing + Retain original Pixel Data");
    } else {
        appendf(applications2, DESCRIPTION_BOUND, ", No Sundel Image Processing");
    }
    if (anyProcessingMode()) appendf(applications2, DESCRIPTION_BOUND, ", %d workers", NUM_WORKERS);
}

}  // namespace

int processResults(const char* dir, const char* reply) {
    OfferedVersions offered;
    {
        ResultsLock lock;
        Memory memory;
        KeyValues<char> table(64, 4096);
        int count = 0;
        char** items = Util::split(reply, '&', &count, &memory);
        for (int i = 0; i < count; ++i) {
            char* item = items[i];
            char* value = strchr(item, '=');
            if (value)
                *value++ = '\0';
            else
                value = item + strlen(item);
            table.addKeyValue(item, value);
        }

        storeDisplayName(dir, trimmedValue(table, "display_name"));

        std::string account = trimmedValue(table, "acct");
        if (EMR_INTF != EMR_NONE && !account.empty()) writeTxt(dir, StateFile::ACCOUNT, Util::encrypt(account.c_str()));

        bool present = false;
        std::string code = trimmedValue(table, "optimize", &present);
        if (!present) code = "D";
        applyOptimize(dir, code);
        recomputeFlags(dir, code);
        rebuildDescription(dir);

        offered.hubTalk = versionOrZero(trimmedValue(table, "hubTalkVer"));
        offered.storescp = versionOrZero(trimmedValue(table, "storescpVer"));
        offered.dicomDic = versionOrZero(trimmedValue(table, "dicomDicVer"));
    }
    // Downloads take long: heartbeats and local requests must not wait on them.
    if (selfUpdateDue()) runSelfUpdate(dir, offered);
    return 0;
}

void copyDescription(char* out, size_t size) {
    ResultsLock lock;
    snprintf(out, size, "%s", applications2);
}
