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

struct ListenerConnection;

// Serves one message whose first receive (n bytes, starting with 0x0B) is in
// first, and closes the connection.
void handleHl7Request(ListenerConnection& conn, char* first, int n);
