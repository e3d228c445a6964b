#include "exportSender.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "anonFile.h"
#include "bounds.h"
#include "dicom.h"
#include "exception.h"
#include "exportUpload.h"
#include "files.h"
#include "memory.h"
#include "patientPictures.h"
#include "processing.h"
#include "reportPairing.h"
#include "serviceLog.h"
#include "settings.h"
#include "sharingRequest.h"
#include "text.h"

namespace {

constexpr unsigned START_DELAY_S = 10;
constexpr unsigned PASS_PAUSE_S = 10;
constexpr size_t SUFFIX_MOST = 127;
const char* const PROCESSED_MARK = ".dcm~";
const char* const INFO_SUFFIX = ".info";
const char* const SECONDARY_CAPTURE_CLASS = "1.2.840.10008.5.1.4.1.1.7";
const char* const ENCAPSULATED_CLASS = "1.2.840.10008.5.1.4.1.1.104.";

bool has(const std::string& s, const char* part) { return s.find(part) != std::string::npos; }

// Temporaries of the companion tools and of the anonymiser's input, which a
// stopped agent may leave beside an image.
bool isTemporary(const std::string& name) {
    if (endsWith(name.c_str(), ".T")) return true;
    for (const char* mark : {".scrub.", ".im."}) {
        size_t at = name.rfind(mark);
        if (at == std::string::npos) continue;
        size_t digits = at + strlen(mark);
        if (digits < name.size() && name.find_first_not_of("0123456789", digits) == std::string::npos)
            return true;
    }
    return false;
}

void sendReport(const std::string& dir, const std::string& name, const std::string& path,
                const FileStamp& seen) {
    std::string study = reportStudy(dir, name);
    if (study.empty()) {
        if (firstTime("report " + path)) {
            char message[160];
            snprintf(message, sizeof message,
                     name.rfind(REPORT_PREFIX, 0) == 0 ? "Sundel Rep_ file not found: %.64s\n"
                         : "Sundel CONV_ file not found: %.64s\n",
                     name.c_str());
            logToService(message);
        }
        return;
    }
    std::string upload = headerSafe(reportUploadName(name, study));
    uploadExported(path, seen, upload.c_str(), upload.c_str(), false, "");
}

// The image classes whose study the service needs to file them.
void checkStudy(const std::string& path, const std::string& name, const char* sopClass) {
    bool capture = strncmp(sopClass, SECONDARY_CAPTURE_CLASS, strlen(SECONDARY_CAPTURE_CLASS)) == 0;
    bool document = strncmp(sopClass, ENCAPSULATED_CLASS, strlen(ENCAPSULATED_CLASS)) == 0;
    if (!capture && !document) return;
    Memory mem;
    const char* study = capture ? isSecondaryCapture(path.c_str(), dataDir, &mem)
                                : isPdfFile(path.c_str(), dataDir, &mem);
    if (!*study && firstTime("study " + path)) {
        char message[160];
        snprintf(message, sizeof message, "Sundel Secondary Capture (study not found): %.64s\n",
                 name.c_str());
        logToService(message);
    }
}

void sendImage(const std::string& path, const std::string& name, FileStamp seen) {
    // One read of the file's head gives its class, its UID and its exam.
    StudyKeys keys;
    getStudyKeys(path.c_str(), &keys);
    checkStudy(path, name, keys.sopClass);
    std::string upload = name;
    bool unprocessed = false;
    size_t mark = upload.find(UNPROCESSED_MARK);
    if (mark != std::string::npos) {
        upload.erase(mark, strlen(UNPROCESSED_MARK));
        unprocessed = true;
    }
    if (anyProcessingMode() && !unprocessed && !has(name, PROCESSED_MARK)) {
        int result = processAnonFile(path.c_str(), EXPORT_SENDER_WORKER, 0, &unprocessed);
        if (result == ANON_RETRY) return;
        if (result == ANON_DISCARD && anonExport) {
            unlink(path.c_str());
            return;
        }
        seen = stampOf(path);
        if (seen.valid && seen.size == 0) {
            unlink(path.c_str());
            return;
        }
        // The exam keeps its keys; its UIDs are the ones that go up.
        StudyKeys now;
        getStudyKeys(path.c_str(), &now);
        memcpy(keys.studyUid, now.studyUid, sizeof keys.studyUid);
        memcpy(keys.sopInstance, now.sopInstance, sizeof keys.sopInstance);
    }
    if (!has(upload, ".dcm")) {
        std::string uid = uidText(keys.sopInstance);
        upload = (uid.empty() ? upload : uid) + ".dcm";
    }
    upload = headerSafe(upload);
    UploadResult r = uploadExported(path, seen, upload.c_str(), upload.c_str(), unprocessed, "", "Export",
                                    uidText(keys.sopInstance));
    if (r != UploadResult::FAILED && r != UploadResult::SKIPPED) rememberStudy(keys);
}

bool isReport(const std::string& name) {
    return (name.rfind(REPORT_PREFIX, 0) == 0 && endsWithNoCase(name.c_str(), ".pdf")) ||
           name.rfind(CONVERTED_PREFIX, 0) == 0;
}

void sendFile(const std::string& dir, const std::string& name, const std::string& suffix,
              bool special, const struct stat& listed) {
    std::string path = dir + "/" + name;
    bool linkMode = EMR_INTF == EMR_HL7FILE && HL7_inputDir[0];
    if (linkMode && isHL7(path.c_str(), "")) return;
    long age = static_cast<long>(time(nullptr) - listed.st_mtime);
    if (age >= 0 && age < SETTLE_S) sleep(static_cast<unsigned>(age));
    FileStamp seen = stampOf(path);
    if (!seen.regular || seen.size == 0) return;
    if (seen.mtime.tv_sec >= time(nullptr)) return;  // still being written: next pass
    // A report the inbound HL7 path dropped carries its information text instead.
    if (linkMode && endsWithNoCase(name.c_str(), ".pdf") && !fileExists((path + ".txt").c_str(), "") &&
        !nonZeroFile((path + INFO_SUFFIX).c_str(), ""))
        return;

    if (endsWith(name.c_str(), ".share")) return handleShare(dir, name, seen);
    if (endsWith(name.c_str(), ".sharing")) return handleSharingRequest(dir, name, suffix);
    if (name == PATIENT_FILE) return handlePatientPictures(dir);
    if (name == PATIENT_JSON || endsWith(name.c_str(), DONE_SUFFIX) ||
        endsWith(name.c_str(), INFO_SUFFIX) || isTemporary(name))
        return;
    if (isPicture(name.c_str()) && fileExists(dir.c_str(), PATIENT_FILE)) return;
    if (isReport(name)) return sendReport(dir, name, path, seen);

    std::string info = path + INFO_SUFFIX;
    if (nonZeroFile(info.c_str(), "")) {
        std::string text = readText(info.c_str(), "", Limits::SHARING_TEXT_MOST);
        std::string upload = headerSafe(name);
        uploadExported(path, seen, text.c_str(), upload.c_str(), false, info);
        return;
    }
    if (!suffix.empty() && !endsWithNoCase(name.c_str(), suffix.c_str())) return;
    if (isDicom(path.c_str(), "")) return sendImage(path, name, seen);
    if (!special) return;
    std::string upload = headerSafe(name);
    uploadExported(path, seen, upload.c_str(), upload.c_str(), false, "");
}

// Sharing requests and reports of a directory go before everything else in
// it: the files they name or pair with may lie beside them, and the walk
// would otherwise send those on their own first.
bool goesFirst(const std::string& name) {
    return endsWith(name.c_str(), ".sharing") || isReport(name);
}

void walkListing(DIR* d, const std::string& dir, const std::string& suffix, int64_t* timer, bool special,
                 int depth, bool firstSweep);

void walk(const std::string& dir, const std::string& suffix, int64_t* timer, bool special, int depth) {
    for (int sweep = 0; sweep < 2; ++sweep) {
        DIR* d = opendir(dir.c_str());
        if (!d) {
            if (firstTime("open " + dir)) logSysError(("Cannot read the directory " + dir).c_str());
            return;
        }
        if (sweep == 0 && anyProcessingMode()) recoverInputCopies(dir.c_str());
        walkListing(d, dir, suffix, timer, special, depth, sweep == 0);
        closedir(d);
    }
}

void walkListing(DIR* d, const std::string& dir, const std::string& suffix, int64_t* timer, bool special,
                 int depth, bool firstSweep) {
    while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == ".." || strcasestr(name.c_str(), ".DS_Store")) continue;
        if (firstSweep != goesFirst(name)) continue;
        std::string path = dir + "/" + name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            if (firstSweep) continue;
            if (depth >= Limits::EXPORT_DEPTH_MOST) {
                if (firstTime("deep " + path))
                    fprintf(stderr, "%s lies too deep in the export directory; not walked\n",
                            path.c_str());
                continue;
            }
            walk(path, suffix, timer, name == "VP6" || name == "SFILES", depth + 1);
            *timer = time(nullptr);
            continue;
        }
        if (!S_ISREG(st.st_mode) || st.st_size == 0) continue;
        sendFile(dir, name, suffix, special, st);
    }
}

}  // namespace

std::string exportSuffix() {
    std::string s = readTrimmed(dataDir, StateFile::EXPORT_SUFFIX);
    if (s.size() > SUFFIX_MOST) s.resize(SUFFIX_MOST);
    return s.find('*') == std::string::npos ? s : "";
}

int sendDir(const char* path, const char* suffix, int64_t* timer, bool inSpecialDir) {
    walk(path, suffix ? suffix : "", timer, inSpecialDir, 0);
    return 0;
}

int vp_loop_proc(int64_t* timer) {
    std::string suffix = exportSuffix();
    *timer = 0;
    return sendDir(viewpointDir, suffix.c_str(), timer, false);
}

void* dir_proc(void*) {
    sleep(START_DELAY_S);
    int64_t timer = 0;
    for (;;) {
        if (*readTrimmed(dataDir, StateFile::DISPLAY_NAME)) vp_loop_proc(&timer);
        sleep(PASS_PAUSE_S);
    }
    return nullptr;
}
