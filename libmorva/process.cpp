#include "process.h"

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>

extern char** environ;

namespace {

const long POLL_FIRST_NS = 1000000;   // 1 ms: most companions end quickly
const long POLL_MOST_NS = 50000000;   // 50 ms

int statusOf(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return RUN_KILLED;
}

}  // namespace

double monotonicSeconds() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

ChildWait waitChildFor(pid_t pid, double seconds, int* status) {
    double deadline = monotonicSeconds() + seconds;
#ifdef SYS_pidfd_open
    // A process descriptor wakes the wait the moment the child ends; polling
    // would add up to a pause to every short companion run.
    int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));  // close-on-exec
    if (pidfd >= 0) {
        for (;;) {
            pid_t r = waitpid(pid, status, WNOHANG);
            if (r == pid || (r < 0 && errno != EINTR)) {
                close(pidfd);
                return r == pid ? ChildWait::Ended : ChildWait::Failed;
            }
            double left = deadline - monotonicSeconds();
            if (left <= 0) {
                close(pidfd);
                return ChildWait::Running;
            }
            pollfd p{pidfd, POLLIN, 0};
            poll(&p, 1, left > 60 ? 60000 : static_cast<int>(left * 1000) + 1);
        }
    }
#endif
    long pause = POLL_FIRST_NS;
    for (;;) {
        pid_t r = waitpid(pid, status, WNOHANG);
        if (r == pid) return ChildWait::Ended;
        if (r < 0 && errno != EINTR) return ChildWait::Failed;
        if (monotonicSeconds() >= deadline) return ChildWait::Running;
        timespec ts{0, pause};
        nanosleep(&ts, nullptr);
        pause = pause * 2 < POLL_MOST_NS ? pause * 2 : POLL_MOST_NS;
    }
}

void initChildAttributes(posix_spawnattr_t* attr) {
    posix_spawnattr_init(attr);
    sigset_t none, pipe;
    sigemptyset(&none);
    sigemptyset(&pipe);
    sigaddset(&pipe, SIGPIPE);
    posix_spawnattr_setsigmask(attr, &none);
    posix_spawnattr_setsigdefault(attr, &pipe);
    posix_spawnattr_setpgroup(attr, 0);
    posix_spawnattr_setflags(attr, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
}

int runBounded(const char* command, unsigned seconds) {
    posix_spawnattr_t attr;
    initChildAttributes(&attr);
    char sh[] = "/bin/sh", c[] = "-c";
    char* argv[] = {sh, c, const_cast<char*>(command ? command : ""), nullptr};
    pid_t pid = -1;
    int rc = posix_spawn(&pid, "/bin/sh", nullptr, &attr, argv, environ);
    posix_spawnattr_destroy(&attr);
    if (rc != 0) return RUN_NOT_STARTED;

    int status = 0;
    switch (waitChildFor(pid, seconds, &status)) {
        case ChildWait::Ended: return statusOf(status);
        case ChildWait::Failed: return RUN_NOT_STARTED;
        case ChildWait::Running: break;
    }
    kill(-pid, SIGKILL);
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return RUN_TIMED_OUT;
}
