#include "sharingRequest.h"

#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "anonFile.h"
#include "bounds.h"
#include "dicom.h"
#include "files.h"
#include "jsn.h"
#include "memory.h"
#include "random.h"
#include "sendFile.h"
#include "settings.h"
#include "text.h"

namespace {

// Longest request name kept in a share's name.
constexpr size_t SHARE_NAME_PART_MOST = 160;

// The file a request may upload, resolved; "" when it may not.
std::string admittedFile(const std::string& dir, const std::string& named) {
    if (named.empty()) return "";
    std::string root = resolvedPath(viewpointDir);
    std::string resolved = resolvedPath(named[0] == '/' ? named : dir + "/" + named);
    if (root.empty() || resolved.size() <= root.size() + 1 ||
        resolved.compare(0, root.size() + 1, root + "/") != 0)
        return "";
    struct stat st;
    return lstat(resolved.c_str(), &st) == 0 && S_ISREG(st.st_mode) ? resolved : "";
}

std::string baseName(const std::string& path) {
    size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// A copy into the export directory for the walk to upload later; its path,
// or "" when it could not be made.
std::string copyForLater(const std::string& from, const std::string& name) {
    std::string to = std::string(viewpointDir) + "/" + name;
    if (cpFile(from.c_str(), to.c_str()) != 0) {
        fprintf(stderr, "Sharing: could not copy %s for a later upload (%s)\n", from.c_str(),
                strerror(errno));
        return "";
    }
    return to;
}

struct Sharing {
    std::string suffix;
    std::string type;  // "Export" or "Export-Pre"
    std::string patientInformation;
    std::string uids;  // the quoted list
    std::string waitList;
};

void addUid(Sharing& s, const std::string& uid) {
    if (!s.uids.empty()) s.uids += ", ";
    s.uids += "\"" + uid + "\"";
}

// A shared file leaves the export directory once delivered, as any other
// file there does; the walk would otherwise send it a second time.
void shareDicom(Sharing& s, const std::string& path) {
    FileStamp seen = stampOf(path);
    bool processed = false, unprocessed = false;
    if (anyProcessingMode()) {
        int result = processAnonFile(path.c_str(), EXPORT_SENDER_WORKER, 0, &unprocessed);
        if (result == ANON_DISCARD && anonExport) {
            unlink(path.c_str());
            return;
        }
        processed = result == ANON_EXPORT;
        seen = stampOf(path);
    }
    char buf[129];
    std::string uid = uidText(getSopInstance(path.c_str(), buf, sizeof buf));
    if (uid.empty()) uid = uidText(genSopInstanceId());
    addUid(s, uid);
    std::string uploadName = baseName(path);
    if (uploadName.find(".dcm") == std::string::npos) uploadName = uid + ".dcm";
    if (uploadExported(path, seen, uploadName.c_str(), uploadName.c_str(), unprocessed, "",
                       s.type.c_str()) != UploadResult::FAILED)
        return;
    std::string copyName = uid + (processed ? ".dcm~" : ".dcm") + (unprocessed ? "._UNP_" : "");
    if (!s.suffix.empty() && !endsWith(copyName.c_str(), s.suffix.c_str())) copyName += s.suffix;
    std::string copy = copyForLater(path, copyName);
    if (!copy.empty()) s.waitList += copy + "\n";
}

void shareOther(Sharing& s, const std::string& path) {
    FileStamp seen = stampOf(path);
    std::string uid = uidText(genSopInstanceId());
    std::string suffix = safeSuffix(baseName(path));
    std::string info = informationText(uid, suffix, s.patientInformation);
    std::string uploadName = uid + suffix;
    addUid(s, uid);
    if (uploadExported(path, seen, info.c_str(), uploadName.c_str(), false, "", s.type.c_str()) !=
        UploadResult::FAILED)
        return;
    std::string copy = copyForLater(path, uploadName);
    if (copy.empty()) return;
    if (!writeTxt(viewpointDir, (uploadName + ".info").c_str(), info.c_str())) {
        fprintf(stderr, "Sharing: could not keep the information of %s\n", copy.c_str());
        unlink(copy.c_str());
        return;
    }
    s.waitList += copy + "\n";
}

// The value of key as it stands in the request, or fallback when absent.
std::string rawValue(JsnParser& p, const char* key, const char* fallback) {
    if (p.getObject(0, key, 0) < 0) return fallback;
    return p.getFullObject(0, key, 0);
}

}  // namespace

std::string informationText(const std::string& uid, const std::string& suffix,
                            const std::string& patientInformation) {
    return barFree("{ \"sop_instance_id\":  \"" + uid + "\", \"file_suffix\":  \"" + suffix +
                   "\", \"patient_information\": " + patientInformation + "}");
}

std::string barFree(const std::string& json) {
    std::string out;
    for (char c : json) out += c == '|' ? std::string("\\u007c") : std::string(1, c);
    return out;
}

std::string safeSuffix(const std::string& name) {
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot == 0 || name.size() - dot > 16) return "";
    for (size_t i = dot + 1; i < name.size(); ++i) {
        char c = name[i];
        if (!isalnum(static_cast<unsigned char>(c)) && c != '_' && c != '-') return "";
    }
    return name.substr(dot);
}

void handleSharingRequest(const std::string& dir, const std::string& name,
                          const std::string& suffix) {
    std::string path = dir + "/" + name;
    FileStamp seen = stampOf(path);
    std::string text = readText(path.c_str(), "", Limits::SHARING_TEXT_MOST);
    JsnParser p(&text[0], static_cast<int>(text.size()));
    if (p.failed || p.tokenCount() == 0 || p.token(0).type != JSN_OBJECT) {
        // Once per request as it stands.
        if (firstTime("parse " + path + "|" + std::to_string(seen.mtime.tv_sec)))
            fprintf(stderr, "jsn parse failed %s\n", path.c_str());
        return;
    }
    Sharing s;
    s.suffix = suffix;
    bool preshare = p.getBool(0, "preshare", 0);
    s.type = preshare ? "Export-Pre" : "Export";
    s.patientInformation = rawValue(p, "patient_information", "{ }");
    int info = p.getObject(0, "patient_information", 0);
    std::string study = info >= 0 ? p.getString(info, "study_instance_uid", 0) : "";
    std::string recipients = p.getFullArray(0, "recipients", 0);

    int count = p.getArrayNum(0, "files", 0);
    for (int i = 1; i <= count; ++i) {
        std::string named = p.getString(0, "files", i);
        std::string file = admittedFile(dir, named);
        if (file.empty()) {
            fprintf(stderr, "Sharing %s: %.512s is no regular file inside the export directory; left out\n",
                    name.c_str(), named.c_str());
            continue;
        }
        if (isDicom(file.c_str(), ""))
            shareDicom(s, file);
        else
            shareOther(s, file);
    }
    if (p.getBool(0, "share_report", 0)) addUid(s, "PUT_REPORT_SOP_HERE");

    std::string request = "{ \"request_type\": \"sharing\",";
    request += "\"sender\": " + rawValue(p, "sender", "{ }") + ",";
    request += "\"optional_message_text\": " + rawValue(p, "optional_message_text", "\"\"") + ",";
    request += "\"subject_header\": " + rawValue(p, "subject_header", "\"\"") + ",";
    request += "\"recipients\": " + recipients + ",";
    if (preshare) request += "\"preshare\":true,";
    request += "\"study_instance_uid\": \"" + study + "\",";
    request += "\"sop_instance_uids\" : [" + s.uids + " ] }";

    char shareName[SHARE_NAME_PART_MOST + 64];
    snprintf(shareName, sizeof shareName, "%u.%u.%.*s.share", static_cast<unsigned>(getpid()),
             static_cast<unsigned>(syscall(SYS_gettid)), static_cast<int>(SHARE_NAME_PART_MOST),
             name.c_str());
    // The wait list goes first: a share never goes out ahead of its files.
    if (!s.waitList.empty() && !writeTxt(dataDir, shareName, s.waitList.c_str())) {
        fprintf(stderr, "Sharing %s: could not write its wait list; the request stays\n", name.c_str());
        return;
    }
    request = barFree(request);
    if (!writeTxt(dir.c_str(), shareName, request.c_str())) {
        fprintf(stderr, "Sharing %s: could not write its share; the request stays\n", name.c_str());
        rmFile(dataDir, shareName);
        return;
    }
    if (!removeUnchanged(path, seen))
        fprintf(stderr, "Sharing %s: the request stays (changed or not removable)\n", name.c_str());
}

void handleShare(const std::string& dir, const std::string& name, const FileStamp& seen) {
    std::string waitList = readText(dataDir, name.c_str(), Limits::SHARING_TEXT_MOST);
    if (!trimmed(waitList).empty()) {
        bool pending = false;
        size_t at = 0;
        while (at < waitList.size() && !pending) {
            size_t end = waitList.find('\n', at);
            if (end == std::string::npos) end = waitList.size();
            std::string line = trimmed(waitList.substr(at, end - at));
            pending = !line.empty() && nonZeroFile(line.c_str(), "");
            at = end + 1;
        }
        if (pending)
            writeTxt(dataDir, name.c_str(), waitList.c_str());
        else if (time(nullptr) - getFileModTime(dataDir, name.c_str()) > Limits::SHARE_LIST_GRACE_S)
            rmFile(dataDir, name.c_str());
        return;
    }
    std::string path = dir + "/" + name;
    std::string text = trimmed(readText(path.c_str(), "", Limits::SHARING_TEXT_MOST));
    Memory mem;
    char* reply = SendFile::sendAPICommand(dataDir, text.c_str(), VERBOSE, QUIET, &mem);
    if (strcasecmp(reply, "success") == 0) removeUnchanged(path, seen);
}
