// Thread watchdog: each registered thread may arm a deadline; a monitor
// thread polls once a second and, when a deadline has passed, sends the
// thread SIGUSR1 and closes the socket it declared, so its blocking call
// fails and its own error path takes over.
//
// Calling order for owners (look the record up by slot every time: the
// table moves when it grows):
//   slot = m_alarms->regThread(pthread_self());         once per thread
//   m_alarms->monitor();                                 before relying on alarms
//   m_alarms->arm(slot, ms, fd_or_minus1);               before each blocking call
//   ... blocking call ...
//   m_alarms->disarm(slot);                              whatever the outcome
#pragma once
#include <cstdint>
#include <pthread.h>

struct AlarmTime {
    int64_t seconds = 0;
    uint32_t milliseconds = 0;  // 0..1000: exactly 1000 is kept, not carried

    // Splits only from 1001 ms up, carries only from 1001 ms up.
    void add(unsigned int ms);
    static AlarmTime now();
};

struct AlarmRec {
    AlarmTime start;
    AlarmTime expiry;  // seconds == 0: not armed
    uint32_t duration;
    pthread_t thread;  // 0: free slot
    pthread_rwlock_t lock;
    int socket;        // closed when the alarm fires (then -2); -1: none

    void setAlarm(unsigned int ms);
    // setAlarm with a given clock reading.
    void setAlarmFrom(const AlarmTime& now, unsigned int ms);
    void clearAlarm();
};

class ThreadAlarm {
public:
    ThreadAlarm();
    virtual ~ThreadAlarm();
    ThreadAlarm(const ThreadAlarm&) = delete;
    ThreadAlarm& operator=(const ThreadAlarm&) = delete;

    // First free slot, growing the table by 16 when full (reported on stderr).
    int regThread(pthread_t thread);
    // Frees a slot (thread handle cleared, alarm disarmed) for a thread that ends.
    void unregThread(int slot);
    // Starts the monitor thread once, however many threads call it at once.
    void monitor();
    // 0 for a bad slot, a disarmed slot or a deadline already past.
    unsigned int getRemainingMs(int slot);
    // The slot's deadline is over: true for a bad slot, a disarmed slot (the
    // monitor disarms what it fires), a deadline already past, or a socket
    // the watchdog closed. Tells the watchdog's signal from a stray one.
    bool fired(int slot);
    // The watchdog closed the socket declared on the slot (false for a bad slot).
    bool socketClosed(int slot);
    // Declares that the slot holds no socket (-1), clearing the closed mark.
    void forgetSocket(int slot);

    // The record of a slot, or null when the slot is out of range. Valid
    // only until the next regThread (the table may move).
    AlarmRec* record(int slot);
    // Installs the handler, arms the slot and declares its socket (-1: none).
    // A record whose socket the watchdog closed keeps its -2 until the owner
    // calls forgetSocket for a new socket. Returns false for a bad slot.
    bool arm(int slot, unsigned int ms, int socket);
    void disarm(int slot);

    // One pass of the monitor over the table at the given time.
    void scan(const AlarmTime& now);
    // The monitor thread's body: scan, sleep one second, for ever.
    static void* doLoop(void* self);

    int64_t count;
    AlarmRec* table;
    pthread_rwlock_t tableLock;
    bool started;
};

class CatchAlarm {
public:
    // Does nothing: it exists so that SIGUSR1 interrupts a blocking call
    // instead of ending the process.
    static void catchAlarm(int signal);
    // Installs catchAlarm for SIGUSR1: empty mask, no flags, and in
    // particular no SA_RESTART, so the interrupted call fails with EINTR.
    static void install();
};

// The process-wide watchdog, created before main and never destroyed.
extern ThreadAlarm* m_alarms;
