#include "morvaAlarms.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include "locks.h"

ThreadAlarm* m_alarms = new ThreadAlarm();

namespace {
const int GROWTH = 16;
const int PATHOLOGICAL = 161;

void initSlots(AlarmRec* slots, int64_t from, int64_t to) {
    for (int64_t i = from; i < to; i++) {
        AlarmRec& r = slots[i];
        r.start = AlarmTime();
        r.expiry = AlarmTime();
        r.duration = 0;
        r.thread = 0;
        r.socket = -1;
        pthread_rwlock_init(&r.lock, nullptr);
    }
}

int64_t msOf(const AlarmTime& t) { return t.seconds * 1000 + t.milliseconds; }

// The caller holds the record's lock.
unsigned int remainingMs(const AlarmRec& r) {
    if (r.expiry.seconds == 0) return 0;
    uint32_t elapsed = (uint32_t)(msOf(AlarmTime::now()) - msOf(r.start));
    uint32_t remaining = r.duration - elapsed;
    return (int32_t)remaining < 0 ? 0 : remaining;
}
}  // namespace

void AlarmTime::add(unsigned int ms) {
    // The thresholds are 1001, not 1000: a value of exactly 1000 stays as is.
    if (ms >= 1001) {
        seconds += ms / 1000;
        ms %= 1000;
    }
    milliseconds += ms;
    if (milliseconds >= 1001) {
        seconds += 1;
        milliseconds -= 1000;
    }
}

AlarmTime AlarmTime::now() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    AlarmTime t;
    t.seconds = tv.tv_sec;
    t.milliseconds = (uint32_t)(tv.tv_usec / 1000);
    return t;
}

void AlarmRec::setAlarm(unsigned int ms) { setAlarmFrom(AlarmTime::now(), ms); }

void AlarmRec::setAlarmFrom(const AlarmTime& now, unsigned int ms) {
    Util::setWriteLock(&lock);
    start = now;
    expiry = now;
    expiry.add(ms);
    duration = ms;
    pthread_rwlock_unlock(&lock);
}

void AlarmRec::clearAlarm() {
    Util::setWriteLock(&lock);
    expiry.seconds = 0;
    expiry.milliseconds = 0;
    pthread_rwlock_unlock(&lock);
}

ThreadAlarm::ThreadAlarm() : count(GROWTH), table(nullptr), started(false) {
    table = (AlarmRec*)malloc(sizeof(AlarmRec) * count);
    initSlots(table, 0, count);
    pthread_rwlock_init(&tableLock, nullptr);
}

ThreadAlarm::~ThreadAlarm() {
    for (int64_t i = 0; i < count; i++) pthread_rwlock_destroy(&table[i].lock);
    free(table);
    pthread_rwlock_destroy(&tableLock);
}

int ThreadAlarm::regThread(pthread_t thread) {
    Util::setWriteLock(&tableLock);
    for (int64_t i = 0; i < count; i++) {
        if (table[i].thread == 0) {
            table[i].thread = thread;
            pthread_rwlock_unlock(&tableLock);
            return (int)i;
        }
    }
    // Slots move here; owners therefore keep indexes, never addresses.
    int64_t old = count;
    count = old + GROWTH;
    table = (AlarmRec*)realloc(table, sizeof(AlarmRec) * count);
    initSlots(table, old, count);
    table[old].thread = thread;
    int grown = (int)count;
    pthread_rwlock_unlock(&tableLock);
    if (grown < PATHOLOGICAL)
        fprintf(stderr, "Lock table has been reallocated:  %d\n", grown);
    else
        fprintf(stderr, "Lock table has reached pathological size:  %d\n", grown);
    return (int)old;
}

void ThreadAlarm::unregThread(int slot) {
    Util::setWriteLock(&tableLock);
    if (slot >= 0 && slot < count) {
        AlarmRec& r = table[slot];
        Util::setWriteLock(&r.lock);
        r.expiry = AlarmTime();
        r.thread = 0;
        r.socket = -1;
        pthread_rwlock_unlock(&r.lock);
    }
    pthread_rwlock_unlock(&tableLock);
}

void ThreadAlarm::monitor() {
    if (__atomic_load_n(&started, __ATOMIC_ACQUIRE)) return;
    Util::setWriteLock(&tableLock);
    if (!started) {
        pthread_t t;
        if (pthread_create(&t, nullptr, doLoop, this) != 0)
            perror("pthread_create/_beginthreadex of alarm thread failed");
        else {
            pthread_setname_np(t, "alarm-monitor");  // findable in ps and /proc
            pthread_detach(t);
        }
        // No second attempt after a failure: alarms then simply never fire.
        __atomic_store_n(&started, true, __ATOMIC_RELEASE);
    }
    pthread_rwlock_unlock(&tableLock);
}

// Runs f on a slot's record under the table lock and the record's lock; the
// fallback answers for a slot out of range.
template <typename T, typename F>
static T onRecord(ThreadAlarm& alarms, int slot, bool write, T fallback, F f) {
    T result = fallback;
    Util::setReadLock(&alarms.tableLock);
    if (slot >= 0 && slot < alarms.count) {
        AlarmRec& r = alarms.table[slot];
        if (write)
            Util::setWriteLock(&r.lock);
        else
            Util::setReadLock(&r.lock);
        result = f(r);
        pthread_rwlock_unlock(&r.lock);
    }
    pthread_rwlock_unlock(&alarms.tableLock);
    return result;
}

unsigned int ThreadAlarm::getRemainingMs(int slot) {
    return onRecord(*this, slot, false, 0u, [](AlarmRec& r) { return remainingMs(r); });
}

bool ThreadAlarm::fired(int slot) {
    return onRecord(*this, slot, false, true,
                    [](AlarmRec& r) { return r.socket == -2 || remainingMs(r) == 0; });
}

bool ThreadAlarm::socketClosed(int slot) {
    return onRecord(*this, slot, false, false, [](AlarmRec& r) { return r.socket == -2; });
}

void ThreadAlarm::forgetSocket(int slot) {
    onRecord(*this, slot, true, false, [](AlarmRec& r) {
        r.socket = -1;
        return true;
    });
}

AlarmRec* ThreadAlarm::record(int slot) {
    if (slot < 0 || slot >= count) return nullptr;
    return &table[slot];
}

bool ThreadAlarm::arm(int slot, unsigned int ms, int socket) {
    CatchAlarm::install();
    AlarmTime now = AlarmTime::now();
    bool ok = false;
    // The table lock keeps the slot from moving while its lock is held.
    Util::setReadLock(&tableLock);
    if (slot >= 0 && slot < count) {
        AlarmRec& r = table[slot];
        r.setAlarmFrom(now, ms);
        Util::setWriteLock(&r.lock);
        // A socket the watchdog closed stays marked until its owner declares a
        // new one (writes -1): its number may already belong to another file.
        if (r.socket != -2) r.socket = socket;
        pthread_rwlock_unlock(&r.lock);
        ok = true;
    }
    pthread_rwlock_unlock(&tableLock);
    return ok;
}

void ThreadAlarm::disarm(int slot) {
    Util::setReadLock(&tableLock);
    if (slot >= 0 && slot < count) table[slot].clearAlarm();
    pthread_rwlock_unlock(&tableLock);
}

void ThreadAlarm::scan(const AlarmTime& now) {
    Util::setReadLock(&tableLock);
    for (int64_t i = 0; i < count; i++) {
        AlarmRec& r = table[i];
        Util::setWriteLock(&r.lock);
        if (r.expiry.seconds == 0) {
            pthread_rwlock_unlock(&r.lock);
            continue;
        }
        bool due = r.expiry.seconds < now.seconds ||
                   (r.expiry.seconds == now.seconds && r.expiry.milliseconds <= now.milliseconds);
        // An expiry kept at 1000 ms compares one second late; elapsed time does not.
        if (!due) due = msOf(now) - msOf(r.start) > (int64_t)r.duration;
        if (due) {
            if (r.thread != 0) pthread_kill(r.thread, SIGUSR1);
            r.expiry = AlarmTime();
            if (r.socket >= 0) {
                shutdown(r.socket, SHUT_RDWR);
                close(r.socket);
                r.socket = -2;
            }
        }
        pthread_rwlock_unlock(&r.lock);
    }
    pthread_rwlock_unlock(&tableLock);
}

void* ThreadAlarm::doLoop(void* self) {
    ThreadAlarm* alarms = (ThreadAlarm*)self;
    for (;;) {
        alarms->scan(AlarmTime::now());
        sleep(1);
    }
    return nullptr;
}

void CatchAlarm::catchAlarm(int) {}

void CatchAlarm::install() {
    struct sigaction sa;
    sa.sa_handler = catchAlarm;
    sigemptyset(&sa.sa_mask);
    sa.sa_flags = 0;
    sigaction(SIGUSR1, &sa, nullptr);
}
