// "--status" of the real program on a data directory whose export directory
// holds 100 000 waiting files and whose ledger holds 100 000 deliveries of
// today: wall time and peak resident memory (wait4), beside "du -s" and
// "find -type f" over the same export directory in the same run (both visit
// every entry; du also looks at each file as the status does).
// Usage: bench_status [files] [rounds]   (default 100000 files, 5 rounds)
#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "testUtil.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int RUN_BOUND_S = 120;

struct Measured {
    double seconds = -1;
    long maxRssKb = 0;
    int status = -1;
};

// One run with its output thrown away; killed when it outlasts the bound.
Measured measure(const std::vector<std::string>& args) {
    Measured m;
    std::vector<char*> argv;
    for (const std::string& a : args) argv.push_back(const_cast<char*>(a.c_str()));
    argv.push_back(nullptr);
    Clock::time_point start = Clock::now();
    pid_t pid = fork();
    if (pid == 0) {
        int null = open("/dev/null", O_WRONLY | O_CLOEXEC);
        dup2(null, 1), dup2(null, 2);
        execv(argv[0], argv.data());
        _exit(127);
    }
    if (pid < 0) return m;
    int status = 0;
    struct rusage usage {};
    Clock::time_point deadline = start + std::chrono::seconds(RUN_BOUND_S);
    pid_t done;
    while ((done = wait4(pid, &status, WNOHANG, &usage)) == 0 && Clock::now() < deadline) usleep(1000);
    if (done == 0) {
        kill(pid, SIGKILL);
        wait4(pid, &status, 0, &usage);
        return m;
    }
    m.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    m.maxRssKb = usage.ru_maxrss;
    m.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return m;
}

}  // namespace

int main(int argc, char** argv) {
    int files = argc > 1 ? atoi(argv[1]) : 100000;
    int rounds = argc > 2 ? atoi(argv[2]) : 5;
    TempDir data, exportDir;
    spit(data.file("hostName.txt"), "benchBox");
    spit(data.file("viewpointDir.txt"), exportDir.path());
    spit(data.file("lastHeartbeat.txt"), std::to_string(time(nullptr)) + " 1 0");
    std::string payload(512, 'x');
    for (int i = 0; i < files; ++i) {
        std::string path = exportDir.file("image" + std::to_string(i) + ".dcm");
        int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0664);
        if (fd < 0 || write(fd, payload.data(), payload.size()) != static_cast<ssize_t>(payload.size())) {
            fprintf(stderr, "cannot write %s\n", path.c_str());
            return 1;
        }
        close(fd);
    }
    mkdir(data.file("ledger").c_str(), 0775);
    {
        time_t now = time(nullptr);
        struct tm local;
        char name[64], stamp[40];
        localtime_r(&now, &local);
        strftime(name, sizeof name, "ledger/%Y-%m-%d.tsv", &local);
        strftime(stamp, sizeof stamp, "%Y-%m-%dT%H:%M:%S%z", &local);
        std::string lines;
        for (int i = 0; i < 100000; ++i)
            lines += std::string(stamp) + "\tupload\timage" + std::to_string(i) + ".dcm\t1.2.3." + std::to_string(i) +
                     "\t524288\tok\t0.25\tserver1.example\n";
        spit(data.file(name), lines);
    }

    const struct {
        const char* name;
        std::vector<std::string> args;
    } subjects[] = {
        {"hubTalk --status", {HUBTALK_BIN, "-d", data.path(), "--status"}},
        {"hubTalk --status --json", {HUBTALK_BIN, "-d", data.path(), "--status", "--json"}},
        {"du -s (peer)", {"/usr/bin/du", "-s", exportDir.path()}},
        {"find -type f (peer)", {"/usr/bin/find", exportDir.path(), "-type", "f"}},
    };
    printf("%d files in the export directory, 100000 ledger lines, %d rounds (median)\n", files, rounds);
    for (const auto& s : subjects) {
        std::vector<double> times;
        long rss = 0;
        int status = 0;
        for (int r = 0; r < rounds; ++r) {
            Measured m = measure(s.args);
            if (m.seconds < 0) {
                printf("%-26s did not finish within %d s\n", s.name, RUN_BOUND_S);
                return 1;
            }
            times.push_back(m.seconds);
            rss = std::max(rss, m.maxRssKb);
            status = m.status;
        }
        printf("%-26s %8.3f s   max RSS %6.1f MB   exit %d\n", s.name, median(times), rss / 1024.0, status);
    }
    printf("goal: hubTalk --status under 1 s and 32 MB\n");
    return 0;
}
