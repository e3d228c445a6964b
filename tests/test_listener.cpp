// The local request listener over real loopback sockets: JSON requests, the
// relay to the bundled local service, floods and the bind modes.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <signal.h>

#include <atomic>
#include <memory>
#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

#include "listener.h"
#include "localServiceHarness.h"
#include "settings.h"
#include "testUtil.h"

namespace {

int connectTo(const char* host, int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, host, &a.sin_addr);
    if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
        int e = errno;
        close(fd);
        errno = e;
        return -1;
    }
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    timeval tv{90, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

void sendText(int fd, const std::string& text) {
    ASSERT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

std::string readAll(int fd) {
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) out.append(buf, static_cast<size_t>(n));
    close(fd);
    return out;
}

// One request, the whole answer; "<refused>" when the connection failed.
std::string ask(int port, const std::string& request, const char* host = "127.0.0.1") {
    int fd = connectTo(host, port);
    if (fd < 0) return "<refused>";
    if (send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
        close(fd);
        return "<send failed>";
    }
    return readAll(fd);
}

const char* PING = R"({"request_type": "ping"})";

// A listener in a child process of its own: the accept lock is process-wide,
// so one process serves one listening socket. Killed with the object.
struct ListenerProcess {
    pid_t pid = -1;
    int port = 0;
    ListenerProcess(const std::string& data, bool remote = false, int threads = 3) {
        port = freePort();
        pid = fork();
        if (pid == 0) {
            snprintf(dataDir, sizeof dataDir, "%s", data.c_str());
            PORT = port;
            REMOTE = remote;
            NumTcpThreads = threads;
            if (!startListener()) _exit(3);
            for (;;) pause();
        }
        EXPECT_TRUE(waitUntil([&] { return ask(port, PING) == "success"; }, 5000));
    }
    ~ListenerProcess() {
        if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    // The exit status once the process ended by itself.
    int wait() {
        int status = -1;
        if (waitpid(pid, &status, 0) != pid) return -1;
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
};

// An agent data directory known to a fresh local service.
struct WithService {
    TempDir tmp;
    LocalService service;
    std::string data = tmp.file("data");
    std::unique_ptr<ListenerProcess> listener;
    int port;
    WithService() {
        mkdir(data.c_str(), 0775);
        service.prepareAgentDataDir(data, "box7", "Clinic");
        listener = std::make_unique<ListenerProcess>(data);
        port = listener->port;
    }
    bool logged(const std::string& prefix) const {
        for (const std::string& c : service.commands())
            if (c.compare(0, prefix.size(), prefix) == 0) return true;
        return false;
    }
};

}  // namespace

TEST(ListenerJson, PingAnyCaseAndNonsense) {
    TempDir tmp;
    ListenerProcess l(tmp.path());
    int port = l.port;
    EXPECT_EQ(ask(port, R"({"request_type": "PING"})"), "success");
    EXPECT_EQ(ask(port, R"(  {"request_type":"Ping", "other": [1, 2]})"), "success");
    EXPECT_EQ(ask(port, "hello"), "error");
    EXPECT_EQ(ask(port, "{}"), "error");
    EXPECT_EQ(ask(port, R"({"request_type": "ping")"), "error");
    EXPECT_EQ(std::string(slurp(tmp.file("APIport.txt"))), std::to_string(port));
}

TEST(ListenerJson, ShutdownLeavesMarkerAndEndsWithZero) {
    TempDir tmp;
    ListenerProcess l(tmp.path());
    EXPECT_EQ(ask(l.port, R"({"request_type": "Shutdown"})"), "success");
    EXPECT_EQ(l.wait(), 0);
    EXPECT_EQ(slurp(tmp.file("SHUTDOWN.txt")), "done");
}

TEST(ListenerService, DicomSendUploadsTheNamedFile) {
    WithService s;
    std::string dump = s.tmp.file("img.dump"), dcm = s.tmp.file("img.dcm");
    spit(dump,
         "(0008,0016) UI =SecondaryCaptureImageStorage\n"
         "(0008,0018) UI [1.2.826.0.1.3680043.2.1125.7.1]\n"
         "(0010,0010) PN [Test^Patient]\n"
         "(0020,000d) UI [1.2.826.0.1.3680043.2.1125.7.2]\n");
    ASSERT_EQ(runProgram({"/usr/bin/dump2dcm", dump, dcm}).status, 0);

    EXPECT_EQ(ask(s.port, R"({"request_type": "DICOM send"} )" + dcm), "success");
    ASSERT_TRUE(exists(s.service.storedFile("img.dcm")));
    EXPECT_EQ(slurp(s.service.storedFile("img.dcm")), slurp(dcm));
    EXPECT_NE(s.service.storedHeader("img.dcm").find("|Export|Export|"), std::string::npos);

    EXPECT_EQ(ask(s.port, R"({"request_type": "dicom SEND"} )" + s.tmp.file("missing.dcm")), "failure");
}

TEST(ListenerService, ForwardedReplyComesBackByteForByte) {
    WithService s;
    const std::string reply = "{\"studies\": [\"a|b\", \"c\\\\d\"],\n\t\"note\": \"x&y=z\"}";
    s.service.setReply("API.studyList", reply);
    const std::string request = R"({"request_type": "studyList", "since": "20240101"})";
    EXPECT_EQ(ask(s.port, request), reply);
    EXPECT_TRUE(s.logged("API/box7/Clinic/1|studyList|" + request));
    // A good answer needs no heartbeat.
    usleep(300 * 1000);
    EXPECT_FALSE(s.logged("heartbeat|"));
}

TEST(ListenerService, ErrorAnswerIsFollowedByHeartbeat) {
    WithService s;
    s.service.setReply("API.broken", "Error");
    s.service.setReply("heartbeat", "display_name=Renamed Clinic");
    EXPECT_EQ(ask(s.port, R"({"request_type": "broken"})"), "Error");
    EXPECT_TRUE(waitUntil([&] { return s.logged("heartbeat|fqdn=box7"); }, 10000));
    // The heartbeat's reply went through reply processing.
    EXPECT_TRUE(waitUntil([&] { return slurp(s.data + "/displayName.txt") != "Clinic"; }, 10000));

    // No request type: the service is never asked, yet the heartbeat follows.
    size_t before = s.service.commands().size();
    EXPECT_EQ(ask(s.port, R"({"kind": "none"})"), "error");
    ASSERT_TRUE(s.service.waitForCommands(before + 1));
    std::vector<std::string> all = s.service.commands();
    EXPECT_EQ(all.size(), before + 1);
    EXPECT_EQ(all.back().rfind("heartbeat|", 0), 0u);
}

TEST(ListenerService, SharingDocumentMaySpanSegmentsOtherJsonMayNot) {
    WithService s;
    s.service.setReply("API.sharing", "shared-42");
    std::string notes(30000, 'n');
    std::string doc = R"({"request_type": "sharing", "emails": ["a@b.c"], "notes": ")" + notes + R"("})";
    int fd = connectTo("127.0.0.1", s.port);
    ASSERT_GE(fd, 0);
    sendText(fd, doc.substr(0, 100));
    usleep(200 * 1000);
    for (size_t at = 100; at < doc.size(); at += 5000) {
        sendText(fd, doc.substr(at, 5000));
        usleep(50 * 1000);
    }
    EXPECT_EQ(readAll(fd), "shared-42");
    EXPECT_TRUE(s.logged("API/box7/Clinic/1|sharing|" + doc));

    size_t before = s.service.commands().size();
    fd = connectTo("127.0.0.1", s.port);
    ASSERT_GE(fd, 0);
    sendText(fd, R"({"request_type": "study)");
    usleep(200 * 1000);
    sendText(fd, R"(List"})");
    EXPECT_EQ(readAll(fd), "error");
    usleep(300 * 1000);
    EXPECT_EQ(s.service.commands().size(), before);
}

TEST(ListenerLoad, FloodsAndVanishingClientsLeaveItAnswering) {
    TempDir tmp;
    ListenerProcess l(tmp.path(), false, 3);
    int port = l.port;
    int good = 0;
    for (int i = 0; i < 1000; i++) good += ask(port, PING) == "success";
    EXPECT_EQ(good, 1000);

    std::atomic<int> together{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 50; i++)
        clients.emplace_back([&] { together += ask(port, PING) == "success"; });
    for (auto& t : clients) t.join();
    EXPECT_EQ(together.load(), 50);

    // Gone before sending, gone half-way through a frame or a document, or
    // reset without a goodbye.
    for (int i = 0; i < 30; i++) {
        int fd = connectTo("127.0.0.1", port);
        ASSERT_GE(fd, 0);
        if (i % 3 == 1) sendText(fd, "\x0bMSH|^~\\&|half");
        if (i % 3 == 2) {
            linger l{1, 0};
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
            sendText(fd, R"({"request_type": "sharing", "x": ")");
        }
        close(fd);
    }
    EXPECT_EQ(ask(port, PING), "success");
    EXPECT_EQ(ask(port, PING), "success");
}

TEST(ListenerBind, LocalOnlyRefusesOtherLoopbackAddresses) {
    TempDir tmp;
    ListenerProcess l(tmp.path(), false);
    int local = l.port;
    EXPECT_EQ(ask(local, PING, "127.0.0.1"), "success");
    int fd = connectTo("127.0.0.2", local);
    EXPECT_LT(fd, 0);
    EXPECT_EQ(errno, ECONNREFUSED);
    if (fd >= 0) close(fd);

    ListenerProcess all(tmp.path(), true);
    int everywhere = all.port;
    EXPECT_EQ(ask(everywhere, PING, "127.0.0.1"), "success");
    EXPECT_EQ(ask(everywhere, PING, "127.0.0.2"), "success");
}
