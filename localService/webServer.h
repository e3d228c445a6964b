// The service's file endpoint: HTTPS "GET /<path>" answered with web/<path>
// of the configuration directory, under the command sessions' certificate
// pair. The agent's download tool fetches its updates from such a server.
#pragma once
#include <string>

struct ServiceContext;

// Serves one connection (Listener::Handler): one request, then closes.
void serveWebConnection(int fd, ServiceContext& context);

// The file a request target names below web/, or "" when it would leave it
// (absolute, "..", ".", empty parts, a zero byte).
std::string webRelativePath(const std::string& target);
