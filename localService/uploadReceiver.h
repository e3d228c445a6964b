// Uploads: the header arrives on the command session; unless declined, the
// box switches to a key session on the same connection and streams exactly
// the announced number of bytes, then waits for the confirmation.
//
// The file is stored as store/<name> (a "/" in the name becomes "_"), its
// header line as headers/<name>; both are in place before the confirmation.
// Replies: "OK" to accept the header, "NO" to decline (fault "uploadNo"),
// "error" for an unknown box or a malformed header; "OK" confirms receipt.
#pragma once

class CommandChannel;
struct Request;
struct ServiceContext;

void receiveUpload(const Request& request, CommandChannel& channel, ServiceContext& context);
