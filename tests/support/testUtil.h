// Helpers shared by the tests: temporary directories, whole-file I/O,
// running programs with captured output, and free loopback ports.
#pragma once
#include <functional>
#include <string>
#include <vector>

#include "buildConfig.h"

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// The middle value (the mean of the middle two for an even count); 0 for none.
double median(std::vector<double> values);

std::string slurp(const std::string& path);
void spit(const std::string& path, const std::string& content);
bool exists(const std::string& path);
// Names in a directory that do not start with ".", sorted.
std::vector<std::string> entriesOf(const std::string& dir);

struct RunResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out, err;
};
// Runs argv[0] with the arguments in cwd (when non-empty), capturing both streams.
RunResult runProgram(const std::vector<std::string>& argv, const std::string& cwd = "", int timeoutSeconds = 60);

// Moves the process (and every child it starts later) into a network
// namespace of its own with only loopback, up: servers that bind every
// address can then reach nothing else. Needs root; false when not possible
// (the process stays where it was).
bool enterPrivateNetwork();

// A TCP port on 127.0.0.1 that was free a moment ago.
int freePort();
// A socket listening on 127.0.0.1 at a free port (-1 on failure); a receive
// buffer above 0 is set before listening, so connections inherit it.
int listenLoopback(int* port, int receiveBuffer = 0);
// Path of a file of the build's development PKI (ca.crt, server.crt, ...).
std::string pkiFile(const std::string& name);

// A program running in the background, its output going to files; stopped
// (SIGTERM, then SIGKILL) when the object goes.
class ChildProcess {
public:
    ChildProcess(const std::vector<std::string>& argv, const std::string& cwd, const std::string& stdoutPath,
                 const std::string& stderrPath);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    int pid() const { return m_pid; }
    // Sends the signal and waits up to the given time; returns the exit status
    // (128 + signal when killed), or -1 when it did not end in time.
    int stop(int signal, int timeoutMs = 10000);
    // The exit status once ended, or -1 when still running after timeoutMs.
    int wait(int timeoutMs);

private:
    int m_pid = -1;
    int m_status = -1;
};

// Polls the condition every 20 ms; true when it held within the time.
bool waitUntil(const std::function<bool()>& condition, int timeoutMs);
// Runs body in a forked child: its result as exit status (128 + signal when
// killed), or -1 when it did not end within the time (it is then killed).
int inChild(const std::function<int()>& body, int timeoutMs = 60000);
// Direct children of a process (from /proc).
std::vector<int> childrenOf(int pid);
