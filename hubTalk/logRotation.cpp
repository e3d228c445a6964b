#include "logRotation.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bounds.h"
#include "files.h"
#include "stateFiles.h"

namespace {

std::atomic<bool> redirected{false};

struct Log {
    const StateFileName& name;
    FILE* stream;
    int fd;
};

const Log LOGS[] = {{StateFile::STDOUT_LOG, stdout, STDOUT_FILENO}, {StateFile::STDERR_LOG, stderr, STDERR_FILENO}};

// Opens the file anew and puts it under the stream's descriptor. What the
// stream holds goes out first, to where it was written for; a write racing
// the switch lands wholly in the old file or the new one.
bool pointAt(const Log& log, const std::string& path) {
    int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0664);
    if (fd < 0) return false;
    flockfile(log.stream);
    fflush(log.stream);
    bool done = dup2(fd, log.fd) >= 0;  // 1 and 2 stay inherited by companion tools
    funlockfile(log.stream);
    close(fd);
    return done;
}

std::string generation(const std::string& path, long long n) { return path + "." + std::to_string(n); }

// Current file to ".1", ".1" to ".2" and so on; ".keep" and any above it
// go. Costs as many steps as there are generations, whatever keep says.
void rotate(const Log& log, const std::string& path, long long keep) {
    for (long long n = keep; unlink(generation(path, n).c_str()) == 0; ++n) {
    }
    long long top = 1;
    while (top < keep && fileExists(generation(path, top).c_str(), "")) ++top;
    for (long long n = top - 1; n >= 1; --n) rename(generation(path, n).c_str(), generation(path, n + 1).c_str());
    // Renamed first: until the new file is under the descriptor, lines
    // still reach the old one through it.
    if (rename(path.c_str(), generation(path, 1).c_str()) == 0) pointAt(log, path);
}

}  // namespace

bool redirectLogs(const char* dataDir) {
    bool all = true;
    for (const Log& log : LOGS) all = pointAt(log, std::string(dataDir) + "/" + log.name.name) && all;
    redirected = true;
    return all;
}

void rotateLogsIfLarge(const char* dataDir) {
    if (!redirected) return;
    long long most = positiveNumber(dataDir, StateFile::LOG_ROTATE_BYTES);
    if (!most) most = Limits::LOG_ROTATE_BYTES;
    if (most < Limits::LOG_ROTATE_BYTES_LEAST) most = Limits::LOG_ROTATE_BYTES_LEAST;
    long long keep = positiveNumber(dataDir, StateFile::LOG_KEEP);
    if (!keep) keep = Limits::LOG_KEEP;
    for (const Log& log : LOGS) {
        std::string path = std::string(dataDir) + "/" + log.name.name;
        struct stat file;
        if (stat(path.c_str(), &file) != 0) {
            // Gone (removed by hand, or a new file failed to open last time):
            // lines would go nowhere anyone looks.
            if (errno == ENOENT) pointAt(log, path);
        } else if (file.st_size > most) {
            rotate(log, path, keep);
        }
    }
}
