#include <gtest/gtest.h>
#include <pthread.h>

#include <functional>
#include <string>

#include "exception.h"
#include "locks.h"

// A lock the thread already holds fails with EDEADLK on every try: after
// the retries, a fatal exception that is logged when made.
TEST(Locks, PersistentFailureThrowsTheFatalException) {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_t mutex;
    pthread_mutex_init(&mutex, &attr);
    pthread_mutex_lock(&mutex);
    pthread_rwlock_t rw = PTHREAD_RWLOCK_INITIALIZER;
    pthread_rwlock_wrlock(&rw);
    const std::pair<std::function<void()>, std::string> cases[] = {
        {[&] { Util::setMutexLock(&mutex); }, "mutex"},
        {[&] { Util::setReadLock(&rw); }, "read"},
        {[&] { Util::setWriteLock(&rw); }, "write"},
    };
    for (const auto& c : cases) {
        testing::internal::CaptureStderr();
        std::string text = "no exception";
        try {
            c.first();
        } catch (const MorvaExceptionTop& e) {
            EXPECT_STREQ(e.name, "MorvaFatalException");
            text = e.text;
        }
        std::string expected = "MorvaFatalException:  Cannot set " + c.second + " lock";
        EXPECT_EQ(text, expected);
        EXPECT_NE(testing::internal::GetCapturedStderr().find(" " + expected + "\n"), std::string::npos);
    }
    pthread_rwlock_unlock(&rw);
    pthread_mutex_unlock(&mutex);
}
