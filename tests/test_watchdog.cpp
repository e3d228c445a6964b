#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <dirent.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <string>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "morvaAlarms.h"

namespace {

AlarmTime at(int64_t s, uint32_t ms) {
    AlarmTime t;
    t.seconds = s;
    t.milliseconds = ms;
    return t;
}

TEST(Watchdog, AlarmArithmetic) {
    struct Case {
        int64_t s;
        uint32_t ms;
        unsigned add;
        int64_t wantS;
        uint32_t wantMs;
    } cases[] = {
        {100, 0, 1000, 100, 1000},  // exactly 1000 is neither split nor carried
        {100, 600, 1500, 102, 100},
        {100, 600, 400, 100, 1000},
        {100, 600, 401, 101, 1},
        {100, 0, 1001, 101, 1},
        {100, 999, 999, 101, 998},
        {100, 0, 60000, 160, 0},
    };
    for (const Case& c : cases) {
        AlarmTime t = at(c.s, c.ms);
        t.add(c.add);
        EXPECT_EQ(c.wantS, t.seconds) << c.s << "." << c.ms << " + " << c.add;
        EXPECT_EQ(c.wantMs, t.milliseconds) << c.s << "." << c.ms << " + " << c.add;
    }

    ThreadAlarm alarms;
    AlarmRec* r = alarms.record(alarms.regThread(pthread_self()));
    ASSERT_NE(nullptr, r);
    r->setAlarmFrom(at(500, 600), 1500);
    EXPECT_EQ(500, r->start.seconds);
    EXPECT_EQ(600u, r->start.milliseconds);
    EXPECT_EQ(502, r->expiry.seconds);
    EXPECT_EQ(100u, r->expiry.milliseconds);
    EXPECT_EQ(1500u, r->duration);
    r->clearAlarm();
    EXPECT_EQ(0, r->expiry.seconds);
    EXPECT_EQ(0u, r->expiry.milliseconds);
    EXPECT_EQ(500, r->start.seconds);  // start and duration stay
    EXPECT_EQ(1500u, r->duration);
}

TEST(Watchdog, RemainingTime) {
    ThreadAlarm alarms;
    int slot = alarms.regThread(pthread_self());
    EXPECT_EQ(0u, alarms.getRemainingMs(-1));
    EXPECT_EQ(0u, alarms.getRemainingMs((int)alarms.count));
    EXPECT_EQ(0u, alarms.getRemainingMs(slot));  // disarmed

    ASSERT_TRUE(alarms.arm(slot, 5000, -1));
    unsigned left = alarms.getRemainingMs(slot);
    EXPECT_GT(left, 3000u);
    EXPECT_LE(left, 5000u);

    AlarmTime past = AlarmTime::now();
    past.seconds -= 10;
    alarms.record(slot)->setAlarmFrom(past, 2000);
    EXPECT_EQ(0u, alarms.getRemainingMs(slot));

    alarms.disarm(slot);
    EXPECT_EQ(0u, alarms.getRemainingMs(slot));
    EXPECT_FALSE(alarms.arm(-1, 1000, -1));
    EXPECT_FALSE(alarms.arm((int)alarms.count, 1000, -1));
}

TEST(Watchdog, TableGrowth) {
    ThreadAlarm alarms;
    pthread_t self = pthread_self();
    for (int i = 0; i < 16; i++) EXPECT_EQ(i, alarms.regThread(self));
    EXPECT_EQ(16, alarms.count);

    testing::internal::CaptureStderr();
    EXPECT_EQ(16, alarms.regThread(self));
    EXPECT_EQ("Lock table has been reallocated:  32\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(32, alarms.count);

    // A freed slot is reused before the table grows again.
    alarms.unregThread(5);
    EXPECT_EQ(5, alarms.regThread(self));

    testing::internal::CaptureStderr();
    while (alarms.count < 176) alarms.regThread(self);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(std::string::npos, log.find("Lock table has been reallocated:  160\n")) << log;
    EXPECT_EQ(std::string::npos, log.find("reallocated:  176")) << log;
    const std::string last = "Lock table has reached pathological size:  176\n";
    EXPECT_TRUE(log.size() >= last.size() &&
                log.compare(log.size() - last.size(), last.size(), last) == 0)
        << log;

    // Slots keep their contents when the table moves.
    alarms.record(3)->setAlarmFrom(at(777, 5), 10);
    for (int i = 0; i < 16; i++) alarms.regThread(self);
    EXPECT_EQ(777, alarms.record(3)->expiry.seconds);
    EXPECT_EQ(nullptr, alarms.record((int)alarms.count));
}

volatile sig_atomic_t g_signals = 0;
void countSignal(int) { g_signals = g_signals + 1; }

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(Watchdog, ScanFiresOnceAndClosesTheDeclaredSocket) {
    ThreadAlarm alarms;
    int quiet = alarms.regThread(pthread_self());
    int withSocket = alarms.regThread(pthread_self());
    int later = alarms.regThread(pthread_self());
    int fds[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, fds));

    ASSERT_TRUE(alarms.arm(quiet, 1000, -1));
    ASSERT_TRUE(alarms.arm(withSocket, 1000, fds[0]));
    ASSERT_TRUE(alarms.arm(later, 60000, fds[1]));
    // Observe the signal instead of the do-nothing handler that arm installed.
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
    EXPECT_EQ(0, alarms.record(withSocket)->expiry.seconds);
    EXPECT_TRUE(isOpen(fds[1]));
    EXPECT_GT(alarms.getRemainingMs(later), 0u);

    alarms.scan(now);  // fired alarms do not fire again
    EXPECT_EQ(2, g_signals);

    sigaction(SIGUSR1, &old, nullptr);
    alarms.disarm(later);
    close(fds[1]);
}

int taskCount() {
    int n = 0;
    DIR* d = opendir("/proc/self/task");
    if (!d) return -1;
    while (struct dirent* e = readdir(d))
        if (e->d_name[0] != '.') n++;
    closedir(d);
    return n;
}

TEST(Watchdog, MonitorStartsOnceUnderConcurrentCalls) {
    // Its own instance, so the result does not depend on which tests ran
    // before; its monitor runs until the process ends, so it is never freed.
    ThreadAlarm* alarms = new ThreadAlarm();
    int before = taskCount();
    ASSERT_GT(before, 0);

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
    EXPECT_TRUE(alarms->started);

    // Joined threads can linger in /proc for a moment; wait for them to go.
    int after = taskCount();
    for (int i = 0; i < 200 && after != before + 1; i++) {
        usleep(10000);
        after = taskCount();
    }
    EXPECT_EQ(before + 1, after);
    alarms->monitor();
    usleep(20000);
    EXPECT_EQ(before + 1, taskCount());
}

// A connected loopback pair whose far end never speaks.
struct SilentPeer {
    int listener = -1, near = -1, far = -1;
    SilentPeer() {
        listener = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a = {};
        a.sin_family = AF_INET;
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof a;
        if (bind(listener, (sockaddr*)&a, sizeof a) != 0 || listen(listener, 1) != 0 ||
            getsockname(listener, (sockaddr*)&a, &len) != 0)
            return;
        near = socket(AF_INET, SOCK_STREAM, 0);
        if (connect(near, (sockaddr*)&a, sizeof a) != 0) return;
        far = accept(listener, nullptr, nullptr);
        // Should the watchdog fail, the receive gives up on its own.
        timeval tv = {15, 0};
        setsockopt(near, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }
    ~SilentPeer() {
        if (far >= 0) close(far);
        if (listener >= 0) close(listener);
    }
};

TEST(Watchdog, FiredAlarmInterruptsABlockedReceive) {
    SilentPeer peer;
    ASSERT_GE(peer.far, 0);
    int slot = m_alarms->regThread(pthread_self());
    m_alarms->monitor();

    ASSERT_TRUE(m_alarms->arm(slot, 1000, peer.near));
    char buf[16];
    time_t t0 = time(nullptr);
    ssize_t n = recv(peer.near, buf, sizeof buf, 0);
    int err = errno;
    time_t waited = time(nullptr) - t0;
    m_alarms->disarm(slot);

    EXPECT_TRUE(n == 0 || (n < 0 && err != EAGAIN && err != EWOULDBLOCK))
        << "recv returned " << n << " errno " << err << " after " << waited << " s";
    EXPECT_EQ(-2, m_alarms->record(slot)->socket);
    EXPECT_FALSE(isOpen(peer.near));
    m_alarms->unregThread(slot);
}

TEST(Watchdog, FiredAlarmWithoutSocketOnlySignals) {
    SilentPeer peer;
    ASSERT_GE(peer.far, 0);
    int slot = m_alarms->regThread(pthread_self());
    m_alarms->monitor();

    ASSERT_TRUE(m_alarms->arm(slot, 1000, -1));
    timespec rest = {15, 0};
    int r = nanosleep(&rest, &rest);
    int err = errno;
    m_alarms->disarm(slot);

    EXPECT_EQ(-1, r);
    EXPECT_EQ(EINTR, err);
    EXPECT_GT(rest.tv_sec, 5);
    EXPECT_EQ(-1, m_alarms->record(slot)->socket);
    EXPECT_TRUE(isOpen(peer.near));
    close(peer.near);
    m_alarms->unregThread(slot);
}

}  // namespace
