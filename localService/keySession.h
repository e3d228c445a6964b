// The data session that follows an accepted upload header or push command on
// the same connection.
#pragma once
#include <memory>
#include <string>

class CommandChannel;
class ServerTlsSession;
struct ServiceContext;

// Answers okText on the certificate session, takes the box's end of it, and
// runs the key session for id and display name (with the wrong key under the
// wrongKey fault). Null when any step fails.
std::unique_ptr<ServerTlsSession> openKeySession(CommandChannel& channel, ServiceContext& context,
                                                 const std::string& okText, const std::string& id,
                                                 const std::string& displayName);
