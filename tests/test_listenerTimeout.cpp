// Clients that stall are cut off by the watchdog after a minute, while the
// remaining workers keep answering.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <thread>

#include "listenerClient.h"
#include "testUtil.h"

namespace {

struct Stalled {
    std::string answer;
    double seconds = 0;
    bool timedOut = true;  // our own time-out, not the listener, ended it
};

Stalled stall(int port, const std::string& bytes) {
    Stalled s;
    int fd = connectTo(port, "127.0.0.1", 120);
    if (fd < 0 || !sendAll(fd, bytes)) return s;
    auto start = std::chrono::steady_clock::now();
    s.answer = readAll(fd, &s.timedOut);
    s.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return s;
}

}  // namespace

TEST(ListenerTimeout, StalledClientsAreCutOffAfterAMinute) {
    TempDir tmp;
    ListenerProcess l(tmp.path(), {"", false, 4});
    Stalled silent, halfFrame, halfSharing;
    std::thread a([&] { silent = stall(l.port(), ""); });
    std::thread b([&] { halfFrame = stall(l.port(), "\x0bMSH|^~\\&|A|B|C|D|20240101||ADT^A01|55|P|2.4\r"); });
    std::thread c([&] { halfSharing = stall(l.port(), R"({"request_type": "sharing", "notes": "un)"); });
    sleep(2);
    // The fourth worker still serves while three are held.
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");
    a.join();
    b.join();
    c.join();

    for (const Stalled* s : {&silent, &halfFrame, &halfSharing}) {
        EXPECT_FALSE(s->timedOut);
        EXPECT_GE(s->seconds, 59.0);  // not before the minute is up
    }
    EXPECT_EQ(silent.answer, "");
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");
}
