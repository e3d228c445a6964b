#include "testUtil.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

TempDir::TempDir() {
    const char* base = getenv("TMPDIR");
    std::string templ = std::string(base && *base ? base : "/tmp") + "/hubtalk-test-XXXXXX";
    if (!mkdtemp(&templ[0])) throw std::runtime_error("mkdtemp failed");
    m_path = templ;
}

TempDir::~TempDir() {
    std::error_code ignored;  // a leftover directory under /tmp is harmless
    std::filesystem::remove_all(m_path, ignored);
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    size_t n = values.size();
    return n == 0 ? 0 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

std::string slurp(const std::string& path) {
    std::ostringstream ss;
    ss << std::ifstream(path, std::ios::binary).rdbuf();
    return ss.str();
}

void spit(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << content;
}

bool exists(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

std::vector<std::string> entriesOf(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (e->d_name[0] != '.') names.push_back(e->d_name);
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

static int exitStatus(int status) { return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status); }

RunResult runProgram(const std::vector<std::string>& argv, const std::string& cwd, int timeoutSeconds) {
    TempDir output;
    RunResult r;
    {
        ChildProcess child(argv, cwd, output.file("out"), output.file("err"));
        r.status = child.wait(timeoutSeconds * 1000);
        if (r.status < 0) {
            kill(-child.pid(), SIGKILL);
            r.status = child.wait(5000);
        }
    }
    r.out = slurp(output.file("out"));
    r.err = slurp(output.file("err"));
    return r;
}

int listenLoopback(int* port, int receiveBuffer) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (receiveBuffer > 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 4) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        close(fd);
        return -1;
    }
    *port = ntohs(a.sin_port);
    return fd;
}

bool enterPrivateNetwork() {
    if (geteuid() != 0 || unshare(CLONE_NEWNET) != 0) return false;
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq r{};
    snprintf(r.ifr_name, sizeof r.ifr_name, "lo");
    bool up = fd >= 0 && ioctl(fd, SIOCGIFFLAGS, &r) == 0 && ((r.ifr_flags |= IFF_UP), ioctl(fd, SIOCSIFFLAGS, &r) == 0);
    if (fd >= 0) close(fd);
    return up;
}

int freePort() {
    int port = 0;
    close(listenLoopback(&port));
    return port;
}

std::string pkiFile(const std::string& name) { return std::string(HUBTALK_PKI_DIR) + "/" + name; }

ChildProcess::ChildProcess(const std::vector<std::string>& argv, const std::string& cwd,
                           const std::string& stdoutPath, const std::string& stderrPath) {
    m_pid = fork();
    if (m_pid < 0) throw std::runtime_error("fork failed");
    if (m_pid > 0) return;
    setpgid(0, 0);
    int out = open(stdoutPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    int err = open(stderrPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (out >= 0) dup2(out, 1);
    if (err >= 0) dup2(err, 2);
    if (!cwd.empty() && chdir(cwd.c_str()) != 0) _exit(126);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execv(args[0], args.data());
    _exit(127);
}

ChildProcess::~ChildProcess() {
    if (m_status < 0 && m_pid > 0 && stop(SIGTERM, 5000) < 0) {
        kill(-m_pid, SIGKILL);
        wait(5000);
    }
}

int ChildProcess::wait(int timeoutMs) {
    int status = 0;
    if (m_status < 0 && waitUntil([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; }, timeoutMs))
        m_status = exitStatus(status);
    return m_status;
}

int ChildProcess::stop(int signal, int timeoutMs) {
    if (m_status < 0) kill(m_pid, signal);
    return wait(timeoutMs);
}

bool waitUntil(const std::function<bool()>& condition, int timeoutMs) {
    auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (; !condition(); usleep(20000))
        if (std::chrono::steady_clock::now() >= deadline) return false;
    return true;
}

std::vector<int> childrenOf(int pid) {
    std::vector<int> result;
    std::istringstream in(slurp("/proc/" + std::to_string(pid) + "/task/" + std::to_string(pid) + "/children"));
    for (int child; in >> child;) result.push_back(child);
    return result;
}

int inChild(const std::function<int()>& body, int timeoutMs) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    if (waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, timeoutMs)) return exitStatus(status);
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    return -1;
}
