// The quiet agent's logs: this process's own descriptors 1 and 2 redirected
// into real files, rotated while threads write.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "bounds.h"
#include "files.h"
#include "logRotation.h"
#include "process.h"
#include "settings.h"
#include "supervisor.h"
#include "testUtil.h"

namespace {

// Standard output and error go to the logs while it lives; gtest's own are back after it.
struct Redirected {
    int saved[2];
    explicit Redirected(const std::string& dir) {
        fflush(nullptr);
        for (int fd : {1, 2}) saved[fd - 1] = fcntl(fd, F_DUPFD_CLOEXEC, 3);
        redirectLogs(dir.c_str());
    }
    ~Redirected() {
        fflush(nullptr);
        for (int fd : {1, 2}) dup2(saved[fd - 1], fd), close(saved[fd - 1]);
    }
};

std::string generation(const std::string& path, int n) { return path + "." + std::to_string(n); }
int generations(const std::string& path) {
    int n = 0;
    while (exists(generation(path, n + 1))) ++n;
    return n;
}
long long sizeOf(const std::string& path) { return exists(path) ? getFileSize(path.c_str(), "") : -1; }

// "" when the lines of all generations, oldest first, are the expected ones, each once and whole.
std::string mismatch(const std::string& path, const std::vector<std::string>& expected) {
    std::string text;
    for (int n = generations(path); n >= 1; --n) text += slurp(generation(path, n));
    text += slurp(path);
    std::map<std::string, int> count;
    for (size_t at = 0, end; at < text.size(); at = end + 1) count[text.substr(at, (end = text.find('\n', at)) - at)]++;
    for (const std::string& line : expected) count[line]--;
    for (const auto& [line, n] : count)
        if (n != 0) return line.substr(0, 60) + (n > 0 ? " more than once or unexpected" : " missing");
    return "";
}

}  // namespace

TEST(LogRotation, LinesWrittenDuringRotationsStayOnceAndWholeLaterOnesReachTheFreshFile) {
    TempDir data;
    spit(data.file("stderr.bc.txt"), "earlier run\n");
    spit(data.file("logRotateBytes.txt"), "1\n");  // raised to the least
    spit(data.file("logKeep.txt"), "100000");      // nothing rotated away here
    constexpr int WRITERS = 4, LINES = 4000;
    const std::string pad(60, 'x'), filler(Limits::LOG_ROTATE_BYTES_LEAST, 'f');
    {
        Redirected r(data.path());
        std::atomic<int> running{WRITERS};
        std::vector<std::thread> writers;
        for (int t = 0; t < WRITERS; ++t)
            writers.emplace_back([&, t] {
                for (int i = 0; i < LINES; ++i)
                    printf("out %d %d %s\n", t, i, pad.c_str()), fprintf(stderr, "err %d %d %s\n", t, i, pad.c_str());
                running--;
            });
        while (running) rotateLogsIfLarge(data.path().c_str());
        for (auto& w : writers) w.join();
        printf("%s\n", filler.c_str()), fprintf(stderr, "%s\n", filler.c_str());
        fflush(stdout);  // what the stream still holds is not in the file's size
        rotateLogsIfLarge(data.path().c_str());
        printf("after\n"), fprintf(stderr, "after\n");
    }
    for (std::string stream : {"out", "err"}) {
        std::string path = data.file("std" + stream + ".bc.txt");
        std::vector<std::string> expected = {filler, "after"};
        if (stream == "err") expected.push_back("earlier run");
        for (int t = 0; t < WRITERS; ++t)
            for (int i = 0; i < LINES; ++i)
                expected.push_back(stream + " " + std::to_string(t) + " " + std::to_string(i) + " " + pad);
        EXPECT_EQ(mismatch(path, expected), "") << stream;
        EXPECT_EQ(slurp(path), "after\n") << stream;
        EXPECT_GE(generations(path), 3) << stream;
        for (int n = generations(path); n >= 1; --n) EXPECT_GT(sizeOf(generation(path, n)), Limits::LOG_ROTATE_BYTES_LEAST);
    }
}

TEST(LogRotation, OverridesBeyondSenseFallBackOnlyKeptGenerationsStayMissingLogOpenedAnew) {
    const long long LEAST = Limits::LOG_ROTATE_BYTES_LEAST, DEFAULT = Limits::LOG_ROTATE_BYTES, KEEP = Limits::LOG_KEEP;
    struct Case { const char* bytes; const char* keep; long long size, kept; };  // kept 0: not rotated
    const Case cases[] = {
        {"200000", "2", 200000, 0},     {"200000", "2", 200001, 2},
        {"1", "junk", LEAST, 0},        {"1", "0", LEAST + 1, KEEP},
        {"12x", "-3", DEFAULT, 0},      {nullptr, "3", DEFAULT + 1, 3},
        {"junk", nullptr, DEFAULT + 1, KEEP},
        {"0x100000", "7.5", DEFAULT + 1, KEEP},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.bytes ? c.bytes : "-") + " " + (c.keep ? c.keep : "-") + " " + std::to_string(c.size));
        TempDir data;
        std::string err = data.file("stderr.bc.txt"), out = data.file("stdout.bc.txt");
        for (int n = 1; n <= 8; ++n) spit(generation(err, n), "gen " + std::to_string(n));
        if (c.bytes) spit(data.file("logRotateBytes.txt"), c.bytes);
        if (c.keep) spit(data.file("logKeep.txt"), c.keep);
        {
            Redirected r(data.path());
            truncate(err.c_str(), c.size);
            unlink(out.c_str());
            rotateLogsIfLarge(data.path().c_str());
            printf("fresh\n"), fprintf(stderr, "fresh\n");
        }
        EXPECT_EQ(slurp(out), "fresh\n");
        EXPECT_EQ(generations(err), c.kept ? c.kept : 8);
        EXPECT_EQ(sizeOf(err), c.kept ? 6 : c.size + 6);
        if (c.kept) {
            EXPECT_EQ(sizeOf(generation(err, 1)), c.size);
            EXPECT_EQ(slurp(generation(err, 2)), "gen 1");
        }
    }
}

TEST(LogRotation, SupervisingParentWritesToTheLogTheWorkerRotatedTo) {
    TempDir data;
    std::string dir = data.path(), err = data.file("stderr.bc.txt");
    spit(data.file("logRotateBytes.txt"), "1");
    fflush(nullptr);
    pid_t parent = fork();
    if (parent == 0) {
        QUIET = true;
        redirectLogs(dir.c_str());
        daemonInit(dir.c_str(), true);
        // The worker: the first rotates and ends, which the parent reports; the second stops both.
        if (exists(dir + "/rotated")) kill(getppid(), SIGTERM), _exit(0);
        spit(dir + "/rotated", "");
        fprintf(stderr, "%s\n", std::string(Limits::LOG_ROTATE_BYTES_LEAST, 'f').c_str());
        rotateLogsIfLarge(dir.c_str());
        _exit(1);
    }
    int status = -1;
    ChildWait ended = waitChildFor(parent, 20, &status);
    if (ended == ChildWait::Running) kill(parent, SIGTERM);  // it stops its worker too
    EXPECT_EQ(ended, ChildWait::Ended);
    EXPECT_EQ(status, 0);
    EXPECT_NE(slurp(err).find("Restarting process"), std::string::npos);
    EXPECT_EQ(sizeOf(generation(err, 1)), Limits::LOG_ROTATE_BYTES_LEAST + 1);  // the worker's line alone
}
