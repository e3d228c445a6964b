// The thread watchdog: deadlines, the table of threads, the monitor's scan.
#include <gtest/gtest.h>
#include <dirent.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <set>
#include <thread>

#include "morvaAlarms.h"
#include "testUtil.h"

namespace {

bool isOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(Watchdog, RemainingTimeAndSlotsThatSurviveTableGrowth) {
    ThreadAlarm alarms;
    testing::internal::CaptureStderr();  // growth is reported there
    int slot = alarms.regThread(pthread_self());
    EXPECT_EQ(alarms.getRemainingMs(slot), 0u);  // disarmed
    EXPECT_FALSE(alarms.arm((int)alarms.count, 1000, -1));
    ASSERT_TRUE(alarms.arm(slot, 600000, 7));
    unsigned left = alarms.getRemainingMs(slot);
    EXPECT_TRUE(left > 500000u && left <= 600000u) << left;
    alarms.unregThread(alarms.regThread(pthread_self()));
    std::vector<int> slots;
    while (alarms.count < 200) slots.push_back(alarms.regThread(pthread_self()));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(slots[0], slot + 1) << "a freed slot is reused before growing";
    EXPECT_EQ(std::set<int>(slots.begin(), slots.end()).size(), slots.size());
    left = alarms.getRemainingMs(slot);
    EXPECT_TRUE(left > 500000u && left <= 600000u) << "the armed slot moved with the table";
    EXPECT_EQ(alarms.record(slot)->socket, 7);
    alarms.record(slot)->setAlarmFrom(AlarmTime{AlarmTime::now().seconds - 10, 0}, 2000);
    EXPECT_EQ(alarms.getRemainingMs(slot), 0u);  // already past
    EXPECT_TRUE(alarms.fired(slot));
}

volatile sig_atomic_t g_signals = 0;
void countSignal(int) { g_signals = g_signals + 1; }

TEST(Watchdog, ScanSignalsOnceAndClosesOnlyTheDeclaredSocket) {
    ThreadAlarm alarms;
    int quiet = alarms.regThread(pthread_self()), withSocket = alarms.regThread(pthread_self()),
        later = alarms.regThread(pthread_self()), fds[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    ASSERT_TRUE(alarms.arm(quiet, 1000, -1) && alarms.arm(withSocket, 1000, fds[0]) && alarms.arm(later, 60000, fds[1]));
    struct sigaction sa = {}, old;  // counts instead of the do-nothing handler that arm installed
    sa.sa_handler = countSignal;
    sigaction(SIGUSR1, &sa, &old);
    AlarmTime now = AlarmTime::now();
    now.seconds += 2;
    alarms.scan(now);
    alarms.scan(now);  // fired alarms do not fire again
    sigaction(SIGUSR1, &old, nullptr);
    EXPECT_EQ(g_signals, 2);
    EXPECT_FALSE(isOpen(fds[0]));
    EXPECT_TRUE(isOpen(fds[1]));
    EXPECT_FALSE(alarms.socketClosed(quiet) || alarms.socketClosed(later));

    // The closed number may already belong to another file: re-arming keeps
    // the mark until the owner declares a new socket.
    alarms.arm(withSocket, 60000, fds[1]);
    EXPECT_TRUE(alarms.socketClosed(withSocket));
    alarms.forgetSocket(withSocket);
    EXPECT_FALSE(alarms.socketClosed(withSocket));
    close(fds[1]);
}

// Monitor threads of this process, by name (sanitizer runtimes add threads
// of their own).
int monitorThreads() {
    int n = 0;
    DIR* d = opendir("/proc/self/task");
    while (struct dirent* e = d ? readdir(d) : nullptr)
        n += slurp(std::string("/proc/self/task/") + e->d_name + "/comm") == "alarm-monitor\n";
    closedir(d);
    return n;
}

// The cloud time-out tests' peers are cut off even without the monitor: only
// this shows its scans end a blocked receive.
TEST(Watchdog, OneMonitorUnderConcurrentStartsInterruptsABlockedReceive) {
    int before = monitorThreads();
    pthread_barrier_t barrier;
    pthread_barrier_init(&barrier, nullptr, 8);
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; i++) threads.emplace_back([&] { pthread_barrier_wait(&barrier), m_alarms->monitor(); });
    for (std::thread& t : threads) t.join();
    pthread_barrier_destroy(&barrier);
    EXPECT_EQ(monitorThreads(), before + 1);

    int fds[2];  // the far end never speaks
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
    timeval tv = {15, 0};  // should the watchdog fail, the receive gives up on its own
    setsockopt(fds[0], SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    int slot = m_alarms->regThread(pthread_self());
    ASSERT_TRUE(m_alarms->arm(slot, 1000, fds[0]));
    char buf[16];
    ssize_t n = recv(fds[0], buf, sizeof buf, 0);
    int err = errno;
    m_alarms->disarm(slot);
    EXPECT_TRUE(n == 0 || (n < 0 && err != EAGAIN && err != EWOULDBLOCK)) << n << " errno " << err;
    EXPECT_FALSE(isOpen(fds[0]));
    m_alarms->unregThread(slot);
    close(fds[1]);
}

}  // namespace
