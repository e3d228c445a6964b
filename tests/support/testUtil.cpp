#include "testUtil.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/hubtalk-test-XXXXXX";
    std::vector<char> buf(templ.begin(), templ.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data())) throw std::runtime_error("mkdtemp failed");
    m_path = buf.data();
}

TempDir::~TempDir() {
    std::string cmd = "rm -rf '" + m_path + "'";
    if (system(cmd.c_str()) != 0) {
        // Nothing to do: a leftover directory under /tmp is harmless.
    }
}

std::string slurp(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

void spit(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

// In a forked child: change into cwd (when given) and run argv; never returns.
[[noreturn]] static void execIn(const std::vector<std::string>& argv, const std::string& cwd) {
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

static void drain(int fd, std::string& into, bool& open) {
    char buf[4096];
    ssize_t n = read(fd, buf, sizeof buf);
    if (n > 0)
        into.append(buf, static_cast<size_t>(n));
    else if (n == 0 || (errno != EINTR && errno != EAGAIN))
        open = false;
}

RunResult runProgram(const std::vector<std::string>& argv, const std::string& cwd,
                     int timeoutSeconds) {
    int outPipe[2], errPipe[2];
    if (pipe(outPipe) != 0 || pipe(errPipe) != 0) throw std::runtime_error("pipe failed");
    pid_t pid = fork();
    if (pid < 0) throw std::runtime_error("fork failed");
    if (pid == 0) {
        setpgid(0, 0);
        dup2(outPipe[1], 1);
        dup2(errPipe[1], 2);
        close(outPipe[0]);
        close(errPipe[0]);
        close(outPipe[1]);
        close(errPipe[1]);
        execIn(argv, cwd);
    }
    close(outPipe[1]);
    close(errPipe[1]);
    RunResult r;
    bool outOpen = true, errOpen = true;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(timeoutSeconds);
    while (outOpen || errOpen) {
        pollfd fds[2] = {{outOpen ? outPipe[0] : -1, POLLIN, 0}, {errOpen ? errPipe[0] : -1, POLLIN, 0}};
        int left = static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                        deadline - std::chrono::steady_clock::now())
                                        .count());
        if (left <= 0) {
            kill(-pid, SIGKILL);
            break;
        }
        if (poll(fds, 2, left) < 0 && errno != EINTR) break;
        if (fds[0].revents) drain(outPipe[0], r.out, outOpen);
        if (fds[1].revents) drain(errPipe[0], r.err, errOpen);
    }
    close(outPipe[0]);
    close(errPipe[0]);
    int status = 0;
    waitpid(pid, &status, 0);
    r.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return r;
}

int freePort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = 0;
    bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len);
    close(fd);
    return ntohs(a.sin_port);
}

std::string pkiFile(const std::string& name) { return std::string(HUBTALK_PKI_DIR) + "/" + name; }

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& cwd,
                           const std::string& stdoutPath, const std::string& stderrPath) {
    m_pid = fork();
    if (m_pid < 0) throw std::runtime_error("fork failed");
    if (m_pid == 0) {
        setpgid(0, 0);
        int out = open(stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int err = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (out >= 0) dup2(out, 1);
        if (err >= 0) dup2(err, 2);
        execIn(argv, cwd);
    }
}

ChildProcess::~ChildProcess() {
    if (m_status < 0 && m_pid > 0) {
        if (stop(SIGTERM, 5000) < 0) {
            kill(-m_pid, SIGKILL);
            wait(5000);
        }
    }
}

int ChildProcess::wait(int timeoutMs) {
    if (m_status >= 0) return m_status;
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        int status = 0;
        pid_t r = waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            return m_status;
        }
        if (std::chrono::steady_clock::now() >= deadline) return -1;
        usleep(20000);
    }
}

int ChildProcess::stop(int signal, int timeoutMs) {
    if (m_status >= 0) return m_status;
    kill(m_pid, signal);
    return wait(timeoutMs);
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        if (condition()) return true;
        if (std::chrono::steady_clock::now() >= deadline) return false;
        usleep(20000);
    }
}

std::vector<int> childrenOf(int pid) {
    std::vector<int> result;
    std::string path = "/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children";
    std::istringstream in(slurp(path));
    int child;
    while (in >> child) result.push_back(child);
    return result;
}
