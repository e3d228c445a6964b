// MLLP-framed HL7 on the local listener: 0x0B, the message, 0x1C. Every
// message is answered with an acknowledgement and, when it holds an MSH
// segment, stored for the inbound HL7 path.
//
// Answer bytes: 0x0B
//   "MSH|^~\&|PDF||GE|ViewPoint|<ts>|ACK^T01^ACK|<ts>|P|2.4\r\n"   (NACK^T01^NACK)
//   "MSA|AA|<control id>||||"                                       (MSA|AE|)
//   0x1C "\r\n"
// <ts> is the local time "%Y%m%d%H%M%S". CR LF segment ends are deliberate.
#pragma once
#include <cstddef>

struct ListenerConnection;
class GrowingString;

// Serves one message whose first receive (n bytes, starting with 0x0B) is in
// first, and closes the connection.
void handleHl7Request(ListenerConnection& conn, const char* first, int n);

// Where inbound messages are stored: the inbound HL7 directory; "" when it is
// not set, and then nothing is stored.
const char* hl7InboundDir();

// The acknowledgement, appended to out.
void buildHl7Answer(GrowingString& out, bool accepted, const char* controlId,
                    const char* timestamp);

// "<control id>.<n>.hl7" with the control ID reduced to a safe file name:
// bytes other than letters, digits, '-', '_' and '.' become '_', a leading
// '.' too, it is cut at 64 bytes, and an empty one reads "NOID". The name
// never leaves its directory. Returns out.
char* hl7FileName(const char* controlId, unsigned int n, char* out, size_t size);
