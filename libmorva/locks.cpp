#include "locks.h"

#include <unistd.h>

#include "bounds.h"
#include "exception.h"

namespace {
using Limits::LOCK_PAUSE_US;
using Limits::LOCK_RETRIES;

template <typename F>
int acquire(F tryOnce, const char* failure) {
    if (tryOnce() == 0) return 0;
    for (int i = 0; i < LOCK_RETRIES; ++i) {
        usleep(LOCK_PAUSE_US);
        if (tryOnce() == 0) return 0;
    }
    throwFatal(failure);
}
}  // namespace

namespace Util {
int setMutexLock(pthread_mutex_t* mutex) {
    return acquire([mutex] { return pthread_mutex_lock(mutex); }, "Cannot set mutex lock");
}
int setReadLock(pthread_rwlock_t* lock) {
    return acquire([lock] { return pthread_rwlock_rdlock(lock); }, "Cannot set read lock");
}
int setWriteLock(pthread_rwlock_t* lock) {
    return acquire([lock] { return pthread_rwlock_wrlock(lock); }, "Cannot set write lock");
}
}  // namespace Util
