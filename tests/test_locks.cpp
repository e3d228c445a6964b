// Locks and failure reporting, and companion programs run with a bound on their time.
#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <string>

#include "exception.h"
#include "locks.h"
#include "process.h"
#include "testUtil.h"

// A lock the thread already holds fails with EDEADLK on every try: after
// the retries, a fatal exception that is logged when made.
TEST(Locks, PersistentFailureThrowsTheFatalException) {
    pthread_mutex_t mutex = PTHREAD_ERRORCHECK_MUTEX_INITIALIZER_NP;
    pthread_rwlock_t rw = PTHREAD_RWLOCK_INITIALIZER;
    pthread_mutex_lock(&mutex);
    pthread_rwlock_wrlock(&rw);
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { Util::setMutexLock(&mutex); }, "mutex"},
        {[&] { Util::setReadLock(&rw); }, "read"},
        {[&] { Util::setWriteLock(&rw); }, "write"},
    };
    for (const auto& [lock, kind] : cases) {
        testing::internal::CaptureStderr();
        std::string text = "no exception";
        try {
            lock();
        } catch (const MorvaExceptionTop& e) {
            text = std::string(e.name) + ":" + e.text;
        }
        std::string expected = "MorvaFatalException:  Cannot set " + kind + " lock";
        EXPECT_EQ(text, "MorvaFatalException:" + expected);
        EXPECT_NE(testing::internal::GetCapturedStderr().find(" " + expected + "\n"), std::string::npos);
    }
    pthread_rwlock_unlock(&rw);
    pthread_mutex_unlock(&mutex);
}

TEST(RunBounded, ExitStatusOrTheWholeGroupKilledAtTheBound) {
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
