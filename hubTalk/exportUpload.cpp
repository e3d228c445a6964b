#include "exportUpload.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <set>

#include "bounds.h"
#include "ledger.h"
#include "process.h"
#include "sendFile.h"
#include "settings.h"

namespace {

std::mutex deliveredLock;
// Delivered files that would not go, by path and stamp, oldest first.
std::set<std::string> delivered;
std::deque<std::string> deliveredOrder;
std::mutex saidLock;
std::set<std::string> said;

std::string deliveredKey(const std::string& path, const FileStamp& s) {
    return path + "|" + std::to_string(s.size) + "|" + std::to_string(s.mtime.tv_sec) + "." +
           std::to_string(s.mtime.tv_nsec);
}

bool wasDelivered(const std::string& key) {
    std::lock_guard<std::mutex> hold(deliveredLock);
    return delivered.count(key) != 0;
}

void rememberDelivered(const std::string& key) {
    std::lock_guard<std::mutex> hold(deliveredLock);
    if (!delivered.insert(key).second) return;
    deliveredOrder.push_back(key);
    if (deliveredOrder.size() > Limits::DELIVERED_KEPT_MOST) {
        delivered.erase(deliveredOrder.front());
        deliveredOrder.pop_front();
    }
}

}  // namespace

FileStamp stampOf(const std::string& path) {
    FileStamp s;
    struct stat st;
    if (lstat(path.c_str(), &st) != 0) return s;
    s.valid = true;
    s.regular = S_ISREG(st.st_mode);
    s.size = st.st_size;
    s.mtime = st.st_mtim;
    return s;
}

bool sameStamp(const FileStamp& a, const FileStamp& b) {
    return a.valid && b.valid && a.regular == b.regular && a.size == b.size &&
           a.mtime.tv_sec == b.mtime.tv_sec && a.mtime.tv_nsec == b.mtime.tv_nsec;
}

bool removeUnchanged(const std::string& path, const FileStamp& seen) {
    if (!sameStamp(stampOf(path), seen)) return false;
    return unlink(path.c_str()) == 0 || errno == ENOENT;
}

UploadResult uploadExported(const std::string& path, const FileStamp& seen, const char* remote,
                            const char* marker, bool unprocessed, const std::string& companion,
                            const char* type, const std::string& sopUid) {
    std::string key = deliveredKey(path, seen);
    if (!sameStamp(stampOf(path), seen) || wasDelivered(key)) return UploadResult::SKIPPED;
    double started = monotonicSeconds();
    SendFile::Outcome outcome;
    bool failed =
        SendFile::sendWFile(path.c_str(), remote, marker, type, type, dataDir, QUIET, unprocessed, &outcome) != 0;
    LedgerEntry entry;
    entry.kind = "upload";
    entry.item = path.substr(path.find_last_of('/') + 1);
    entry.sopUid = sopUid;
    entry.bytes = seen.size;
    entry.result = failed ? "upload failed: " + outcome.failure : "ok";
    entry.server = outcome.server;
    entry.seconds = monotonicSeconds() - started;
    ledgerRecord(dataDir, entry);
    if (failed) return UploadResult::FAILED;
    if (!sameStamp(stampOf(path), seen)) {
        fprintf(stderr, "%s changed during its upload; it stays and goes again\n", path.c_str());
        return UploadResult::CHANGED;
    }
    if (!removeUnchanged(path, seen)) {
        fprintf(stderr, "%s was delivered but cannot be deleted (%s); it stays\n", path.c_str(),
                strerror(errno));
        rememberDelivered(key);
        return UploadResult::UNDELETABLE;
    }
    if (!companion.empty()) unlink(companion.c_str());
    return UploadResult::REMOVED;
}

std::string uidText(const char* uid) {
    std::string out;
    for (const char* p = uid ? uid : ""; *p; ++p)
        if ((*p >= '0' && *p <= '9') || *p == '.') out += *p;
    return out;
}

std::string headerSafe(std::string name) {
    for (char& c : name)
        if (c == '|' || c == '\n' || c == '\r') c = '_';
    return name;
}

bool firstTime(const std::string& key) {
    std::lock_guard<std::mutex> hold(saidLock);
    if (said.size() >= Limits::DELIVERED_KEPT_MOST) said.clear();
    return said.insert(key).second;
}
