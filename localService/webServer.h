// The service's file endpoint: HTTPS "GET /<path>" answered with web/<path>
// of the configuration directory, under the command sessions' certificate
// pair. The agent's download tool fetches its updates from such a server.
#pragma once
#include <string>

struct ServiceContext;

class WebServer {
public:
    WebServer() = default;
    ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Binds address:port (port 0: any free one). Empty on success, else the reason.
    std::string open(const std::string& address, int port);
    int port() const { return m_port; }
    // A thread per connection; returns once the stop flag is set and every
    // connection has ended.
    void run(ServiceContext& context);

private:
    int m_fd = -1;
    int m_port = 0;
};

// The file a request target names below web/, or "" when it would leave it
// (absolute, "..", ".", empty parts, a zero byte).
std::string webRelativePath(const std::string& target);
