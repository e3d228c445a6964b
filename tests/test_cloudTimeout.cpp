// A peer or a resolver that stops answering is cut off at its deadline: the
// call returns failure instead of hanging (this waits out a real minute).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "localServiceHarness.h"
#include "morvaNet.h"
#include "process.h"
#include "sendFile.h"
#include "testUtil.h"

namespace {

std::string sendTo(const std::string& dataDir, int port, int& status) {
    SendFile s(dataDir.c_str(), false, false);
    s.addDest("127.0.0.1", std::to_string(port).c_str(), "4443");
    return s.sendCommand("box7|LOG|msg|anyone", status, true);
}

TEST(CloudTimeout, SilentPeersAreCutOff) {
    TempDir data;
    LocalService svc;
    svc.prepareAgentDataDir(data.path(), "box7", "Clinic One");
    svc.setFault(LocalService::Fault::Silent);

    // Acknowledges the start marker, then holds the connection without a
    // word: the agent waits inside its TLS handshake.
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    ASSERT_EQ(listen(fd, 4), 0);
    ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len), 0);
    int mutePort = ntohs(a.sin_port);
    std::thread mute([fd] {
        pollfd p{fd, POLLIN, 0};
        int c = poll(&p, 1, 120000) > 0 ? accept(fd, nullptr, nullptr) : -1;
        char buf[4096];
        if (c >= 0 && recv(c, buf, 8, MSG_WAITALL) == 8) send(c, "OK", 2, MSG_NOSIGNAL);
        while (c >= 0 && recv(c, buf, sizeof buf, 0) > 0) {
        }
        if (c >= 0) close(c);
    });

    // Both wait on their own thread's alarm at the same time.
    std::string silent = "unset", handshake = "unset";
    int silentStatus = -1, handshakeStatus = -1;
    std::string err = stderrOf([&] {
        std::thread a([&] { silent = sendTo(data.path(), svc.port(), silentStatus); });
        std::thread b([&] { handshake = sendTo(data.path(), mutePort, handshakeStatus); });
        a.join();
        b.join();
    });
    mute.join();
    close(fd);

    EXPECT_EQ(silent, "");
    EXPECT_EQ(silentStatus, 1);
    EXPECT_EQ(handshake, "");
    EXPECT_EQ(handshakeStatus, 1);
    EXPECT_NE(err.find("Acknowledgement from server for command start failed"), std::string::npos)
        << err;
    EXPECT_NE(err.find("Fatal error during TLS handshake"), std::string::npos) << err;
}

// The resolver named in a private resolv.conf takes queries and never answers;
// the library itself would wait 30 s and resume after the watchdog's signal.
TEST(CloudTimeout, StalledResolverIsCutOffAtItsDeadline) {
    TempDir dir;
    std::string conf = dir.path() + "/resolv.conf";
    spit(conf, "nameserver 127.0.0.77\noptions timeout:30 attempts:1\n");
    int dns = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(53);
    a.sin_addr.s_addr = inet_addr("127.0.0.77");
    if (bind(dns, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(dns);
        GTEST_SKIP() << "needs root to hold a resolver port";
    }
    pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(conf.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
            _exit(77);
        char host[] = "stalled.lookup.test", port[] = "443";
        char* hosts[] = {host};
        char* ports[] = {port};
        double start = monotonicSeconds();
        AddrInfo ai;
        ai.init(1, hosts, ports, true, false, true);
        double took = monotonicSeconds() - start;
        _exit(ai.result == nullptr && took < 20 ? 0 : 1);
    }
    int status = 0;
    ChildWait waited = waitChildFor(child, 90, &status);
    close(dns);
    ASSERT_EQ(waited, ChildWait::Ended);
    if (WEXITSTATUS(status) == 77) GTEST_SKIP() << "no private mount namespace here";
    EXPECT_EQ(WEXITSTATUS(status), 0) << "lookup not given up at its deadline";
}

}  // namespace
