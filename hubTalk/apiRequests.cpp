#include "apiRequests.h"

#include <strings.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "files.h"
#include "jsn.h"
#include "listener.h"
#include "memory.h"
#include "processResults.h"
#include "sendFile.h"
#include "settings.h"

namespace {

// A sharing document beyond this is not a request but an attack.
const unsigned int MAX_SHARING_DOCUMENT = 16 * 1024 * 1024;

// Zero bytes would cut the text short; they read as blanks, as in state files.
void blankZeros(char* bytes, ssize_t n) {
    for (ssize_t i = 0; i < n; i++)
        if (bytes[i] == '\0') bytes[i] = ' ';
}

// Only a closing quote or bracket can complete a document that did not parse
// yet, so other chunks are not worth a new parse of the whole text.
bool mayComplete(const char* bytes, ssize_t n) {
    for (ssize_t i = 0; i < n; i++)
        if (bytes[i] == '}' || bytes[i] == ']' || bytes[i] == '"') return true;
    return false;
}

std::unique_ptr<JsnParser> parse(const GrowingString& text) {
    return std::make_unique<JsnParser>(const_cast<char*>(text.data()), static_cast<int>(text.length()));
}

void finish(ListenerConnection& conn) {
    conn.close();
    if (VERBOSE) puts("At bottom of request Loop");
}

}  // namespace

bool isSharingDocument(const char* text) { return strstr(text, "\"sharing\"") != nullptr; }

void handleApiRequest(ListenerConnection& conn, char* first, int n) {
    blankZeros(first, n);
    GrowingString whole;
    char* request = first;
    auto parser = std::make_unique<JsnParser>(first, n);

    if (parser->failed && isSharingDocument(first)) {
        whole.add(first, n);
        Memory arena;
        char* buf = static_cast<char*>(arena.malloc(LISTENER_BUFFER));
        bool parsedLatest = true;
        // One deadline for the whole document, not one per part.
        conn.arm(LISTENER_TIMEOUT_MS);
        while (whole.length() < MAX_SHARING_DOCUMENT) {
            ssize_t got = conn.receive(buf, LISTENER_BUFFER);
            if (got <= 0) break;
            blankZeros(buf, got);
            whole.add(buf, static_cast<int>(got));
            parsedLatest = false;
            if (!mayComplete(buf, got)) continue;
            parser = parse(whole);
            parsedLatest = true;
            if (!parser->failed) break;
        }
        conn.disarm();
        if (!parsedLatest) parser = parse(whole);
        request = const_cast<char*>(whole.data());
    }

    if (parser->failed) {
        conn.send("error");
        finish(conn);
        return;
    }

    const char* type = parser->getString(0, "request_type", 0);
    if (strcasecmp(type, "shutdown") == 0) {
        writeTxt(dataDir, "SHUTDOWN.txt", "done");
        conn.send("success");
        conn.close();
        sleep(1);
        fflush(nullptr);
        exit(0);
    }
    if (strcasecmp(type, "ping") == 0) {
        conn.send("success");
        conn.close();
        return;
    }
    if (strcasecmp(type, "DICOM send") == 0) {
        int rc = SendFile::sendAFile(request, "Export", "Export", dataDir, QUIET);
        conn.send(rc == 0 ? "success" : "failure");
        finish(conn);
        return;
    }

    Memory arena;
    const char* reply = SendFile::sendAPICommand(dataDir, request, VERBOSE, QUIET, &arena);
    bool failed = !reply || !*reply || strcasecmp(reply, "error") == 0;
    conn.send(reply && *reply ? reply : "error");
    // The client need not wait for the heartbeat.
    finish(conn);
    if (failed) {
        // Let the service correct the agent's state before the client retries.
        int status = 0;
        char* beat = SendFile::sendHeartbeatCommand(dataDir, status, nullptr, VERBOSE, QUIET);
        if (beat && *beat) processResults(dataDir, beat);
    }
}
