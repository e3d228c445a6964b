#include "supervisor.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "exception.h"
#include "bounds.h"
#include "files.h"
#include "logRotation.h"
#include "process.h"
#include "settings.h"
#include "stateFiles.h"

namespace {

std::vector<char*> startArgs;
std::string programFile;

volatile sig_atomic_t stopRequested = 0;
volatile pid_t supervisedChild = 0;

void onStop(int) {
    stopRequested = 1;
    if (supervisedChild > 0) kill(supervisedChild, SIGTERM);
}

// The program file as an absolute path: argv[0] joined to the starting
// directory, or found on PATH like the shell would.
std::string resolveProgram(const char* argv0) {
    if (!argv0 || !*argv0) return "";
    if (strchr(argv0, '/')) {
        if (argv0[0] == '/') return argv0;
        char cwd[PATH_MAX];
        return getcwd(cwd, sizeof cwd) ? std::string(cwd) + "/" + argv0 : "";
    }
    const char* path = getenv("PATH");
    std::string dirs = path ? path : "";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        std::string dir = dirs.substr(start, end - start);
        std::string candidate = (dir.empty() ? "." : dir) + "/" + argv0;
        if (access(candidate.c_str(), X_OK) == 0) return resolveProgram(candidate.c_str());
        start = end + 1;
    }
    return "";
}

// True when the program file is no longer the image this process runs.
bool programReplaced() {
    struct stat file, running;
    if (programFile.empty() || stat(programFile.c_str(), &file) != 0) return false;
    if (stat("/proc/self/exe", &running) != 0) return false;
    return file.st_dev != running.st_dev || file.st_ino != running.st_ino;
}

void becomeWorker(const char* dir) {
    if (chdir(dir) != 0) logSysError("chdir to data directory failed");
    signal(SIGHUP, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGINT, SIG_IGN);
}

// Waits for the worker; once a stop was asked for, for Limits::STOP_GRACE_S at most
// before killing it.
int waitWorker(pid_t pid) {
    int status = 0;
    while (waitpid(pid, &status, 0) != pid) {
        if (errno != EINTR) return 0;
        if (!stopRequested) continue;
        if (waitChildFor(pid, Limits::STOP_GRACE_S, &status) != ChildWait::Running) return status;
        kill(pid, SIGKILL);
    }
    return status;
}

void startNewProgram() {
    fprintf(stderr, "Starting the updated program %s\n", programFile.c_str());
    fflush(nullptr);
    execv(programFile.c_str(), startArgs.data());
    // The old image goes on serving rather than leave the box without an agent.
    logSysError("Could not start the updated program");
}

}  // namespace

void rememberCommandLine(int argc, char** argv) {
    startArgs.assign(argv, argv + argc);
    startArgs.push_back(nullptr);
    programFile = resolveProgram(argc > 0 ? argv[0] : nullptr);
}

void daemonInit(const char* dir, bool daemonize) {
    if (!daemonize) {
        becomeWorker(dir);
        return;
    }
    struct sigaction sa {};
    sa.sa_handler = onStop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);
    signal(SIGHUP, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);

    // Held back across fork: a new worker would otherwise run the parent's
    // handler for a stop meant for it until it resets its own, and lose it.
    sigset_t stops, before;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    int delay = 0;
    for (;;) {
        if (stopRequested) exit(0);
        sigprocmask(SIG_BLOCK, &stops, &before);
        pid_t pid = fork();
        if (pid == 0) {
            signal(SIGTERM, SIG_DFL);
            becomeWorker(dir);  // SIGINT ignored
            sigprocmask(SIG_SETMASK, &before, nullptr);
            return;
        }
        supervisedChild = pid > 0 ? pid : 0;
        sigprocmask(SIG_SETMASK, &before, nullptr);
        if (pid < 0) throwFatal("Error forking");
        if (stopRequested) kill(pid, SIGTERM);
        double started = monotonicSeconds();
        int status = waitWorker(pid);
        supervisedChild = 0;
        // The worker may have rotated away the log files this process holds
        // since its start; it has ended, so they stay put while we switch.
        if (QUIET) redirectLogs(dir);
        if (stopRequested) exit(0);
        if (WIFEXITED(status) && WEXITSTATUS(status) == 0 && nonZeroFile(dir, StateFile::SHUTDOWN)) {
            rmFile(dir, StateFile::SHUTDOWN);
            exit(0);
        }
        if (monotonicSeconds() - started < Limits::QUICK_EXIT_S)
            delay = delay ? std::min(delay * 2, Limits::RESTART_DELAY_MOST_S) : 1;
        else
            delay = 0;
        if (programReplaced()) startNewProgram();  // returns only when that failed
        errno = 0;
        logSysError("Restarting process");
        // A stop signal cuts the pause short; the loop's top then ends the parent.
        timespec pause{delay, 0};
        nanosleep(&pause, nullptr);
    }
}
