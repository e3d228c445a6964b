#include "listenerClient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fcntl.h>

#include <cerrno>
#include <cstdio>

#include "listener.h"
#include "settings.h"
#include "testUtil.h"

const char* const PING_REQUEST = R"({"request_type": "ping"})";

int connectTo(int port, const char* host, int receiveTimeoutSeconds) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, host, &a.sin_addr);
    timeval tv{receiveTimeoutSeconds, 0};
    // Bounds the connect as well, on a listener that no longer accepts.
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

bool sendAll(int fd, const std::string& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
}

std::string readAll(int fd, bool* timedOut) {
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) out.append(buf, static_cast<size_t>(n));
    if (timedOut) *timedOut = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK);
    close(fd);
    return out;
}

std::string talk(int port, const std::string& bytes, bool endSending, const char* host, int timeoutSeconds) {
    int fd = connectTo(port, host, timeoutSeconds);
    if (fd < 0) return "<refused>";
    sendAll(fd, bytes);
    if (endSending) shutdown(fd, SHUT_WR);
    return readAll(fd);
}

ListenerProcess::ListenerProcess(const std::string& data, const ListenerOptions& options) {
    for (const std::string* dir : {&options.hl7Dir, &options.exportDir, &options.hl7Cache})
        if (!dir->empty()) mkdir(dir->c_str(), 0775);
    m_port = freePort();
    int command[2], reply[2];
    if (pipe2(command, O_CLOEXEC) != 0 || pipe2(reply, O_CLOEXEC) != 0) ADD_FAILURE() << "no pipes";
    fflush(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        // Anything a request makes the listener create by mistake lands in view.
        if (chdir(data.c_str()) != 0) _exit(4);
        if (!options.errorLog.empty() && !freopen(options.errorLog.c_str(), "a", stderr)) _exit(5);
        setvbuf(stderr, nullptr, _IONBF, 0);
        if (options.fileSizeLimit > 0) {
            // Writes then stop short with EFBIG instead of killing it.
            signal(SIGXFSZ, SIG_IGN);
            rlimit limit{static_cast<rlim_t>(options.fileSizeLimit), static_cast<rlim_t>(options.fileSizeLimit)};
            if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(6);
        }
        snprintf(dataDir, sizeof dataDir, "%s", data.c_str());
        snprintf(HL7_inputDir, sizeof HL7_inputDir, "%s", options.hl7Dir.c_str());
        snprintf(viewpointDir, sizeof viewpointDir, "%s", options.exportDir.c_str());
        snprintf(HL7_cache, sizeof HL7_cache, "%s", options.hl7Cache.c_str());
        PORT = m_port;
        REMOTE = options.remote;
        NumTcpThreads = options.threads;
        if (!startListener()) _exit(3);
        close(command[1]);
        close(reply[0]);
        for (;;) {
            int ms = 0;
            ssize_t got = read(command[0], &ms, sizeof ms);
            if (got < 0 && errno == EINTR) continue;
            if (got != sizeof ms) _exit(0);  // the test is gone
            // Every number below the lowest free one is taken: with the limit
            // there each new descriptor fails with EMFILE, while poll may
            // still watch that many.
            rlimit saved{};
            getrlimit(RLIMIT_NOFILE, &saved);
            int lowest = open("/dev/null", O_RDONLY | O_CLOEXEC);
            if (lowest >= 0) close(lowest);
            rlimit none{static_cast<rlim_t>(lowest < 0 ? 0 : lowest), saved.rlim_max};
            char lowered = setrlimit(RLIMIT_NOFILE, &none) == 0;
            if (write(reply[1], &lowered, 1) != 1) _exit(8);
            usleep(static_cast<useconds_t>(ms) * 1000);
            setrlimit(RLIMIT_NOFILE, &saved);
        }
    }
    close(command[0]);
    close(reply[1]);
    m_command = command[1];
    m_reply = reply[0];
    if (!waitUntil([&] { return talk(m_port, PING_REQUEST) == "success"; }, 5000))
        ADD_FAILURE() << "the listener on port " << m_port << " does not answer";
}

ListenerProcess::~ListenerProcess() {
    if (m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    close(m_command);
    close(m_reply);
}

bool ListenerProcess::runOutOfDescriptors(int ms) {
    char lowered = 0;
    return write(m_command, &ms, sizeof ms) == sizeof ms && read(m_reply, &lowered, 1) == 1 && lowered;
}

int ListenerProcess::wait() {
    int status = -1;
    if (waitpid(m_pid, &status, 0) != m_pid) return -1;
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
