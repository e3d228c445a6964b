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
// Request types match without regard to case.
#pragma once

struct ListenerConnection;

// Serves one request whose first receive (n bytes, NUL-terminated) is in
// first, and closes the connection. Only a sharing document may continue
// beyond the first receive.
void handleApiRequest(ListenerConnection& conn, char* first, int n);
