// Loopback clients of the local request listener, and a listener run in a
// child process of its own (its queues are process-wide, so one process
// serves one listening socket).
#pragma once
#include <sys/types.h>

#include <string>
#include <utility>

extern const char* const PING_REQUEST;

// A connected socket with a receive and send time-out, which bounds the
// connect too, or -1 (errno kept).
int connectTo(int port, const char* host = "127.0.0.1", int receiveTimeoutSeconds = 90);
bool sendAll(int fd, const std::string& bytes);
// Everything until the peer ends the connection; closes fd. timedOut tells
// whether our own receive time-out ended it instead.
std::string readAll(int fd, bool* timedOut = nullptr);
// One connection: the bytes (then optionally the end of sending), the whole
// answer; "<refused>" when it could not connect.
std::string talk(int port, const std::string& bytes, bool endSending = false,
                 const char* host = "127.0.0.1", int timeoutSeconds = 90);

struct ListenerOptions {
    ListenerOptions() = default;
    ListenerOptions(std::string hl7Dir, bool remote = false, int threads = 3)
        : hl7Dir(std::move(hl7Dir)), remote(remote), threads(threads) {}

    std::string hl7Dir;  // the inbound HL7 directory (made), none when empty
    bool remote = false;
    int threads = 3;
    std::string exportDir;  // the export directory (made), none when empty
    std::string hl7Cache;   // the HL7 cache directory (made), none when empty
    std::string errorLog;   // where its standard error goes, inherited when empty
    long fileSizeLimit = 0;  // largest file it may write (a full disk), none when 0
};

// Serves the data directory (also its working directory) until the object
// goes, when it is killed; the constructor waits until it answers a ping.
class ListenerProcess {
public:
    explicit ListenerProcess(const std::string& dataDir, const ListenerOptions& options = {});
    ~ListenerProcess();
    ListenerProcess(const ListenerProcess&) = delete;
    ListenerProcess& operator=(const ListenerProcess&) = delete;

    int port() const { return m_port; }
    // The exit status once the process ended by itself.
    int wait();
    // Lowers its descriptor limit (RLIMIT_NOFILE) so that no descriptor is
    // left for ms, as when the agent runs out, and then restores it; true
    // once it is lowered.
    bool runOutOfDescriptors(int ms);

private:
    pid_t m_pid = -1;
    int m_port = 0;
    int m_command = -1;  // to the process's main thread
    int m_reply = -1;
};
