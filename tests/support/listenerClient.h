// Loopback clients of the local request listener, and a listener run in a
// child process of its own (its queues are process-wide).
#pragma once
#include <sys/resource.h>

#include <string>

extern const char* const PING_REQUEST;

// A connected socket whose receive and send time-out also bounds the
// connect, or -1 (errno kept).
int connectTo(int port, const char* host = "127.0.0.1", int receiveTimeoutSeconds = 90);
bool sendAll(int fd, const std::string& bytes);
// Everything until the peer ends the connection; closes fd. timedOut: our
// own receive time-out ended it instead.
std::string readAll(int fd, bool* timedOut = nullptr);
// One connection: the bytes (then optionally the end of sending), the whole
// answer; "<refused>" when it could not connect.
std::string talk(int port, const std::string& bytes, bool endSending = false, const char* host = "127.0.0.1",
                 int timeoutSeconds = 90);

// Directories are made; empty ones are not set. errorLog takes its standard
// error; fileSizeLimit, when above 0, is the largest file it may write.
struct ListenerOptions {
    std::string hl7Dir;
    bool remote = false;
    std::string exportDir = "", hl7Cache = "", errorLog = "";
    long fileSizeLimit = 0;
};

// Serves the data directory (also its working directory) until the object
// goes; the constructor waits until it answers a ping.
class ListenerProcess {
public:
    explicit ListenerProcess(const std::string& dataDir, const ListenerOptions& options = {});
    ~ListenerProcess();
    ListenerProcess(const ListenerProcess&) = delete;
    ListenerProcess& operator=(const ListenerProcess&) = delete;
    int port() const { return m_port; }
    int wait();  // the exit status once it ended by itself
    // Lowers its descriptor limit so that none is left, as when the agent
    // runs out, or restores it; true when done.
    bool shortOfDescriptors(bool shortage);

private:
    pid_t m_pid = -1;
    int m_port = 0;
    rlimit m_limit{};
};
