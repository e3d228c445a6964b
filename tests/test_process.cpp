// Companion programs run with a bound on their time.
#include <gtest/gtest.h>
#include <signal.h>

#include "process.h"
#include "testUtil.h"

TEST(RunBounded, ExitStatusOrTheWholeGroupKilledAtTheBound) {
    EXPECT_EQ(runBounded("exit 0", 5), 0);
    EXPECT_EQ(runBounded("exit 7", 5), 7);
    EXPECT_EQ(runBounded("kill -9 $$", 5), RUN_KILLED);

    TempDir tmp;
    std::string pidFile = tmp.file("pid");
    EXPECT_EQ(runBounded(("sleep 30 & echo $! > '" + pidFile + "'; wait").c_str(), 1), RUN_TIMED_OUT);
    int pid = std::stoi(slurp(pidFile));
    // The shell's own child goes with it (it may linger a moment as a zombie).
    EXPECT_TRUE(waitUntil([&] {
        std::string stat = slurp("/proc/" + std::to_string(pid) + "/stat");
        return stat.empty() || stat.find(") Z ") != std::string::npos;
    }, 2000));
}
