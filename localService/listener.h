// A listening socket and a thread per connection, each served by the
// handler given to run() (the command protocol, the file endpoint). run()
// returns once the stop flag is set and every connection thread has ended.
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
    using Handler = void (*)(int fd, ServiceContext& context);
    void run(ServiceContext& context, Handler serve);

private:
    int m_fd = -1;
    int m_port = 0;
};

// True for a numeric IPv4 address in 127.0.0.0/8.
bool isLoopbackAddress(const std::string& address);
