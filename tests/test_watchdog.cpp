#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <utility>
#include <unistd.h>
#include <vector>

#include "morvaAlarms.h"
#include "testUtil.h"

namespace {

AlarmTime at(int64_t s, uint32_t ms) {
    AlarmTime t;
    t.seconds = s;
    t.milliseconds = ms;
    return t;
}

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(Watchdog, AlarmArithmeticAndRemainingTime) {
    struct Case { int64_t s; uint32_t ms; unsigned add; int64_t wantS; uint32_t wantMs; } const cases[] = {
        {100, 0, 1000, 100, 1000},  // exactly 1000 is neither split nor carried
        {100, 600, 400, 100, 1000},
        {100, 600, 401, 101, 1},
        {100, 0, 1001, 101, 1},
        {100, 600, 1500, 102, 100},
        {100, 0, 60000, 160, 0},
    };
    for (const Case& c : cases) {
        AlarmTime t = at(c.s, c.ms);
        t.add(c.add);
        EXPECT_EQ(std::make_pair(c.wantS, c.wantMs), std::make_pair(t.seconds, t.milliseconds))
            << c.s << "." << c.ms << " + " << c.add;
    }

    ThreadAlarm alarms;
    int slot = alarms.regThread(pthread_self());
    EXPECT_EQ(0u, alarms.getRemainingMs(slot));  // disarmed
    EXPECT_EQ(0u, alarms.getRemainingMs(-1));
    EXPECT_FALSE(alarms.arm((int)alarms.count, 1000, -1));
    ASSERT_TRUE(alarms.arm(slot, 600000, -1));
    unsigned left = alarms.getRemainingMs(slot);
    EXPECT_TRUE(left > 500000u && left <= 600000u) << left;
    alarms.record(slot)->setAlarmFrom(at(AlarmTime::now().seconds - 10, 0), 2000);
    EXPECT_EQ(0u, alarms.getRemainingMs(slot));  // already past
    alarms.disarm(slot);
    EXPECT_EQ(0, alarms.record(slot)->expiry.seconds);
}

TEST(Watchdog, TableGrowth) {
    ThreadAlarm alarms;
    pthread_t self = pthread_self();
    for (int i = 0; i < 16; i++) EXPECT_EQ(i, alarms.regThread(self));
    testing::internal::CaptureStderr();
    EXPECT_EQ(16, alarms.regThread(self));
    EXPECT_EQ("Lock table has been reallocated:  32\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(32, alarms.count);

    alarms.unregThread(5);
    EXPECT_EQ(5, alarms.regThread(self));  // a freed slot is reused before growing

    alarms.record(3)->setAlarmFrom(at(777, 5), 10);
    testing::internal::CaptureStderr();
    while (alarms.count < 176) alarms.regThread(self);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, log.find("Lock table has been reallocated:  160\n")) << log;
    const std::string last = "Lock table has reached pathological size:  176\n";
    EXPECT_TRUE(log.size() >= last.size() && log.substr(log.size() - last.size()) == last) << log;
    EXPECT_EQ(777, alarms.record(3)->expiry.seconds);  // slots keep their contents when moved
}

volatile sig_atomic_t g_signals = 0;
void countSignal(int) { g_signals = g_signals + 1; }

TEST(Watchdog, ScanSignalsOnceAndClosesOnlyTheDeclaredSocket) {
    ThreadAlarm alarms;
    int quiet = alarms.regThread(pthread_self());
    int withSocket = alarms.regThread(pthread_self());
    int later = alarms.regThread(pthread_self());
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    ASSERT_TRUE(alarms.arm(quiet, 1000, -1));
    ASSERT_TRUE(alarms.arm(withSocket, 1000, fds[0]));
    ASSERT_TRUE(alarms.arm(later, 60000, fds[1]));
    // Count the signals instead of the do-nothing handler that arm installed.
    struct sigaction sa = {}, old;
    sa.sa_handler = countSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGUSR1, &sa, &old);
    g_signals = 0;

    AlarmTime now = AlarmTime::now();
    now.seconds += 2;
    alarms.scan(now);
    EXPECT_EQ(2, g_signals);
    EXPECT_EQ(-1, alarms.record(quiet)->socket);
    EXPECT_EQ(-2, alarms.record(withSocket)->socket);
    EXPECT_FALSE(isOpen(fds[0]));
    EXPECT_TRUE(isOpen(fds[1]));
    EXPECT_GT(alarms.getRemainingMs(later), 0u);
    alarms.scan(now);
    EXPECT_EQ(2, g_signals);  // fired alarms do not fire again

    sigaction(SIGUSR1, &old, nullptr);
    alarms.disarm(later);
    close(fds[1]);
}

// Monitor threads of this process, by their name (sanitizer runtimes add
// threads of their own, so the plain thread count would not do).
int taskCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/task");
    if (!d) return -1;
    while (struct dirent* e = readdir(d))
        if (e->d_name[0] != '.' && slurp(std::string("/proc/self/task/") + e->d_name + "/comm") == "alarm-monitor\n") n++;
    closedir(d);
    return n;
}

TEST(Watchdog, MonitorStartsOnceUnderConcurrentCalls) {
    // Its own instance, independent of earlier tests; its monitor runs until
    // the process ends, so it is never freed.
    ThreadAlarm* alarms = new ThreadAlarm();
    int before = taskCount();
    ASSERT_GE(before, 0);
    const int callers = 8;
    pthread_barrier_t barrier;
    pthread_barrier_init(&barrier, nullptr, callers);
    std::vector<std::thread> threads;
    for (int i = 0; i < callers; i++)
        threads.emplace_back([&] {
            pthread_barrier_wait(&barrier);
            alarms->monitor();
        });
    for (std::thread& t : threads) t.join();
    pthread_barrier_destroy(&barrier);
    alarms->monitor();

    // Joined threads can linger in /proc for a moment; wait for them to go.
    int after = taskCount();
    for (int i = 0; i < 200 && after > before + 1; i++) {
        usleep(10000);
        after = taskCount();
    }
    EXPECT_EQ(before + 1, after);
}

TEST(Watchdog, FiredAlarmInterruptsABlockedReceiveAndClosesItsSocket) {
    int fds[2];  // the far end never speaks
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));
    timeval tv = {15, 0};  // should the watchdog fail, the receive gives up on its own
    setsockopt(fds[0], SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    int slot = m_alarms->regThread(pthread_self());
    m_alarms->monitor();
    ASSERT_TRUE(m_alarms->arm(slot, 1000, fds[0]));
    char buf[16];
    ssize_t n = recv(fds[0], buf, sizeof buf, 0);
    int err = errno;
    m_alarms->disarm(slot);

    EXPECT_TRUE(n == 0 || (n < 0 && err != EAGAIN && err != EWOULDBLOCK)) << n << " errno " << err;
    EXPECT_EQ(-2, m_alarms->record(slot)->socket);
    EXPECT_FALSE(isOpen(fds[0]));
    m_alarms->unregThread(slot);
    close(fds[1]);
}

}  // namespace
