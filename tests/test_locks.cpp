#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdio>
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
TEST(Locks, PersistentFailureThrowsTheFatalException) {
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
    EXPECT_NE(err.find("Cannot set write lock\n"), std::string::npos);
}

TEST(Exception, DescribeCutsAndFormatsNumbers) {
    testing::internal::CaptureStderr();
    MorvaExceptionTop e(std::string(40, 'N').c_str());
    e.describe(std::string(150, 'm').c_str(), std::string(120, 'd').c_str());
    EXPECT_EQ(std::string(e.text),
              std::string(32, 'N') + ":  " + std::string(100, 'm') + " (" + std::string(100, 'd') + ")");
    MorvaExceptionTop f;
    f.describe("zero", 0u);
    EXPECT_STREQ(f.text, "MorvaFatalException:  zero (0)");
    f.describe("max", 4294967295u);
    EXPECT_STREQ(f.text, "MorvaFatalException:  max (4294967295)");
    f.describe("mid", 1000000007u);
    EXPECT_STREQ(f.text, "MorvaFatalException:  mid (1000000007)");
    f.describe("plain");
    EXPECT_STREQ(f.text, "MorvaFatalException:  plain");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find(" MorvaFatalException:  plain\n"), std::string::npos);
}

TEST(Timing, PtimeAcrossASecondBoundary) {
    testing::internal::CaptureStdout();
    ptime(Timing{10, 900}, Timing{11, 100});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "200ms\n\n");
    FILE* f = tmpfile();
    ASSERT_NE(f, nullptr);
    ptime("step", Timing{5, 500}, Timing{5, 250}, f);
    rewind(f);
    char buf[64] = {0};
    size_t n = fread(buf, 1, sizeof buf - 1, f);
    fclose(f);
    EXPECT_EQ(std::string(buf, n), "step : -250ms\n\n");

    char date[32];
    EXPECT_EQ(std::string(getUniversalDate(86400 * 365, date, sizeof date)).size(), 14u);
}
