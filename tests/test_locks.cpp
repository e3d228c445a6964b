#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdlib>
#include <ctime>
#include <string>

#include "exception.h"
#include "locks.h"

namespace {
std::string fatalText(void (*f)()) {
    try {
        f();
    } catch (const MorvaExceptionTop& e) {
        EXPECT_STREQ(e.name, "MorvaFatalException");
        return e.text;
    }
    return "no exception";
}
}  // namespace

// A lock the thread already holds fails with EDEADLK on every try.
TEST(Locks, PersistentFailureThrowsAndLogsTheFatalException) {
    testing::internal::CaptureStderr();
    std::string mutexText = fatalText([] {
        pthread_mutexattr_t attr;
        pthread_mutexattr_init(&attr);
        pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
        static pthread_mutex_t m;
        pthread_mutex_init(&m, &attr);
        pthread_mutex_lock(&m);
        Util::setMutexLock(&m);
    });
    static pthread_rwlock_t rw = PTHREAD_RWLOCK_INITIALIZER;
    pthread_rwlock_wrlock(&rw);
    std::string readText = fatalText([] { Util::setReadLock(&rw); });
    std::string writeText = fatalText([] { Util::setWriteLock(&rw); });
    pthread_rwlock_unlock(&rw);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(mutexText, "MorvaFatalException:  Cannot set mutex lock");
    EXPECT_EQ(readText, "MorvaFatalException:  Cannot set read lock");
    EXPECT_EQ(writeText, "MorvaFatalException:  Cannot set write lock");
    EXPECT_NE(err.find(" MorvaFatalException:  Cannot set mutex lock\n"), std::string::npos);
}

TEST(Exception, DescribeCutsAndFormatsNumbers) {
    testing::internal::CaptureStderr();
    MorvaExceptionTop e(std::string(40, 'N').c_str());
    e.describe(std::string(150, 'm').c_str(), std::string(120, 'd').c_str());
    EXPECT_EQ(std::string(e.text),
              std::string(32, 'N') + ":  " + std::string(100, 'm') + " (" + std::string(100, 'd') + ")");
    MorvaExceptionTop f;
    for (unsigned n : {0u, 1000000007u, 4294967295u}) {
        f.describe("n", n);
        EXPECT_EQ(std::string(f.text), "MorvaFatalException:  n (" + std::to_string(n) + ")");
    }
    testing::internal::GetCapturedStderr();
}

TEST(Timing, PtimeAcrossASecondBoundaryAndUniversalDate) {
    testing::internal::CaptureStdout();
    ptime(Timing{10, 900}, Timing{11, 100});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "200ms\n\n");

    // Local time despite the name: five hours east of UTC.
    setenv("TZ", "UTC-5", 1);
    tzset();
    char date[32];
    EXPECT_STREQ(getUniversalDate(86400 * 365, date, sizeof date), "19710101050000");
}
