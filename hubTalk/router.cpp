#include "router.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <vector>

#include "bounds.h"
#include "dicom.h"
#include "files.h"
#include "ledger.h"
#include "process.h"
#include "routeCommand.h"
#include "sendFile.h"
#include "serviceLog.h"
#include "settings.h"
#include "stateFiles.h"
#include "text.h"

namespace {

const unsigned PASS_PAUSE_S = 20;
const unsigned DOWNLOAD_RETRY_PAUSE_S = 2;
const int DOWNLOAD_FAILURES_LOGGED = 2;

struct Item {
    long id = 0;
    std::string aeTitle;
    std::string key;
};

std::vector<std::string> fields(const std::string& text) {
    std::vector<std::string> out;
    size_t from = 0;
    for (;;) {
        size_t bar = text.find('|', from);
        out.push_back(text.substr(from, bar == std::string::npos ? std::string::npos : bar - from));
        if (bar == std::string::npos) return out;
        from = bar + 1;
    }
}

// A decimal id that fits an int, blanks around it allowed.
bool parseId(const std::string& text, long& id) {
    std::string t = trimmed(text);
    if (t.empty() || t.size() > 9) return false;
    for (char c : t)
        if (c < '0' || c > '9') return false;
    id = atol(t.c_str());
    return true;
}

void report(long id, const std::string& message) {
    int status = 1;
    SendFile::sendDdicom(dataDir, status, static_cast<int>(id), message.c_str(), VERBOSE, QUIET);
}

std::string bounded(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string bounded(const char* format, ...) {
    char text[Limits::ROUTE_MESSAGE_MOST];
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    return text;
}

// Only a regular file at an absolute path counts as dropped ("error" and
// other failure texts are not paths).
bool isDroppedFile(const std::string& path) {
    struct stat st;
    return !path.empty() && path[0] == '/' && stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

void removeDropped(const std::string& path) {
    if (unlink(path.c_str()) == 0 || errno == ENOENT) {
        if (VERBOSE) printf("Sundel:  File %s is removed\n", path.c_str());
    } else {
        fprintf(stderr, "Router: cannot remove %s: %s\n", path.c_str(), strerror(errno));
    }
}

// The file for the item, after up to four downloads; "" when none came
// (the item is then reported, with *failure).
std::string download(const Item& item, std::string* failure) {
    std::string path = SendFile::getDicom(dataDir, item.key.c_str(), VERBOSE, QUIET);
    if (VERBOSE) printf("Sundel:  getDicom() finished and dropped this file %s\n", path.c_str());
    for (int count = 0; !isDroppedFile(path); ++count) {
        std::string message = bounded(
            "Sundel:  router loop FAILED:  getDicom() did not drop a local file for id=%ld (count=%d)\n",
            item.id, count);
        if (count > DOWNLOAD_FAILURES_LOGGED) {
            report(item.id, message);
            *failure = message;
            return "";
        }
        logToService(message);
        sleep(DOWNLOAD_RETRY_PAUSE_S);
        path = SendFile::getDicom(dataDir, item.key.c_str(), VERBOSE, QUIET);
    }
    return path;
}

// One ledger line per routed item: the message reported, or "ok".
void recordRoute(const Item& item, const std::string& server, long long bytes, const std::string& message,
                 double started) {
    LedgerEntry entry;
    entry.kind = "route";
    entry.item = std::to_string(item.id);
    entry.server = server;
    entry.bytes = bytes;
    entry.result = message.empty() ? "ok" : trimmed(message);
    entry.seconds = monotonicSeconds() - started;
    ledgerRecord(dataDir, entry);
}

void deliver(const Item& item, const std::string& file) {
    long long bytes = fileSizeOf(file.c_str());  // before the command, which may move it
    double started = monotonicSeconds();
    std::string table = readText(dataDir, StateFile::DESTINATIONS.name, StateFile::DESTINATIONS.most);
    Destination to = findDestination(table, item.aeTitle, ER_ip);
    std::string server = to.host.empty() ? to.aeTitle : to.aeTitle + "@" + to.host + ":" + std::to_string(ER_port);
    if (VERBOSE) printf("Sundel:  aetitle = %s\n", to.aeTitle.c_str());
    DeliveryCommand d = deliveryCommand(file, to);
    int status = 1;
    if (d.command.empty()) {
        fprintf(stderr, "Router: item %ld not delivered: %s\n", item.id, d.problem.c_str());
    } else {
        if (VERBOSE) printf("Sundel:  Command composed:  %s\n", d.command.c_str());
        unsigned limit = routeTimeout();
        status = runBounded(d.command.c_str(), limit);
        if (status == RUN_TIMED_OUT)
            fprintf(stderr, "Router: item %ld: delivery stopped after %u s\n", item.id, limit);
    }
    std::string message;
    if (status != 0) {
        message = bounded(
            "Sundel:  router loop FAILED:  (dcmsend/measurecast) command failed for aetitle=%s id=%ld, "
            "ip=%s, port=%d\n",
            messageSafe(to.aeTitle).c_str(), item.id, messageSafe(to.host).c_str(), ER_port);
        if (VERBOSE) printf("Sundel:  Command Failed (%s)\n", message.c_str());
    } else if (VERBOSE) {
        printf("Sundel:  Command Succeeded\n");
    }
    report(item.id, message);
    recordRoute(item, server, bytes, message, started);
}

}  // namespace

unsigned routeTimeout() {
    long seconds = atol(readTrimmed(dataDir, StateFile::ROUTE_TIMEOUT));
    return seconds > 0 && seconds <= INT_MAX ? static_cast<unsigned>(seconds) : Limits::ROUTE_DELIVERY_TIMEOUT_S;
}

int route_loop_proc(int64_t* timestamp) {
    *timestamp = 0;
    bool handledAny = false;
    long lastId = 0;
    for (;;) {
        int status = 1;
        std::string reply = SendFile::sendQdicom1(dataDir, status, VERBOSE, QUIET);
        std::vector<std::string> f = fields(reply);
        if (reply.empty() || f.size() < 3) break;
        Item item;
        if (!parseId(f[0], item.id)) {
            // Nothing can be reported for it; the service sees the line.
            logToService("Sundel:  router loop FAILED:  queue item without a numeric id: " +
                         messageSafe(reply.substr(0, 64)) + "\n");
            break;
        }
        if (handledAny && item.id == lastId) break;
        item.aeTitle = f[1];
        item.key = f[2];
        handledAny = true;
        lastId = item.id;

        double started = monotonicSeconds();
        std::string failure;
        std::string file = download(item, &failure);
        if (file.empty()) {
            recordRoute(item, item.aeTitle, -1, failure, started);
            break;
        }
        if (!isDicom(file.c_str(), "")) {
            std::string message = bounded("Sundel:  router loop FAILED:  non-DICOM file received for id=%ld\n", item.id);
            report(item.id, message);
            recordRoute(item, item.aeTitle, fileSizeOf(file.c_str()), message, started);
            removeDropped(file);
            break;
        }
        if (VERBOSE) printf("Sundel:  %s confirmed to be DICOM\n", file.c_str());
        deliver(item, file);
        removeDropped(file);
        *timestamp = time(nullptr);
    }
    return 0;
}

int removeStaleDrops() {
    DIR* d = opendir(dataDir);
    if (!d) return 0;
    std::string own = "CR." + std::to_string(getpid()) + ".";
    int removed = 0;
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name.compare(0, 3, "CR.") != 0 || name.compare(0, own.size(), own) == 0) continue;
        std::string path = std::string(dataDir) + "/" + name;
        struct stat st;
        if (lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && unlink(path.c_str()) == 0) ++removed;
    }
    closedir(d);
    return removed;
}

void* route_proc(void*) {
    std::unique_ptr<int64_t> timestamp(new int64_t(0));
    removeStaleDrops();
    sleep(PASS_PAUSE_S);
    for (;;) {
        route_loop_proc(timestamp.get());
        sleep(PASS_PAUSE_S);
    }
    return nullptr;
}
