// A peer that stops answering is cut off by the thread watchdog: the call
// returns failure instead of hanging (each case waits out a real minute).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>

#include "localServiceHarness.h"
#include "sendFile.h"
#include "testUtil.h"

namespace {

// Accepts one connection, acknowledges the start marker, then reads and
// drops everything without ever answering: the box hangs inside its TLS
// handshake.
class MuteAfterOk {
public:
    MuteAfterOk() {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
        bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a);
        listen(m_fd, 4);
        socklen_t len = sizeof a;
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len);
        m_port = ntohs(a.sin_port);
        m_thread = std::thread([this] { run(); });
    }
    ~MuteAfterOk() {
        m_stop = true;
        m_thread.join();
        close(m_fd);
    }
    int port() const { return m_port; }

private:
    void run() {
        int c = -1;
        while (!m_stop) {
            pollfd p[2] = {{m_fd, POLLIN, 0}, {c, POLLIN, 0}};
            if (poll(p, c >= 0 ? 2 : 1, 100) <= 0) continue;
            if (p[0].revents & POLLIN) {
                if (c >= 0) close(c);
                c = accept(m_fd, nullptr, nullptr);
                char marker[8];
                if (c >= 0 && recv(c, marker, 8, MSG_WAITALL) == 8) send(c, "OK", 2, MSG_NOSIGNAL);
            } else if (c >= 0 && (p[1].revents & (POLLIN | POLLHUP))) {
                char sink[4096];
                if (recv(c, sink, sizeof sink, 0) <= 0) {
                    close(c);
                    c = -1;
                }
            }
        }
        if (c >= 0) close(c);
    }
    int m_fd;
    int m_port = 0;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

struct Outcome {
    std::string reply = "unset";
    int status = -1;
    double seconds = 0;
};

void sendTo(const std::string& dataDir, int port, Outcome& out) {
    auto t0 = std::chrono::steady_clock::now();
    SendFile s(dataDir.c_str(), false, false);
    s.addDest("127.0.0.1", std::to_string(port).c_str(), "4443");
    out.reply = s.sendCommand("box7|LOG|msg|anyone", out.status, true);
    out.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

TEST(CloudTimeout, SilentPeersAreCutOff) {
    TempDir data;
    LocalService svc;
    svc.prepareAgentDataDir(data.path(), "box7", "Clinic One");
    svc.setFault(LocalService::Fault::Silent);
    MuteAfterOk mute;

    // Both wait on their own thread's alarm at the same time.
    Outcome silent, handshake;
    testing::internal::CaptureStderr();
    std::thread a([&] { sendTo(data.path(), svc.port(), silent); });
    std::thread b([&] { sendTo(data.path(), mute.port(), handshake); });
    a.join();
    b.join();
    std::string err = testing::internal::GetCapturedStderr();

    EXPECT_EQ(silent.reply, "");
    EXPECT_EQ(silent.status, 1);
    EXPECT_EQ(handshake.reply, "");
    EXPECT_EQ(handshake.status, 1);
    EXPECT_NE(err.find("Acknowledgement from server for command start failed"), std::string::npos)
        << err;
    EXPECT_NE(err.find("Fatal error during TLS handshake"), std::string::npos) << err;
    printf("silent peer cut after %.1f s, mute handshake after %.1f s\n", silent.seconds,
           handshake.seconds);
}

}  // namespace
