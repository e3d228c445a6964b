// The listening socket and a thread per connection. run() returns once the
// stop flag is set and every connection thread has ended.
#pragma once
#include <string>

struct ServiceContext;

class Listener {
public:
    Listener() = default;
    ~Listener();
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    // Binds address:port (port 0: any free one). Empty on success, else the reason.
    std::string open(const std::string& address, int port);
    int port() const { return m_port; }
    void run(ServiceContext& context);

private:
    int m_fd = -1;
    int m_port = 0;
};

// True for a numeric IPv4 address in 127.0.0.0/8.
bool isLoopbackAddress(const std::string& address);
