// JSON requests on the local listener: the client sends one object and reads
// the answer until the connection closes. Answers carry no terminator.
//
//   request_type "shutdown"   -> "success", "SHUTDOWN.txt" = "done", exit 0;
//                                from a peer off loopback "error" and a log
//                                line (the port may answer the whole LAN)
//   request_type "ping"       -> "success"
//   request_type "DICOM send" -> "success"/"failure" of the upload of the file
//                                named at the end of the request text; only
//                                a regular file inside the export directory
//   anything else             -> the service's reply byte for byte, "error"
//                                when it is empty; then, before the
//                                connection closes, a heartbeat so that the
//                                service can set the agent right
//   not JSON                  -> "error"
// Request types match without regard to case. Only a sharing document (one
// whose first receive names "sharing" in quotes) may take more than one
// receive; the listener reads it until its brackets balance.
#pragma once

struct ListenerConnection;

// Answers, and closes the connection on, what needs nothing beyond this
// machine: "ping", "shutdown" and text that is not JSON. Returns false with
// the connection untouched for a request that waits on the service or an
// upload; relayApiRequest serves those. text (n bytes, zero bytes blanked,
// NUL-terminated) is the whole request.
bool answerApiRequest(ListenerConnection& conn, char* text, int n);
// Serves a request that answerApiRequest left, and closes the connection.
void relayApiRequest(ListenerConnection& conn, char* text, int n);
