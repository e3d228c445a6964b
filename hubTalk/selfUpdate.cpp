#include "selfUpdate.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cctype>
#include <cstring>
#include <ctime>
#include <string>

#include "buildConfig.h"
#include "exception.h"
#include "bounds.h"
#include "files.h"
#include "process.h"
#include "settings.h"
#include "text.h"
#include "stateFiles.h"

namespace {

const char* const DEFAULT_INSTALLATION_DIR = "/Applications/Varnesk_Sundel/bin";
const int UPDATE_EVERY = 19;

// Atomic: callers need not hold the reply lock.
std::atomic<int> updateCount{1};
std::atomic_flag updateRunning = ATOMIC_FLAG_INIT;

// Where the program was started from (PROCESS_DIR when PREFIX holds a "/"),
// else the standard installation directory.
std::string installationDir() {
    if (!strchr(PREFIX, '/')) return DEFAULT_INSTALLATION_DIR;
    return PROCESS_DIR[0] ? PROCESS_DIR : "/";
}


// "<epoch> <what>@<offered version> <result>" in "lastUpdate.txt", once per
// update tried; the version comes from the service and is kept to one word.
void recordUpdate(const char* dataDir, const char* what, const std::string& offered, const char* result) {
    std::string version = offered.substr(0, 64);
    for (char& c : version)
        if (!isgraph(static_cast<unsigned char>(c))) c = '_';
    std::string line = std::to_string(static_cast<long long>(time(nullptr))) + " " + what + "@" + version + " " + result;
    writeTxt(dataDir, StateFile::LAST_UPDATE, line.c_str());
}

int download(const char* dataDir, const std::string& installDir, const char* path,
             const std::string& target) {
    return runDownload(installDir + "/download", downloadUrl(dataDir, path), target);
}

// Puts the downloaded "<current>.NEW" in place, keeping the old file as
// "<current>.SV"; a failed second move brings the old file back.
bool replaceExecutable(const std::string& current) {
    std::string fresh = current + ".NEW";
    std::string saved = current + ".SV";
    chmod(fresh.c_str(), 0755);
    unlink(saved.c_str());
    if (mvFile(current.c_str(), saved.c_str()) != 0) return false;
    if (mvFile(fresh.c_str(), current.c_str()) != 0) {
        mvFile(saved.c_str(), current.c_str());
        return false;
    }
    return true;
}

// Returns false when the check must end here.
bool updateDictionary(const char* dataDir, const std::string& installDir, const std::string& offered) {
    std::string installed = versionOrZero(readTrimmed(dataDir, StateFile::DICTIONARY_VERSION));
    if (!isNewerVersion(offered.c_str(), installed.c_str())) return true;
    std::string target = std::string(dataDir) + "/dicom.NEW.dic";
    if (download(dataDir, installDir, "/varnesk_sundel/pieces/dicom.dic", target) != 0) {
        recordUpdate(dataDir, "dicom.dic", offered, "download failed");
        return false;
    }
    std::string content = readText(dataDir, "dicom.NEW.dic");
    if (!trimmed(content).empty()) {
        writeTxt(dataDir, "dicom.dic", content.c_str());
        writeTxt(dataDir, StateFile::DICTIONARY_VERSION, offered.c_str());
        rmFile(dataDir, "dicom.NEW.dic");
    }
    recordUpdate(dataDir, "dicom.dic", offered, trimmed(content).empty() ? "empty download" : "ok");
    return true;
}

bool updateReceiver(const char* dataDir, const std::string& installDir, const std::string& offered) {
    std::string installed = versionOrZero(readTrimmed(dataDir, StateFile::RECEIVER_VERSION));
    std::string name = std::string(PRE) + "storescp";
    if (!isNewerVersion(offered.c_str(), installed.c_str()) ||
        !nonZeroFile(installDir.c_str(), name.c_str()))
        return true;
    std::string current = installDir + "/" + name;
    const char* failed = download(dataDir, installDir, "/varnesk_sundel/piecesX/storescp", current + ".NEW") != 0
                             ? "download failed"
                             : !replaceExecutable(current) ? "replace failed" : nullptr;
    recordUpdate(dataDir, "storescp", offered, failed ? failed : "ok");
    if (failed) return false;
    writeTxt(dataDir, StateFile::RECEIVER_VERSION, offered.c_str());
    return true;
}

void updateProgram(const char* dataDir, const std::string& installDir, const std::string& offered) {
    std::string installed = versionOrZero(readTrimmed(dataDir, StateFile::PROGRAM_VERSION));
    if (!isNewerVersion(offered.c_str(), installed.c_str())) return;
    std::string current = installDir + "/" + PRE + "hubTalk";
    const char* failed = download(dataDir, installDir, "/varnesk_sundel/piecesX/hubTalk", current + ".NEW") != 0
                             ? "download failed"
                             : !replaceExecutable(current) ? "replace failed" : nullptr;
    recordUpdate(dataDir, "hubTalk", offered, failed ? failed : "ok");
    if (failed) return;
    writeTxt(dataDir, StateFile::PROGRAM_VERSION, offered.c_str());
    sleep(1);
    exit(1);
}

}  // namespace

std::string downloadCommand(const std::string& tool, const std::string& url, const std::string& target) {
    return shellArg(tool) + " " + shellArg(url) + " " + shellArg(target);
}

int runDownload(const std::string& tool, const std::string& url, const std::string& target) {
    int status = runBounded(downloadCommand(tool, url, target).c_str(), Limits::DOWNLOAD_TIMEOUT_S);
    if (status == RUN_TIMED_OUT) logLine(("Download did not finish in time: " + url).c_str());
    return status;
}

std::string downloadUrl(const char* dataDir, const char* path) {
    std::string base = readTrimmed(dataDir, StateFile::DOWNLOAD_BASE);
    if (base.empty()) base = HUBTALK_DOWNLOAD_BASE;
    while (!base.empty() && base.back() == '/') base.pop_back();
    return base + path;
}

bool selfUpdateDue() {
    if (!UPDATE) return false;
    int seen = updateCount.load();
    int next;
    do {
        next = seen >= UPDATE_EVERY ? 1 : seen + 1;
    } while (!updateCount.compare_exchange_weak(seen, next));
    return seen >= UPDATE_EVERY;
}

void resetSelfUpdateCount() { updateCount = 1; }

std::string versionOrZero(const std::string& text) { return text.empty() ? "0" : text; }

bool isNewerVersion(const char* offered, const char* installed) {
    if (!offered || !*offered || strcmp(offered, "0") == 0) return false;
    return strcmp(offered, installed ? installed : "") > 0;
}

void runSelfUpdate(const char* dataDir, const OfferedVersions& offered) {
    // One update at a time; one that comes due meanwhile is skipped, the
    // next check follows nineteen replies later.
    if (updateRunning.test_and_set()) return;
    std::string installDir = installationDir();
    if (updateDictionary(dataDir, installDir, offered.dicomDic) &&
        updateReceiver(dataDir, installDir, offered.storescp))
        updateProgram(dataDir, installDir, offered.hubTalk);
    updateRunning.clear();
}
