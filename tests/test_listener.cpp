// The local request listener over real loopback sockets: JSON requests, the
// relay to the bundled local service, floods and the bind modes.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <memory>
#include <thread>
#include <cstring>
#include <vector>

#include "apiRequests.h"
#include "bounds.h"
#include "listener.h"
#include "listenerClient.h"
#include "localServiceHarness.h"
#include "morvaAlarms.h"
#include "settings.h"
#include "testUtil.h"

namespace {

// An agent data directory known to a fresh local service, and its listener.
struct WithService {
    TempDir data;
    LocalService service;
    std::unique_ptr<ListenerProcess> listener;
    int port;
    std::string exportDir = data.file("export");
    WithService() {
        service.prepareAgentDataDir(data.path(), "box7", "Clinic");
        ListenerOptions options(data.file("HL7"));
        options.exportDir = exportDir;
        listener = std::make_unique<ListenerProcess>(data.path(), options);
        port = listener->port();
    }
    size_t logged(const std::string& prefix) const {
        size_t n = 0;
        for (const std::string& c : service.commands()) n += c.compare(0, prefix.size(), prefix) == 0;
        return n;
    }
};

}  // namespace

TEST(ListenerJson, PingNonsenseAndShutdown) {
    TempDir tmp;
    ListenerProcess l(tmp.path());
    EXPECT_EQ(talk(l.port(), R"({"request_type": "PING"})"), "success");
    EXPECT_EQ(talk(l.port(), R"(  {"request_type":"Ping", "other": [1, 2]})"), "success");
    for (const char* nonsense : {"hello", "{}", R"({"request_type": "ping")"})
        EXPECT_EQ(talk(l.port(), nonsense), "error") << nonsense;
    // Only a sharing document may span more than one receive.
    int fd = connectTo(l.port());
    ASSERT_TRUE(sendAll(fd, R"({"request_type": "pi)"));
    usleep(200 * 1000);
    ASSERT_TRUE(sendAll(fd, R"(ng"})"));
    EXPECT_EQ(readAll(fd), "error");
    EXPECT_EQ(slurp(tmp.file("APIport.txt")), std::to_string(l.port()));

    EXPECT_EQ(talk(l.port(), R"({"request_type": "Shutdown"})"), "success");
    EXPECT_EQ(l.wait(), 0);
    EXPECT_EQ(slurp(tmp.file("SHUTDOWN.txt")), "done");
}

TEST(ListenerJson, ShutdownOnlyFromThisMachine) {
    // A peer without a loopback address stands in for a client on the LAN.
    TempDir tmp;
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        snprintf(dataDir, sizeof dataDir, "%s", tmp.path().c_str());
        char request[] = R"({"request_type": "shutdown"})";
        ListenerConnection conn(pair[0], m_alarms->regThread(pthread_self()));
        answerApiRequest(conn, request, static_cast<int>(strlen(request)));
        _exit(3);  // still here: the request was refused
    }
    close(pair[0]);
    EXPECT_EQ(readAll(pair[1]), "error");
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 3) << status;
    EXPECT_FALSE(exists(tmp.file("SHUTDOWN.txt")));
}

TEST(ListenerService, DicomSendUploadsOnlyFilesOfTheExportDirectory) {
    WithService s;
    std::string dump = s.data.file("img.dump"), dcm = s.exportDir + "/img.dcm";
    spit(dump,
         "(0008,0016) UI =SecondaryCaptureImageStorage\n"
         "(0008,0018) UI [1.2.826.0.1.3680043.2.1125.7.1]\n"
         "(0010,0010) PN [Test^Patient]\n"
         "(0020,000d) UI [1.2.826.0.1.3680043.2.1125.7.2]\n");
    ASSERT_EQ(runProgram({"/usr/bin/dump2dcm", dump, dcm}).status, 0);

    EXPECT_EQ(talk(s.port, R"({"request_type": "DICOM send"} )" + dcm), "success");
    EXPECT_EQ(slurp(s.service.storedFile("img.dcm")), slurp(dcm));
    EXPECT_NE(s.service.storedHeader("img.dcm").find("|Export|Export|"), std::string::npos);
    EXPECT_EQ(talk(s.port, R"({"request_type": "dicom SEND"} )" + s.exportDir + "/missing.dcm"), "failure");

    // Readable files elsewhere, reached directly, through "..", through a
    // link or as a directory, are never uploaded.
    std::string outside = s.data.file("outside.dcm");
    ASSERT_EQ(runProgram({"/bin/cp", dcm, outside}).status, 0);
    ASSERT_EQ(symlink(outside.c_str(), (s.exportDir + "/link.dcm").c_str()), 0);
    ASSERT_EQ(mkdir((s.exportDir + "/sub").c_str(), 0775), 0);
    ASSERT_EQ(mkdir((s.exportDir + "2").c_str(), 0775), 0);
    ASSERT_EQ(runProgram({"/bin/cp", dcm, s.exportDir + "2/sibling.dcm"}).status, 0);
    size_t before = s.service.commands().size();
    for (const std::string& path : {outside, s.exportDir + "/../outside.dcm", s.exportDir + "/link.dcm",
                                    std::string("/etc/passwd"), s.exportDir + "/sub", s.exportDir,
                                    s.exportDir + "2/sibling.dcm"})
        EXPECT_EQ(talk(s.port, R"({"request_type": "DICOM send"} )" + path), "failure") << path;
    EXPECT_EQ(s.service.commands().size(), before);
    for (const char* name : {"outside.dcm", "link.dcm", "passwd"}) EXPECT_FALSE(exists(s.service.storedFile(name))) << name;
}

TEST(ListenerService, RelayedAnswersAndTheHeartbeatAfterAFailure) {
    WithService s;
    const std::string reply = "{\"studies\": [\"a|b\", \"c\\\\d\"],\n\t\"note\": \"x&y=z\"}";
    s.service.setReply("API.studyList", reply);
    s.service.setReply("API.broken", "Error");
    s.service.setReply("heartbeat", "display_name=Renamed Clinic");
    // The heartbeat's reply is applied before the connection closes.
    EXPECT_EQ(talk(s.port, R"({"request_type": "broken"})"), "Error");
    EXPECT_NE(slurp(s.data.file("displayName.txt")), "Clinic");
    EXPECT_EQ(s.logged("heartbeat|fqdn=box7"), 1u);
    // Without a request type the service is never asked, yet the heartbeat follows.
    EXPECT_EQ(talk(s.port, R"({"kind": "none"})"), "error");
    EXPECT_EQ(s.logged("heartbeat|"), 2u);

    const std::string request = R"({"request_type": "studyList", "since": "20240101"})";
    EXPECT_EQ(talk(s.port, request), reply);
    EXPECT_EQ(s.logged("API/box7/Renamed Clinic/1|studyList|" + request), 1u);
    usleep(300 * 1000);  // room for a heartbeat that a good answer must not cause
    EXPECT_EQ(s.logged("heartbeat|"), 2u);
    EXPECT_EQ(s.logged("API/"), 2u);
}

TEST(ListenerService, SharingDocumentsOfAnySizeAndShape) {
    WithService s;
    s.service.setReply("API.sharing", "shared-42");
    // Deep and wide: every piece used to be parsed again, walking the whole
    // nesting at each closing bracket (tens of seconds for this one).
    std::string doc = R"({"request_type": "sharing", "nest": )" + std::string(40000, '[') + "7" +
                      std::string(40000, ']') + R"(, "studies": [)";
    for (int i = 0; i < 4000; i++) doc += std::string(i ? "," : "") + R"({"uid": "1.2.)" + std::to_string(i) + R"(", "n": [1, 2]})";
    doc += "]}";
    EXPECT_EQ(talk(s.port, doc, false, "127.0.0.1", 10), "shared-42");
    EXPECT_EQ(s.logged("API/box7/Clinic/1|sharing|" + doc), 1u);

    // Pieces that end after a backslash, inside a "\u" escape, before the two
    // bytes passed over after one (a quote and a bracket that close nothing),
    // and on a bracket that does not yet close the document.
    doc = R"({"request_type": "sharing", "e": ["a@b.c"], "n": "x\"]}\u00e9"}", "o": {"p": [1]}, "q": 2})";
    int fd = connectTo(s.port);
    size_t at = 0;
    for (size_t cut : {size_t(52), size_t(59), size_t(61), size_t(63), size_t(81), doc.size()}) {
        ASSERT_TRUE(sendAll(fd, doc.substr(at, cut - at)));
        usleep(100 * 1000);
        at = cut;
    }
    EXPECT_EQ(readAll(fd), "shared-42");
    EXPECT_EQ(s.logged("API/box7/Clinic/1|sharing|" + doc), 1u);

}

TEST(ListenerLoad, FloodsAndVanishingClientsLeaveItAnswering) {
    TempDir tmp;
    ListenerProcess l(tmp.path());
    std::atomic<int> together{0};
    std::vector<std::thread> clients;
    for (int i = 0; i < 50; i++) clients.emplace_back([&] { together += talk(l.port(), PING_REQUEST) == "success"; });
    for (auto& t : clients) t.join();
    EXPECT_EQ(together.load(), 50);

    // Gone before sending, half-way through a frame, or reset mid-document.
    for (int i = 0; i < 30; i++) {
        int fd = connectTo(l.port());
        ASSERT_GE(fd, 0);
        if (i % 3 == 1) sendAll(fd, "\x0bMSH|^~\\&|half");
        if (i % 3 == 2) {
            linger reset{1, 0};
            setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
            sendAll(fd, R"({"request_type": "sharing", "x": ")");
        }
        close(fd);
    }
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");

    // One connection more than are read at once displaces the oldest.
    std::vector<int> idle;
    for (int i = 0; i <= Limits::LISTENER_CONNECTIONS_MOST; i++) idle.push_back(connectTo(l.port(), "127.0.0.1", 1));
    bool timedOut[2] = {true, false};
    EXPECT_EQ(readAll(idle[0], &timedOut[0]) + readAll(idle[1], &timedOut[1]), "");
    EXPECT_FALSE(timedOut[0]);
    EXPECT_TRUE(timedOut[1]);
    for (size_t i = 2; i < idle.size(); i++) close(idle[i]);
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");
}

TEST(ListenerLoad, SlowClientsAndASilentServiceHoldNeitherPingNorMllp) {
    WithService s;
    s.service.setFault(LocalService::Fault::Silent);
    // Twenty clients that send nothing, or dribble a sharing document or a
    // frame that never ends, and three requests for the silent service.
    const std::string starts[] = {"", R"({"request_type": "sharing", "notes": ")", "\x0bMSH|^~\\&|A|B"};
    std::vector<int> slow;
    for (int i = 0; i < 23; i++) {
        slow.push_back(connectTo(s.port, "127.0.0.1", 5));
        sendAll(slow.back(), i < 20 ? starts[i % 3] : R"({"request_type": "studyList"})");
    }
    std::atomic<bool> done{false};
    std::thread dribble([&] {
        for (; !done; usleep(100 * 1000))
            for (int i = 0; i < 20; i++)
                if (i % 3) sendAll(slow[i], "x");
    });
    usleep(500 * 1000);
    // Answered within seconds, not once the minute of the slow ones is up.
    for (const char* id : {"R1", "R2", "R3"}) {
        EXPECT_EQ(talk(s.port, PING_REQUEST, false, "127.0.0.1", 5), "success") << id;
        std::string frame = "\x0bMSH|^~\\&|REPORTS|CLINIC|HUB|BOX|20240101120000||ORU^R01|" + std::string(id) + "|P|2.4\r\x1c\r";
        EXPECT_NE(talk(s.port, frame, false, "127.0.0.1", 5).find("MSA|AA|" + std::string(id) + "||||"), std::string::npos);
    }
    done = true;
    dribble.join();
    for (int fd : slow) close(fd);
}

TEST(ListenerLoad, AShortageOfDescriptorsPassesWithoutEndingTheListener) {
    TempDir tmp;
    ListenerProcess l(tmp.path());
    ASSERT_TRUE(l.runOutOfDescriptors(1000));
    // Clients arriving meanwhile are answered once descriptors are back.
    std::vector<int> during;
    for (int i = 0; i < 3; i++) {
        during.push_back(connectTo(l.port(), "127.0.0.1", 10));
        sendAll(during.back(), PING_REQUEST);
    }
    for (int fd : during) EXPECT_EQ(readAll(fd), "success");
    EXPECT_EQ(talk(l.port(), PING_REQUEST, false, "127.0.0.1", 10), "success");
}

TEST(ListenerBind, LocalOnlyRefusesOtherLoopbackAddresses) {
    TempDir tmp;
    ListenerProcess local(tmp.path());
    EXPECT_EQ(talk(local.port(), PING_REQUEST, false, "127.0.0.1"), "success");
    EXPECT_EQ(connectTo(local.port(), "127.0.0.2"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);

    ListenerProcess all(tmp.path(), {"", true});
    EXPECT_EQ(talk(all.port(), PING_REQUEST, false, "127.0.0.1"), "success");
    EXPECT_EQ(talk(all.port(), PING_REQUEST, false, "127.0.0.2"), "success");
}
