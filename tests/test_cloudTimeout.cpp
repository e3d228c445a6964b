// A peer or resolver that stops answering is cut off at its deadline (a real minute's wait).
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <sys/socket.h>
#include <unistd.h>

#include <thread>

#include "localServiceHarness.h"
#include "morvaNet.h"

namespace {

TEST(CloudTimeout, SilentPeersAreCutOff) {
    // One says nothing; the other acknowledges the start marker, then holds the connection
    // (a wait inside the TLS handshake). Both wait on their own thread's alarm at once.
    TempDir data;
    LocalService silent, mute;
    silent.prepareAgentDataDir(data.path(), "box7", "Clinic One");
    silent.setFault(LocalService::Fault::Silent);
    mute.setFault(LocalService::Fault::MuteAfterOk);
    std::string replies[2] = {"unset", "unset"};
    int status[2] = {-1, -1};
    std::string err = stderrOf([&] {
        std::thread threads[2];
        for (int i = 0; i < 2; i++)
            threads[i] = std::thread([&, i, port = (i ? mute : silent).port()] {
                SendFile s(data.path().c_str(), false, false);
                s.addDest("127.0.0.1", std::to_string(port).c_str(), "4443");
                replies[i] = s.sendCommand("box7|LOG|msg|anyone", status[i], true);
            });
        for (auto& t : threads) t.join();
    });
    EXPECT_EQ(replies[0] + replies[1], "");
    EXPECT_EQ(status[0] + status[1], 2);
    EXPECT_NE(err.find("Acknowledgement from server for command start failed"), std::string::npos) << err;
    EXPECT_NE(err.find("Fatal error during TLS handshake"), std::string::npos) << err;
}

// The resolver named in a private resolv.conf takes queries and never answers;
// the library itself would wait 30 s and resume after the watchdog's signal.
TEST(CloudTimeout, StalledResolverIsCutOffAtItsDeadline) {
    TempDir dir;
    std::string conf = dir.path() + "/resolv.conf";
    spit(conf, "nameserver 127.0.0.77\noptions timeout:30 attempts:1\n");
    int dns = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{AF_INET, htons(53), {inet_addr("127.0.0.77")}, {}};
    if (bind(dns, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        close(dns);
        GTEST_SKIP() << "needs root to hold a resolver port";
    }
    pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(conf.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) != 0)
            _exit(77);
        char host[] = "stalled.lookup.test", port[] = "443", *hosts[] = {host}, *ports[] = {port};
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
