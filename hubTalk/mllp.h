// MLLP-framed HL7 on the local listener: 0x0B, the message, 0x1C. Every
// complete frame received on a connection is answered, in order, each on its
// own; a frame whose 0x1C never came is answered only when it is the only one.
//
// Answer bytes: 0x0B
//   "MSH|^~\&|PDF||GE|ViewPoint|<ts>|ACK^T01^ACK|<ts>|P|2.4\r\n"   (NACK^T01^NACK)
//   "MSA|AA|<control id>||||"                                       (MSA|AE|)
//   0x1C "\r\n"
// <ts> is the local time "%Y%m%d%H%M%S". CR LF segment ends are deliberate.
// The control ID is echoed without control bytes (below 0x20, and 0x7F).
//
// AA means stored: the message is on disk in the inbound HL7 directory before
// the answer goes out. Anything else is AE (no MSH segment, fewer than ten
// fields, no 0x1C, no inbound directory, a failed write), and the sender
// keeps the message.
//
// The inbound HL7 directory holds only complete accepted messages, each in a
// file "<control id>.<n>.hl7" of its own that is never overwritten; names
// starting with "." are temporaries. Refused messages that hold "MSH|" are
// kept for the operator in its subfolder "rejected", which is never input.
#pragma once

// The frame's first and last byte.
const char MLLP_START = 0x0B;
const char MLLP_END = 0x1C;

struct ListenerConnection;

// Serves the frames in message (n bytes from 0x0B on, zero bytes blanked,
// NUL-terminated), complete when a received piece held 0x1C, and closes the
// connection.
void handleHl7Request(ListenerConnection& conn, char* message, int n, bool complete);
