#include "threads.h"

#include <pthread.h>

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr size_t STACK_FACTOR = 4;
#else
constexpr size_t STACK_FACTOR = 1;
#endif

bool startThread(void* (*entry)(void*), void* arg, size_t stack) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, stack * STACK_FACTOR);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, entry, arg);
    pthread_attr_destroy(&attr);
    return rc == 0;
}
