// Destination lists, their rotation and ports, and the server-list refresh with its fall-backs.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>

#include <set>

#include "localServiceHarness.h"
#include "morvaNet.h"

namespace {

// True when the session's list is a rotation of order (entries of equal length, each ending in a blank).
bool isRotation(const SendFile& s, const std::string& order) {
    std::string got;
    for (int i = 0; i < s.hostCount; ++i) got += std::string(s.hosts[i]) + " ";
    return got.size() == order.size() && (order + order).find(got) != std::string::npos;
}

TEST(Destinations, ShuffleKeepsFileOrder) {
    TempDir data;
    spit(data.file("hosts.txt"), "127.0.0.11\n127.0.0.12\n127.0.0.13\n");
    const std::string order = "127.0.0.11 127.0.0.12 127.0.0.13 ";
    std::set<std::string> starts;
    for (int i = 0; i < 60; ++i) {
        SendFile s(data.path().c_str(), false, true);
        s.loadDests();
        ASSERT_TRUE(isRotation(s, order));
        starts.insert(s.hosts[0]);
        s.shuffleDests();  // moving past a dead first entry is the fail-over test's part
        ASSERT_TRUE(isRotation(s, order));
    }
    EXPECT_EQ(starts.size(), 3u);  // every line gets to be first
}

TEST(Destinations, PortRules) {
    TempDir data;
    // The rule is byte-wise: another spelling keeps the configured port.
    std::string upper = RECEIVER_HOST;
    for (char& c : upper) c = (char)toupper((unsigned char)c);
    spit(data.file("hosts.txt"), std::string(RECEIVER_HOST) + "\n127.0.0.9\n" + upper);
    spit(data.file("port.txt"), "8443 \n");
    for (const char* expected : {"8443", "443"}) {
        SendFile s(data.path().c_str(), false, true);
        s.loadDests();
        ASSERT_EQ(s.hostCount, 3);
        for (int i = 0; i < s.hostCount; ++i)
            EXPECT_STREQ(s.ports[i], std::string(s.hosts[i]) == RECEIVER_HOST ? "4443" : expected) << s.hosts[i];
        remove(data.file("port.txt").c_str());
    }
}

TEST(Resolution, NumericFlagAndFirstResolvableEntry) {
    EXPECT_EQ(AddrInfo::hintFlags("10.1.2.3"), AI_NUMERICSERV);
    EXPECT_EQ(AddrInfo::hintFlags("1.2.3.4.5"), AI_NUMERICSERV | AI_NUMERICHOST);
    EXPECT_EQ(AddrInfo::hintFlags("1.2.3.4a.5"), AI_NUMERICSERV);

    // Empty entries are skipped; a four-dot number fails without any lookup.
    char h0[] = "", h1[] = "1.2.3.4.5", h2[] = "127.0.0.7", p0[] = "1", p1[] = "80", p2[] = "5001";
    char* hosts[] = {h0, h1, h2};
    char* ports[] = {p0, p1, p2};
    AddrInfo ai;
    ai.init(3, hosts, ports, true, false, true);
    ASSERT_NE(ai.result, nullptr);
    auto* sin = reinterpret_cast<sockaddr_in*>(ai.result->ai_addr);
    EXPECT_EQ(ntohs(sin->sin_port), 5001);
    EXPECT_EQ(ntohl(sin->sin_addr.s_addr), 0x7f000007u);
    ai.init(2, hosts, ports, true, false, true);
    EXPECT_EQ(ai.result, nullptr);
}

using Refresh = ServiceTest;

TEST_F(Refresh, SameListLeftAloneNewListWrittenEmptyListSeededFromReceiver) {
    spit(data.file("hosts.txt"), "127.0.0.1\n");
    svc.setReply("ips", "127.0.0.1");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 0);
    EXPECT_EQ(slurp(data.file("hosts.txt")), "127.0.0.1\n");  // untouched
    svc.setReply("ips", "  127.0.0.1\n127.0.0.3 \n");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 0);
    EXPECT_EQ(slurp(data.file("hosts.txt")), "127.0.0.1\n127.0.0.3");

    // An empty list is seeded from the receiver file before any command.
    spit(data.file("hosts.txt"), "");
    spit(data.file("receiver.txt"), " 127.0.0.1 \n");
    svc.setReply("ips", "127.0.0.1");
    int status = 1;
    SendFile::sendLogMsg(dir(), status, "hello", false, true);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(svc.commands(), (std::vector<std::string>{"ips/box7", "ips/box7", "ips/box7", "box7|LOG|msg|hello"}));
    EXPECT_EQ(slurp(data.file("hosts.txt")), "127.0.0.1");

    // Unreachable: the receiver, else the default host.
    svc.stop();
    spit(data.file("hosts.txt"), "");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 1);
    EXPECT_EQ(slurp(data.file("hosts.txt")), "127.0.0.1");
    remove(data.file("receiver.txt").c_str());
    spit(data.file("hosts.txt"), "");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 1);
    EXPECT_EQ(slurp(data.file("hosts.txt")), RECEIVER_HOST);
}

TEST_F(Refresh, EmptyReplyFallsBackToBuiltInList) {
    ASSERT_EQ(std::string(BUILTIN_SERVERS), "127.0.0.1\n127.0.0.2") << "test assumes the dev build";
    // Without a reply of its own each service process names its own address.
    svc.alsoListenOn("127.0.0.2");
    svc.alsoListenOn("127.0.0.3");
    spit(data.file("hosts.txt"), "127.0.0.3");
    svc.queueReply("ips", "");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 0);
    EXPECT_EQ(svc.commands(), (std::vector<std::string>{"ips/box7", "ips/box7"}));
    std::string hosts = slurp(data.file("hosts.txt"));
    EXPECT_TRUE(hosts == "127.0.0.1" || hosts == "127.0.0.2") << hosts;
}

TEST_F(Refresh, ConnectFailsOverToTheLiveServer) {
    // Nothing listens on 127.0.0.2: every command must still reach 127.0.0.1.
    spit(data.file("hosts.txt"), "127.0.0.2\n127.0.0.1");
    int failed = 0;
    for (int i = 0, status = 1; i < 100; ++i, failed += status != 0) SendFile::sendLogMsg(dir(), status, "hi", false, true);
    EXPECT_EQ(failed, 0);
}

// Tools run through the shell while a session is open inherit neither its connection nor its file.
TEST_F(Refresh, ToolsInheritNeitherSessionSocketsNorFiles) {
    spit(data.file("upload.bin"), "payload");
    SendFile upload(dir(), "upload.bin", "upload.bin", "upload.bin", dir(), "a", "b", "box7", false);
    upload.addDest("127.0.0.1", std::to_string(svc.port()).c_str(), "4443");
    ASSERT_TRUE(upload.connectSession());
    ASSERT_NE(upload.file, nullptr);
    std::string check = "ls -l /proc/$$/fd | grep -e socket: -e upload.bin && exit 1; exit 0";
    EXPECT_EQ(runBounded(check.c_str(), 10), 0) << "a descriptor was inherited";
}

}  // namespace
