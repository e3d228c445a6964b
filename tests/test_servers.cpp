// Destination lists, their rotation and port rules, and the server-list
// refresh with its fall-backs.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "localServiceHarness.h"
#include "morvaNet.h"
#include "sendFile.h"
#include "testUtil.h"

namespace {

std::vector<std::string> hostsOf(const SendFile& s) {
    return std::vector<std::string>(s.hosts, s.hosts + s.hostCount);
}

// True when v is a rotation of order.
bool isRotation(const std::vector<std::string>& v, const std::vector<std::string>& order) {
    if (v.size() != order.size()) return false;
    for (size_t start = 0; start < order.size(); ++start) {
        bool same = true;
        for (size_t i = 0; i < order.size() && same; ++i)
            same = v[i] == order[(start + i) % order.size()];
        if (same) return true;
    }
    return false;
}

TEST(Destinations, RotationKeepsFileOrder) {
    TempDir data;
    spit(data.file("hosts.txt"), "127.0.0.11\n127.0.0.12\n127.0.0.13\n");
    const std::vector<std::string> order = {"127.0.0.11", "127.0.0.12", "127.0.0.13"};
    std::set<std::string> starts;
    for (int i = 0; i < 60; ++i) {
        SendFile s(data.path().c_str(), false, true);
        s.loadDests();
        auto v = hostsOf(s);
        ASSERT_TRUE(isRotation(v, order)) << v[0] << v[1] << v[2];
        starts.insert(v[0]);
        s.shuffleDests();
        ASSERT_TRUE(isRotation(hostsOf(s), order));
        ASSERT_EQ(s.hostCount, 3);
    }
    EXPECT_EQ(starts.size(), 3u);  // every line gets to be first
}

TEST(Destinations, PortRules) {
    TempDir data;
    spit(data.file("hosts.txt"), std::string(RECEIVER_HOST) + "\n127.0.0.9\nLOCALHOST.example");
    spit(data.file("port.txt"), "8443 \n");
    SendFile s(data.path().c_str(), false, true);
    s.loadDests();
    ASSERT_EQ(s.hostCount, 3);
    for (int i = 0; i < s.hostCount; ++i)
        EXPECT_STREQ(s.ports[i], std::string(s.hosts[i]) == RECEIVER_HOST ? "4443" : "8443")
            << s.hosts[i];

    // The rule is byte-wise: another spelling keeps the configured port.
    SendFile t(data.path().c_str(), false, true);
    std::string upper = RECEIVER_HOST;
    for (char& c : upper) c = (char)toupper((unsigned char)c);
    t.addDest(upper.c_str(), "8443", "4443");
    t.addDest(RECEIVER_HOST, "8443", "4443");
    EXPECT_STREQ(t.ports[0], upper == RECEIVER_HOST ? "4443" : "8443");
    EXPECT_STREQ(t.ports[1], "4443");

    remove(data.file("port.txt").c_str());
    SendFile u(data.path().c_str(), false, true);
    u.loadDests();
    for (int i = 0; i < u.hostCount; ++i) {
        if (std::string(u.hosts[i]) != RECEIVER_HOST) {
            EXPECT_STREQ(u.ports[i], "443");
        }
    }
}

TEST(Destinations, ListGrowsPastItsCapacity) {
    TempDir data;
    SendFile s(data.path().c_str(), false, true);
    for (int i = 0; i < 300; ++i) s.addDest(("h" + std::to_string(i)).c_str(), "1", "2");
    ASSERT_EQ(s.hostCount, 300);
    s.shuffleDests();
    ASSERT_EQ(s.hostCount, 300);
    int first = std::stoi(s.hosts[0] + 1);
    for (int i = 0; i < 300; ++i)
        EXPECT_EQ(std::string(s.hosts[i]), "h" + std::to_string((first + i) % 300));
}

TEST(Resolution, NumericHostFlagOnlyForFourDots) {
    EXPECT_EQ(AddrInfo::hintFlags("10.1.2.3"), AI_NUMERICSERV);
    EXPECT_EQ(AddrInfo::hintFlags("1.2.3.4.5"), AI_NUMERICSERV | AI_NUMERICHOST);
    EXPECT_EQ(AddrInfo::hintFlags("1.2.3.4a.5"), AI_NUMERICSERV);
    EXPECT_EQ(AddrInfo::hintFlags("a.2.3.4.5"), AI_NUMERICSERV);
    EXPECT_EQ(AddrInfo::hintFlags("1..3.4.5.6"), AI_NUMERICSERV);
    EXPECT_EQ(AddrInfo::hintFlags(""), AI_NUMERICSERV);
}

TEST(Resolution, FirstResolvableEntryWins) {
    // Empty entries are skipped; a four-dot number fails without any lookup.
    char h0[] = "", h1[] = "1.2.3.4.5", h2[] = "127.0.0.7";
    char p0[] = "1", p1[] = "80", p2[] = "5001";
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

// Forwards connections from 127.0.0.2:port to 127.0.0.1:port, so that both
// built-in servers lead to the one local service.
class Relay {
public:
    explicit Relay(int port) : m_port(port) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        int one = 1;
        setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons((uint16_t)port);
        inet_pton(AF_INET, "127.0.0.2", &a.sin_addr);
        m_ok = bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 && listen(m_fd, 8) == 0;
        if (m_ok) m_thread = std::thread([this] { run(); });
    }
    ~Relay() {
        m_stop = true;
        if (m_thread.joinable()) m_thread.join();
        close(m_fd);
    }
    bool ok() const { return m_ok; }

private:
    void run() {
        while (!m_stop) {
            pollfd p{m_fd, POLLIN, 0};
            if (poll(&p, 1, 100) <= 0) continue;
            int in = accept(m_fd, nullptr, nullptr);
            if (in < 0) continue;
            std::thread([in, port = m_port] { pipe(in, port); }).detach();
        }
    }
    static void pipe(int in, int port) {
        int out = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons((uint16_t)port);
        inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
        if (connect(out, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0) {
            pollfd p[2] = {{in, POLLIN, 0}, {out, POLLIN, 0}};
            char buf[65536];
            for (bool open = true; open && poll(p, 2, 20000) > 0;) {
                for (int i = 0; i < 2 && open; ++i) {
                    if (!(p[i].revents & (POLLIN | POLLHUP | POLLERR))) continue;
                    ssize_t n = recv(p[i].fd, buf, sizeof buf, 0);
                    open = n > 0 && send(p[1 - i].fd, buf, (size_t)n, MSG_NOSIGNAL) == n;
                }
            }
        }
        close(out);
        close(in);
    }
    int m_port;
    int m_fd;
    bool m_ok = false;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

class Refresh : public ::testing::Test {
protected:
    void SetUp() override { svc.prepareAgentDataDir(data.path(), "box7", "Clinic One"); }
    const char* dir() const { return data.path().c_str(); }
    TempDir data;
    LocalService svc;
};

TEST_F(Refresh, SameListLeftAloneNewListWritten) {
    spit(data.file("hosts.txt"), "127.0.0.1\n");
    svc.setReply("ips", "127.0.0.1");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 0);
    EXPECT_EQ(svc.commands().back(), "ips/box7");
    EXPECT_EQ(slurp(data.file("hosts.txt")), "127.0.0.1\n");  // untouched

    svc.setReply("ips", "  127.0.0.1\n127.0.0.3 \n");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 0);
    EXPECT_EQ(slurp(data.file("hosts.txt")), "127.0.0.1\n127.0.0.3");
}

TEST_F(Refresh, EmptyListSeededFromReceiver) {
    spit(data.file("hosts.txt"), "");
    spit(data.file("receiver.txt"), " 127.0.0.1 \n");
    svc.setReply("ips", "127.0.0.1\n127.0.0.4");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 0);
    EXPECT_EQ(svc.commands().back(), "ips/box7");
    EXPECT_EQ(slurp(data.file("hosts.txt")), "127.0.0.1\n127.0.0.4");
}

TEST_F(Refresh, EmptyReplyFallsBackToBuiltInList) {
    ASSERT_EQ(std::string(BUILTIN_SERVERS), "127.0.0.1\n127.0.0.2") << "test assumes the dev build";
    Relay relay(svc.port());
    ASSERT_TRUE(relay.ok());
    spit(data.file("hosts.txt"), "127.0.0.1");
    svc.queueReply("ips", "");
    svc.setReply("ips", "127.0.0.2");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 0);
    auto c = svc.commands();
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[1], "ips/box7");
    EXPECT_EQ(slurp(data.file("hosts.txt")), "127.0.0.2");
}

TEST_F(Refresh, UnreachableEndsWithDefaultHost) {
    // Built-in list, then the default host (on 4443): nobody answers.
    spit(data.file("hosts.txt"), "");
    svc.stop();
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 1);
    EXPECT_EQ(slurp(data.file("hosts.txt")), RECEIVER_HOST);

    spit(data.file("receiver.txt"), "127.0.0.1");
    spit(data.file("hosts.txt"), "");
    EXPECT_EQ(SendFile::sendIpsCommand(dir(), false, true), 1);
    EXPECT_EQ(slurp(data.file("hosts.txt")), "127.0.0.1");
}

TEST_F(Refresh, EmptyHostsRefreshedBeforeCommand) {
    spit(data.file("hosts.txt"), "");
    spit(data.file("receiver.txt"), "127.0.0.1");
    int status = 1;
    SendFile::sendLogMsg(dir(), status, "hello", false, true);
    EXPECT_EQ(status, 0);
    auto c = svc.commands();
    ASSERT_EQ(c.size(), 2u);
    EXPECT_EQ(c[0], "ips/box7");
    EXPECT_EQ(c[1], "box7|LOG|msg|hello");
}

}  // namespace
