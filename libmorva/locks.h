// Lock acquisition that retries briefly (1,000 more tries, 100 µs apart) and
// then throws the fatal exception: a lock that cannot be taken ends the thread.
#pragma once
#include <pthread.h>

namespace Util {
int setMutexLock(pthread_mutex_t* mutex);
int setReadLock(pthread_rwlock_t* lock);
int setWriteLock(pthread_rwlock_t* lock);
}
