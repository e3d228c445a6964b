#include "listenerClient.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>

#include "listener.h"
#include "settings.h"
#include "testUtil.h"

const char* const PING_REQUEST = R"({"request_type": "ping"})";

int connectTo(int port, const char* host, int receiveTimeoutSeconds) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, host, &a.sin_addr);
    timeval tv{receiveTimeoutSeconds, 0};
    // Bounds the connect as well, on a listener that no longer accepts.
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) return fd;
    close(fd);  // leaves errno as connect set it
    return -1;
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
    for (const std::string& dir : {options.hl7Dir, options.exportDir, options.hl7Cache}) mkdir(dir.c_str(), 0775);
    m_port = freePort();
    fflush(nullptr);
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);  // never outlives the test
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
        if (!startListener()) _exit(3);
        for (;;) pause();
    }
    if (!waitUntil([&] { return talk(m_port, PING_REQUEST) == "success"; }, 5000))
        ADD_FAILURE() << "the listener on port " << m_port << " does not answer";
}

ListenerProcess::~ListenerProcess() {
    if (m_pid > 0 && waitpid(m_pid, nullptr, WNOHANG) == 0) {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
}

bool ListenerProcess::shortOfDescriptors(bool shortage) {
    if (!shortage) return prlimit(m_pid, RLIMIT_NOFILE, &m_limit, nullptr) == 0;
    // Every number below the lowest free one is taken: with the limit there
    // each new descriptor fails with EMFILE, while poll may still watch that many.
    rlim_t lowest = 0;
    while (exists("/proc/" + std::to_string(m_pid) + "/fd/" + std::to_string(lowest))) lowest++;
    if (prlimit(m_pid, RLIMIT_NOFILE, nullptr, &m_limit) != 0) return false;
    rlimit none{lowest, m_limit.rlim_max};
    return prlimit(m_pid, RLIMIT_NOFILE, &none, nullptr) == 0;
}

int ListenerProcess::wait() {
    int status = -1;
    if (waitpid(m_pid, &status, 0) != m_pid) return -1;
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
