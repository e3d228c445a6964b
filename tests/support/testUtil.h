// Helpers shared by the tests: temporary directories, whole-file I/O,
// running programs with captured output, and free loopback ports.
#pragma once
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

std::string slurp(const std::string& path);
void spit(const std::string& path, const std::string& content);
bool exists(const std::string& path);

struct RunResult {
    int status = -1;  // exit status, or 128 + signal
    std::string out;
    std::string err;
};
// Runs argv[0] with the arguments in cwd (when non-empty), capturing both streams.
RunResult runProgram(const std::vector<std::string>& argv, const std::string& cwd = "",
                     int timeoutSeconds = 60);

// A TCP port on 127.0.0.1 that was free a moment ago.
int freePort();

// Path of a file of the build's development PKI (ca.crt, server.crt, ...).
std::string pkiFile(const std::string& name);
