#include "apiRequests.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "exception.h"
#include "files.h"
#include "jsn.h"
#include "ledger.h"
#include "listener.h"
#include "memory.h"
#include "process.h"
#include "processResults.h"
#include "sendFile.h"
#include "settings.h"
#include "stateFiles.h"

namespace {

void finish(ListenerConnection& conn) {
    conn.close();
    if (VERBOSE) puts("At bottom of request Loop");
}


// The file a "DICOM send" request names, resolved (no links, no ".."); ""
// unless it is a regular file inside the export directory.
std::string exportFileOf(const char* request) {
    if (!viewpointDir[0]) return "";
    // Read as the upload reads it.
    std::string file = resolvedPath(SendFile::namedFile(request));
    std::string dir = resolvedPath(viewpointDir);
    if (file.empty() || dir.empty()) return "";
    if (dir.back() != '/') dir += '/';
    return file.compare(0, dir.size(), dir) == 0 ? file : "";
}

// True when the client connected from this machine (127.0.0.0/8, ::1).
bool fromLoopback(int fd, char* peer, size_t size) {
    sockaddr_storage addr{};
    socklen_t length = sizeof addr;
    snprintf(peer, size, "unknown peer");
    if (getpeername(fd, reinterpret_cast<sockaddr*>(&addr), &length) != 0) return false;
    if (addr.ss_family == AF_INET) {
        const auto* in = reinterpret_cast<const sockaddr_in*>(&addr);
        inet_ntop(AF_INET, &in->sin_addr, peer, static_cast<socklen_t>(size));
        return (ntohl(in->sin_addr.s_addr) >> 24) == 127;
    }
    if (addr.ss_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const sockaddr_in6*>(&addr);
        inet_ntop(AF_INET6, &in6->sin6_addr, peer, static_cast<socklen_t>(size));
        return IN6_IS_ADDR_LOOPBACK(&in6->sin6_addr);
    }
    return false;
}

}  // namespace

bool answerApiRequest(ListenerConnection& conn, char* text, int n) {
    JsnParser parser(text, n);
    if (parser.failed) {
        conn.send("error");
        finish(conn);
        return true;
    }

    const char* type = parser.getString(0, "request_type", 0);
    if (strcasecmp(type, "shutdown") == 0) {
        char peer[INET6_ADDRSTRLEN];
        if (!fromLoopback(conn.fd, peer, sizeof peer)) {
            char line[128];
            snprintf(line, sizeof line, "Shutdown refused: request from %s", peer);
            logLine(line);
            conn.send("error");
            finish(conn);
            return true;
        }
        writeTxt(dataDir, StateFile::SHUTDOWN, "done");
        conn.send("success");
        conn.close();
        sleep(1);
        fflush(nullptr);
        exit(0);
    }
    if (strcasecmp(type, "ping") == 0) {
        conn.send("success");
        conn.close();
        return true;
    }
    return false;
}

void relayApiRequest(ListenerConnection& conn, char* text, int n) {
    JsnParser parser(text, n);
    std::string type = parser.getString(0, "request_type", 0);
    LedgerEntry entry;
    entry.kind = "listener";
    if (strcasecmp(type.c_str(), "DICOM send") == 0) {
        std::string file = exportFileOf(text);
        if (file.empty() && !QUIET) logLine("DICOM send refused: not a file in the export directory");
        if (!file.empty()) entry.bytes = fileSizeOf(file.c_str());
        double started = monotonicSeconds();
        SendFile::Outcome outcome;
        int rc = file.empty() ? 1 : SendFile::sendAFile(file.c_str(), "Export", "Export", dataDir, QUIET, &outcome);
        if (!file.empty()) {
            entry.item = file.substr(file.find_last_of('/') + 1);
            entry.result = rc == 0 ? "ok" : "upload failed: " + outcome.failure;
            entry.server = outcome.server;
            entry.seconds = monotonicSeconds() - started;
            ledgerRecord(dataDir, entry);
        }
        conn.send(rc == 0 ? "success" : "failure");
        finish(conn);
        return;
    }

    Memory arena;
    entry.item = type;
    double started = monotonicSeconds();
    const char* reply = SendFile::sendAPICommand(dataDir, text, VERBOSE, QUIET, &arena);
    bool failed = !reply || !*reply || strcasecmp(reply, "error") == 0;
    entry.bytes = n;
    entry.result = failed ? "error" : "ok";
    entry.seconds = monotonicSeconds() - started;
    ledgerRecord(dataDir, entry);
    conn.send(reply && *reply ? reply : "error");
    if (failed) {
        // The connection stays open until the service has corrected the
        // agent's state, so that the client's retry meets the corrected one.
        int status = 0;
        char* beat = SendFile::sendHeartbeatCommand(dataDir, status, nullptr, VERBOSE, QUIET);
        if (beat && *beat) processResults(dataDir, beat);
    }
    finish(conn);
}
