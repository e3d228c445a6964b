#include "mllp.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "exception.h"
#include "files.h"
#include "listener.h"
#include "memory.h"
#include "random.h"
#include "settings.h"
#include "text.h"

namespace {

const size_t MAX_ID_IN_NAME = 64;
// One control ID may come thousands of times: after this many taken names
// "<id>.<0..999>.hl7" the number is drawn from all 32 bits.
const int NARROW_NAME_DRAWS = 8;
const unsigned int NARROW_NAME_RANGE = 1000;
// Taken names in all before a message is refused.
const int MAX_NAME_DRAWS = 32;
const char* const REJECTED_DIR = "rejected";
const mode_t DIR_MODE = 0775;

bool safeNameByte(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
}

// Where inbound messages are stored ("": nowhere). Never the HL7 cache: for
// link-file sites that is the outbound directory.
const char* hl7InboundDir() { return HL7_inputDir; }

// The text without control bytes, in the arena: an echoed control ID must
// not frame or end the answer.
char* withoutControlBytes(const char* text, Memory& arena) {
    char* out = static_cast<char*>(arena.malloc(strlen(text) + 1));
    char* o = out;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; p++)
        if (*p >= 0x20 && *p != 0x7F) *o++ = static_cast<char>(*p);
    *o = '\0';
    return out;
}

void buildHl7Answer(GrowingString& out, bool accepted, const char* controlId, const char* timestamp) {
    const char start[2] = {MLLP_START, 0};
    const char end[4] = {MLLP_END, '\r', '\n', 0};
    out.add(start);
    out.add("MSH|^~\\&|PDF||GE|ViewPoint|").add(timestamp);
    out.add(accepted ? "|ACK^T01^ACK|" : "|NACK^T01^NACK|").add(timestamp).add("|P|2.4\r\n");
    out.add(accepted ? "MSA|AA|" : "MSA|AE|").add(controlId).add("||||");
    out.add(end);
}

// "<control id>.<n>.hl7" with the control ID reduced to a safe file name:
// other bytes than letters, digits, '-', '_' and '.' become '_', a leading
// '.' too, it is cut at 64 bytes, and an empty one reads "NOID". The name
// never leaves its directory.
char* hl7FileName(const char* controlId, unsigned int n, char* out, size_t size) {
    char safe[MAX_ID_IN_NAME + 1];
    size_t k = 0;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(controlId); *p && k < MAX_ID_IN_NAME; p++) {
        // A leading dot would hide the file (or make "." and "..").
        bool keep = safeNameByte(*p) && !(k == 0 && *p == '.');
        safe[k++] = keep ? static_cast<char>(*p) : '_';
    }
    safe[k] = '\0';
    snprintf(out, size, "%s.%u.hl7", k ? safe : "NOID", n);
    return out;
}

// Stores the message in a new file of its own in dir, never over another
// (senders reuse control IDs); 0 or an errno value.
int storeMessage(const char* dir, const char* controlId, const char* text) {
    char name[MAX_ID_IN_NAME + 32];
    for (int draw = 0; draw < MAX_NAME_DRAWS; draw++) {
        unsigned int random = 0;
        getRandomNumber(reinterpret_cast<unsigned char*>(&random), 4);
        hl7FileName(controlId, draw < NARROW_NAME_DRAWS ? random % NARROW_NAME_RANGE : random, name, sizeof name);
        int rc = createDataSynced(dir, name, text, strlen(text));
        if (rc != EEXIST) return rc;
    }
    return EEXIST;
}

void keepRejected(const char* controlId, const char* text) {
    char* dir = makePath(hl7InboundDir(), REJECTED_DIR);
    if (!dir) return;
    mkdir(dir, DIR_MODE);
    storeMessage(dir, controlId, text);
    ::free(dir);
}

// Stores and answers one frame (its end byte blanked when it came); false
// when the answer could not be sent.
bool serveFrame(ListenerConnection& conn, char* frame, bool complete, Memory& arena) {
    int count = 0;
    char** fields = Util::split(frame, '|', &count, &arena);
    const char* controlId = count < 10 ? "ERROR" : fields[9];
    bool accepted = false;

    char* msh = strstr(frame, "MSH|");
    if (msh && *hl7InboundDir()) {
        rtrim(msh);
        bool wellFormed = count >= 10 && complete;
        int rc = wellFormed ? storeMessage(hl7InboundDir(), controlId, msh) : 0;
        accepted = wellFormed && rc == 0;
        if (!accepted) keepRejected(controlId, msh);
        if (rc != 0 && !QUIET) {
            char line[128];
            snprintf(line, sizeof line, "HL7 message %.64s not stored", controlId);
            errno = rc;
            logSysError(line);
        }
    } else if (msh && !QUIET) {
        fprintf(stderr, "No inbound HL7 directory: message %.64s not stored\n", controlId);
    }

    char timestamp[32];
    getUniversalDate(0, timestamp, sizeof timestamp);
    GrowingString answer;
    buildHl7Answer(answer, accepted, withoutControlBytes(controlId, arena), timestamp);
    return conn.send(answer.data(), answer.length());
}

}  // namespace

void handleHl7Request(ListenerConnection& conn, char* message, int, bool complete) {
    Memory arena;
    if (!complete) {
        serveFrame(conn, message, false, arena);
        conn.close();
        return;
    }
    // A frame runs from its start byte to the next start byte after its
    // (last) end byte; what follows the last complete frame is left unanswered.
    for (char* frame = message; frame;) {
        char* end = strchr(frame, MLLP_END);
        if (!end) break;
        char* next = strchr(end, MLLP_START);
        if (next) *next = '\0';
        *strrchr(frame, MLLP_END) = ' ';
        if (!serveFrame(conn, frame, true, arena)) break;
        if (next) *next = MLLP_START;
        frame = next;
    }
    conn.close();
}
