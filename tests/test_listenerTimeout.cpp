// Clients that stall are cut off by the watchdog after a minute, while the
// remaining workers keep answering.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <thread>

#include "listener.h"
#include "settings.h"
#include "testUtil.h"

namespace {

int connectTo(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(fd);
        return -1;
    }
    timeval tv{120, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

struct Stalled {
    std::string answer;
    double seconds = 0;
};

// Sends the bytes, then waits for the listener to end the connection.
Stalled stall(int port, const std::string& bytes) {
    Stalled s;
    int fd = connectTo(port);
    if (fd < 0) return s;
    auto start = std::chrono::steady_clock::now();
    if (!bytes.empty()) send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    char buf[512];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) s.answer.append(buf, static_cast<size_t>(n));
    s.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    close(fd);
    return s;
}

std::string ping(int port) {
    Stalled s = stall(port, R"({"request_type": "ping"})");
    return s.answer;
}

}  // namespace

TEST(ListenerTimeout, StalledClientsAreCutOffAfterAMinute) {
    TempDir tmp;
    snprintf(dataDir, sizeof dataDir, "%s", tmp.path().c_str());
    PORT = freePort();
    REMOTE = false;
    NumTcpThreads = 4;
    ASSERT_TRUE(startListener());
    int port = PORT;
    ASSERT_TRUE(waitUntil([&] { return ping(port) == "success"; }, 5000));

    Stalled silent, halfFrame, halfSharing;
    std::thread a([&] { silent = stall(port, ""); });
    std::thread b([&] { halfFrame = stall(port, "\x0bMSH|^~\\&|A|B|C|D|20240101||ADT^A01|55|P|2.4\r"); });
    std::thread c([&] { halfSharing = stall(port, R"({"request_type": "sharing", "notes": "un)"); });
    sleep(2);
    // The fourth worker still serves while three are held.
    EXPECT_EQ(ping(port), "success");
    a.join();
    b.join();
    c.join();

    for (const Stalled* s : {&silent, &halfFrame, &halfSharing}) {
        EXPECT_GE(s->seconds, 59.0);
        EXPECT_LE(s->seconds, 75.0);
    }
    EXPECT_EQ(silent.answer, "");
    EXPECT_EQ(ping(port), "success");
}
