#include "mllp.h"

#include <cstdio>
#include <cstring>

#include "exception.h"
#include "files.h"
#include "listener.h"
#include "memory.h"
#include "random.h"
#include "settings.h"
#include "text.h"

namespace {

const char START_BYTE = 0x0B;
const char END_BYTE = 0x1C;
// A frame that grows beyond this without its end byte is cut short there.
const unsigned int MAX_FRAME = 16 * 1024 * 1024;
const size_t MAX_ID_IN_NAME = 64;

void appendBlanked(GrowingString& out, char* bytes, ssize_t n) {
    blankZeros(bytes, n);
    out.add(bytes, static_cast<int>(n));
}

bool safeNameByte(unsigned char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.';
}

// Where inbound messages are stored ("": nowhere). Never the HL7 cache: for
// link-file sites that is the outbound directory.
const char* hl7InboundDir() { return HL7_inputDir; }

void buildHl7Answer(GrowingString& out, bool accepted, const char* controlId, const char* timestamp) {
    const char start[2] = {START_BYTE, 0};
    const char end[4] = {END_BYTE, '\r', '\n', 0};
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

}  // namespace

void handleHl7Request(ListenerConnection& conn, char* first, int n) {
    Memory arena;
    GrowingString text;
    appendBlanked(text, first, n);

    // Receiving stops at the first chunk holding an end byte, so the last end
    // byte of the text is always in the newest chunk.
    bool complete = memrchr(first, END_BYTE, static_cast<size_t>(n)) != nullptr;
    char* buf = static_cast<char*>(arena.malloc(LISTENER_BUFFER));
    conn.arm(LISTENER_TIMEOUT_MS);
    while (!complete && text.length() < MAX_FRAME) {
        ssize_t got = conn.receive(buf, LISTENER_BUFFER);
        if (got <= 0) break;
        appendBlanked(text, buf, got);
        complete = memrchr(buf, END_BYTE, static_cast<size_t>(got)) != nullptr;
    }
    char* message = text.get(&arena);
    if (complete) *strrchr(message, END_BYTE) = ' ';
    conn.disarm();

    int count = 0;
    char** fields = Util::split(message, '|', &count, &arena);
    const char* controlId = count < 10 ? "ERROR" : fields[9];
    bool accepted = count >= 10 && complete;

    char* msh = strstr(message, "MSH|");
    if (!msh) {
        accepted = false;
    } else if (*hl7InboundDir()) {
        // Senders reuse control IDs: a message still waiting to be processed
        // is not overwritten while another name is free.
        char name[MAX_ID_IN_NAME + 32];
        for (int tries = 0; tries < 8; tries++) {
            unsigned int random = 0;
            getRandomNumber(reinterpret_cast<unsigned char*>(&random), 4);
            hl7FileName(controlId, random % 1000, name, sizeof name);
            if (!fileExists(hl7InboundDir(), name)) break;
        }
        // An acknowledged message must not be lost: the sender retries a NACK.
        if (!writeTxt(hl7InboundDir(), name, rtrim(msh))) accepted = false;
    } else if (!QUIET) {
        fprintf(stderr, "No inbound HL7 directory: message %.64s not stored\n", controlId);
    }

    char timestamp[32];
    getUniversalDate(0, timestamp, sizeof timestamp);
    GrowingString answer;
    buildHl7Answer(answer, accepted, controlId, timestamp);
    conn.send(answer.data(), answer.length());
    conn.close();
}
