// The local request listener over real loopback sockets: JSON requests, the
// relay to the bundled local service, MLLP-framed HL7, floods and the bind modes.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <random>
#include <regex>
#include <set>
#include <thread>
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

std::string frame(const std::string& message) { return "\x0b" + message + "\x1c\r"; }

std::string msh(const std::string& controlId) {
    return "MSH|^~\\&|REPORTS|CLINIC|HUB|BOX|20240101120000||ORU^R01|" + controlId + "|P|2.4";
}

// The whole acknowledgement, with the same 14-digit timestamp twice.
bool isAnswer(const std::string& answer, bool accepted, const std::string& controlId) {
    std::string kind = accepted ? "ACK" : "NACK";
    std::regex shape("\x0bMSH\\|\\^~\\\\&\\|PDF\\|\\|GE\\|ViewPoint\\|(\\d{14})\\|" + kind + "\\^T01\\^" + kind +
                     "\\|\\1\\|P\\|2\\.4\r\n" + (accepted ? "MSA\\|AA\\|" : "MSA\\|AE\\|"));
    std::string tail = controlId + "||||\x1c\r\n";
    return answer.size() > tail.size() && answer.compare(answer.size() - tail.size(), tail.size(), tail) == 0 &&
           std::regex_match(answer.substr(0, answer.size() - tail.size()), shape);
}

// The names in the directory (none when it is missing) that start with the prefix, sorted.
std::vector<std::string> listDir(const std::string& dir, const std::string& prefix = "") {
    std::set<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(dir, missing))
        if (entry.path().filename().string().rfind(prefix, 0) == 0) names.insert(entry.path().filename());
    return {names.begin(), names.end()};
}

// One connection: the bytes in pieces ending at the cuts, a pause after each,
// and the whole answer.
std::string inPieces(int port, const std::string& bytes, std::vector<size_t> cuts, int pauseMs = 100) {
    int fd = connectTo(port, "127.0.0.1", 10);
    cuts.push_back(bytes.size());
    for (size_t at = 0, i = 0; i < cuts.size(); at = cuts[i++], usleep(pauseMs * 1000))
        if (!sendAll(fd, bytes.substr(at, cuts[i] - at))) ADD_FAILURE() << "cut at " << at;
    return readAll(fd);
}

// A listener storing into a fresh inbound HL7 directory.
struct Hl7Listener {
    TempDir tmp;
    std::string hl7 = tmp.file("HL7");
    ListenerProcess listener;
    int port = listener.port();

    explicit Hl7Listener(long fileSizeLimit = 0) : listener(tmp.path(), {hl7, false, "", "", "", fileSizeLimit}) {}
    // The one file stored for the control ID prefix, "" when not exactly one.
    std::string stored(const std::string& prefix, const std::string& dir = "") {
        std::vector<std::string> names = listDir(hl7 + dir, prefix);
        return names.size() == 1 ? slurp(hl7 + dir + "/" + names[0]) : "";
    }
};

}  // namespace

// An agent data directory known to a fresh local service, and its listener.
class ListenerService : public ServiceTest {
protected:
    ListenerService() : ServiceTest("Clinic") {}
    size_t logged(const std::string& prefix) const {
        auto c = svc.commands();
        return std::count_if(c.begin(), c.end(), [&](const std::string& s) { return s.rfind(prefix, 0) == 0; });
    }
    std::string exportDir = data.file("export");
    ListenerProcess listener{data.path(), {data.file("HL7"), false, exportDir}};
    int port = listener.port();
};

TEST(ListenerJson, PingNonsenseShutdownAndTheBindModes) {
    TempDir tmp, other;
    ListenerProcess l(tmp.path()), all(other.path(), {"", true});
    for (const auto& [request, answer] : {std::pair{R"(  {"request_type":"PING", "other": [1, 2]})", "success"},
                                          {"hello", "error"}, {"{}", "error"}, {R"({"request_type": "ping")", "error"}})
        EXPECT_EQ(talk(l.port(), request), answer) << request;
    // Only a sharing document may span more than one receive.
    EXPECT_EQ(inPieces(l.port(), PING_REQUEST, {20}, 200), "error");
    // Local only, unless remote: then on every address.
    EXPECT_EQ(connectTo(l.port(), "127.0.0.2"), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    EXPECT_EQ(talk(all.port(), PING_REQUEST, false, "127.0.0.2"), "success");
    EXPECT_EQ(slurp(tmp.file("APIport.txt")), std::to_string(l.port()));

    // Refused to a peer without a loopback address, as a client on the LAN.
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair), 0);
    EXPECT_EQ(inChild([&] {
        snprintf(dataDir, sizeof dataDir, "%s", tmp.path().c_str());
        char request[] = R"({"request_type": "shutdown"})";
        ListenerConnection conn(pair[0], m_alarms->regThread(pthread_self()));
        answerApiRequest(conn, request, static_cast<int>(strlen(request)));
        return 3;  // still here: the request was refused
    }), 3);
    close(pair[0]);
    EXPECT_EQ(readAll(pair[1]), "error");
    EXPECT_FALSE(exists(tmp.file("SHUTDOWN.txt")));

    EXPECT_EQ(talk(l.port(), R"({"request_type": "Shutdown"})"), "success");
    EXPECT_EQ(l.wait(), 0);
    EXPECT_EQ(slurp(tmp.file("SHUTDOWN.txt")), "done");
}

TEST_F(ListenerService, DicomSendUploadsOnlyFilesOfTheExportDirectory) {
    std::string dump = data.file("img.dump"), dcm = exportDir + "/img.dcm", outside = data.file("outside.dcm");
    spit(dump, "(0008,0016) UI =SecondaryCaptureImageStorage\n(0008,0018) UI [1.2.826.0.1.3680043.2.1125.7.1]\n"
               "(0010,0010) PN [Test^Patient]\n(0020,000d) UI [1.2.826.0.1.3680043.2.1125.7.2]\n");
    ASSERT_EQ(runProgram({"/usr/bin/dump2dcm", dump, dcm}).status, 0);
    EXPECT_EQ(talk(port, R"({"request_type": "DICOM send"} )" + dcm), "success");
    EXPECT_EQ(slurp(svc.storedFile("img.dcm")), slurp(dcm));
    EXPECT_NE(svc.storedHeader("img.dcm").find("|Export|Export|"), std::string::npos);
    std::string ledger;
    for (const auto& name : entriesOf(data.file("ledger"))) ledger += slurp(data.file("ledger/" + name));
    std::regex line("[^\t]+\tlistener\timg\\.dcm\t-\t" + std::to_string(slurp(dcm).size()) + "\tok\t[0-9.]+\t127\\.0\\.0\\.1:" +
                    std::to_string(svc.port()) + "\n");
    EXPECT_TRUE(std::regex_match(ledger, line)) << ledger;

    // Missing files, and readable ones elsewhere, reached directly, through
    // "..", through a link, as a directory or in a sibling directory, are
    // never uploaded.
    spit(outside, slurp(dcm));
    ASSERT_EQ(symlink(outside.c_str(), (exportDir + "/link.dcm").c_str()), 0);
    ASSERT_EQ(mkdir((exportDir + "2").c_str(), 0775), 0);
    spit(exportDir + "2/sibling.dcm", slurp(dcm));
    size_t before = svc.commands().size();
    for (const std::string& path : {outside, exportDir + "/../outside.dcm", exportDir + "/link.dcm", exportDir,
                                    exportDir + "/missing.dcm", exportDir + "2/sibling.dcm"})
        EXPECT_EQ(talk(port, R"({"request_type": "dicom SEND"} )" + path), "failure") << path;
    EXPECT_EQ(svc.commands().size(), before);
}

TEST_F(ListenerService, RelayedAnswersAndTheHeartbeatAfterAFailure) {
    const std::string reply = "{\"studies\": [\"a|b\", \"c\\\\d\"],\n\t\"note\": \"x&y=z\"}";
    svc.setReply("API.studyList", reply);
    svc.setReply("API.broken", "Error");
    svc.setReply("heartbeat", "display_name=Renamed Clinic");
    // The heartbeat's reply is applied before the connection closes.
    EXPECT_EQ(talk(port, R"({"request_type": "broken"})"), "Error");
    EXPECT_EQ(logged("heartbeat|fqdn=box7"), 1u);
    // Without a request type the service is never asked, yet the heartbeat follows.
    EXPECT_EQ(talk(port, R"({"kind": "none"})"), "error");
    EXPECT_EQ(logged("heartbeat|"), 2u);

    const std::string request = R"({"request_type": "studyList", "since": "20240101"})";
    EXPECT_EQ(talk(port, request), reply);
    EXPECT_EQ(logged("API/box7/Renamed Clinic/1|studyList|" + request), 1u);
    usleep(300 * 1000);  // room for a heartbeat that a good answer must not cause
    EXPECT_EQ(logged("heartbeat|"), 2u);
    EXPECT_EQ(logged("API/"), 2u);
}

TEST_F(ListenerService, SharingDocumentsOfAnySizeAndShape) {
    svc.setReply("API.sharing", "shared-42");
    // Deep and wide: every piece used to be parsed again, walking the whole
    // nesting at each closing bracket (tens of seconds for this one).
    std::string doc = R"({"request_type": "sharing", "nest": )" + std::string(40000, '[') + "7" +
                      std::string(40000, ']') + R"(, "studies": [)";
    for (int i = 0; i < 4000; i++) doc += std::string(i ? "," : "") + R"({"uid": "1.2.)" + std::to_string(i) + R"(", "n": [1, 2]})";
    doc += "]}";
    EXPECT_EQ(talk(port, doc, false, "127.0.0.1", 10), "shared-42");
    EXPECT_EQ(logged("API/box7/Clinic/1|sharing|" + doc), 1u);

    // Pieces that end after a backslash, inside a "\u" escape, before the two
    // bytes passed over after one (a bracket and a quote that close nothing),
    // and on a bracket that does not yet close the document. Answered at once,
    // not when the minute for an unfinished document is up.
    doc = R"({"request_type": "sharing", "e": ["a@b.c"], "n": "x\"]}\u00e9}"]", "o": {"p": [1]}, "q": 2})";
    EXPECT_EQ(inPieces(port, doc, {52, 59, 61, 63, 82}), "shared-42");
    EXPECT_EQ(logged("API/box7/Clinic/1|sharing|" + doc), 1u);
}

TEST(Mllp, AcceptedMessagesAreAcknowledgedAndStoredEachInAFileOfItsOwn) {
    Hl7Listener l;
    std::string file = l.tmp.file("msg.hl7");
    spit(file, msh("123") + "\nPID|1||4711||Doe^Jane\nOBX|1|TX|||All fine\n");
    RunResult r = runProgram({"/usr/bin/mllp_send", "--loose", "-f", file, "-p", std::to_string(l.port), "127.0.0.1"});
    ASSERT_TRUE(r.status == 0 && !r.out.empty()) << r.err;
    EXPECT_TRUE(isAnswer(r.out.substr(0, r.out.size() - 1), true, "123")) << r.out;
    EXPECT_TRUE(std::regex_match(listDir(l.hl7, "123.").at(0), std::regex(R"(123\.\d{1,3}\.hl7)")));
    EXPECT_EQ(l.stored("123."), msh("123") + "\rPID|1||4711||Doe^Jane\rOBX|1|TX|||All fine");

    // A large frame arriving in several segments.
    std::string message = msh("BIG1");
    for (int i = 0; i < 3000; i++) message += "\rOBX|" + std::to_string(i) + "|TX|||line of report text";
    EXPECT_TRUE(isAnswer(inPieces(l.port, frame(message + "\r"), {10}, 200), true, "BIG1"));
    EXPECT_EQ(l.stored("BIG1."), message);

    // Frames sent together are each stored and answered on their own, in
    // order; a trailing partial frame is not answered.
    std::string answers = talk(l.port, frame(msh("TWO1") + "\rPID|1") + frame(msh("TWO2") + "\rPID|2") + "\x0b" + msh("TWO3"), true);
    size_t cut = answers.find("\x1c\r\n") + 3;
    EXPECT_TRUE(isAnswer(answers.substr(0, cut), true, "TWO1")) << answers;
    EXPECT_TRUE(isAnswer(answers.substr(cut), true, "TWO2")) << answers;
    EXPECT_EQ(l.stored("TWO1."), msh("TWO1") + "\rPID|1");
    EXPECT_EQ(l.stored("TWO2."), msh("TWO2") + "\rPID|2");
    EXPECT_EQ(listDir(l.hl7).size(), 4u);

    // Messages sharing a control ID, from several clients at once, are all kept.
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < 3; c++)
        threads.emplace_back([&, c] {
            for (int i = c * 400; i < c * 400 + 400; i++)
                refused += talk(l.port, frame(msh("SAME") + "\rPID|" + std::to_string(i) + "\r")).find("\nMSA|AA|SAME||||\x1c") == std::string::npos;
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(refused, 0);
    std::set<std::string> contents;
    for (const std::string& name : listDir(l.hl7, "SAME.")) contents.insert(slurp(l.hl7 + "/" + name));
    EXPECT_EQ(contents.size(), 1200u);
}

// Rejected messages are answered AE, kept apart from what the inbound reader
// sees, and never stored where they do not fit.
TEST(Mllp, RejectedMessagesCarryTheirControlIdAndAreNotAccepted) {
    const struct {
        std::string bytes;
        bool endSending;
        const char* controlId;
        std::string stored;  // "" when nothing may be stored
    } cases[] = {
        {frame("MSH|a|b\r"), false, "ERROR", "MSH|a|b"},                          // fewer than ten fields
        {frame("ABC|1|2|3|4|5|6|7|8|999|x"), false, "999", ""},                  // no MSH segment
        {"\x0b" + msh("777") + "\rPID|1\r", true, "777", msh("777") + "\rPID|1"},  // closed before 0x1C
    };
    Hl7Listener l;
    for (const auto& c : cases) {
        EXPECT_TRUE(isAnswer(talk(l.port, c.bytes, c.endSending), false, c.controlId)) << c.controlId;
        EXPECT_EQ(l.stored(std::string(c.controlId) + ".", "/rejected"), c.stored) << c.controlId;
    }
    EXPECT_EQ(listDir(l.hl7), (std::vector<std::string>{"rejected"}));
    EXPECT_EQ(listDir(l.hl7 + "/rejected").size(), 2u);

    // The HL7 cache may be the outbound directory: inbound messages never go there.
    TempDir tmp;
    ListenerProcess noInbound(tmp.path(), {"", false, "", tmp.file("cache")});
    EXPECT_TRUE(isAnswer(talk(noInbound.port(), frame(msh("321") + "\r")), false, "321"));
    EXPECT_EQ(listDir(tmp.path()), (std::vector<std::string>{"APIport.txt", "cache"}));
    EXPECT_TRUE(listDir(tmp.file("cache")).empty());

    // A full disk: the message that does not fit is refused and leaves nothing.
    Hl7Listener full(4096);
    EXPECT_TRUE(isAnswer(talk(full.port, frame(msh("LARGE") + "\r" + std::string(8990, 'x'))), false, "LARGE"));
    EXPECT_TRUE(isAnswer(talk(full.port, frame(msh("SMALL") + "\r")), true, "SMALL"));
    EXPECT_EQ(full.stored("SMALL."), msh("SMALL"));
    EXPECT_EQ(listDir(full.hl7).size() + listDir(full.hl7 + "/rejected").size(), 2u);  // SMALL's, "rejected"
}

// Hostile control IDs stay inside the directory and out of the framing;
// garbage of any shape never stops the listener.
TEST(Mllp, HostileControlIdsAndGarbage) {
    Hl7Listener l;
    const std::vector<std::string> ids = {"../../escape", "..", ".", "x'y\"z;$(touch PWNED)", "sp ace\\tab\t*?", "",
                                          std::string(300, 'z'), "in\x1cject", "\x0b" "cr\rlf\n\x01" "del\x7f\xc3\xa9"};
    for (const std::string& id : ids) {
        std::string echo;  // echoed without control bytes
        std::copy_if(id.begin(), id.end(), std::back_inserter(echo),
                     [](char c) { return static_cast<unsigned char>(c) >= 0x20 && c != 0x7f; });
        EXPECT_TRUE(isAnswer(talk(l.port, frame(msh(id) + "\r")), true, echo)) << id;
    }
    std::vector<std::string> names = listDir(l.hl7);
    EXPECT_EQ(names.size(), ids.size());
    for (const std::string& name : names) EXPECT_NE(name[0], '.') << name;
    EXPECT_EQ(listDir(l.tmp.path()), (std::vector<std::string>{"APIport.txt", "HL7"}));
    EXPECT_TRUE(listDir(l.tmp.path() + "/..", "escape").empty());

    std::mt19937 rng(20240611);
    for (int round = 0; round < 60; round++) {
        std::string bytes(rng() % (round < 30 ? 200 : 40000), '\0');
        for (char& c : bytes) c = static_cast<char>(rng() % 256);
        // A frame of arbitrary content, zero bytes included, is answered.
        std::replace(bytes.begin(), bytes.end(), '\x1c', 'x');
        std::string answer = talk(l.port, frame((round % 2 ? "" : "MSH|") + bytes), true);
        EXPECT_EQ(answer.compare(0, 28, "\x0bMSH|^~\\&|PDF||GE|ViewPoint|"), 0) << round;
        EXPECT_EQ(answer.substr(answer.size() - 3), "\x1c\r\n") << round;
    }
    EXPECT_TRUE(isAnswer(talk(l.port, frame(msh("after") + "\r")), true, "after"));
    EXPECT_EQ(talk(l.port, PING_REQUEST), "success");
}

TEST(ListenerLoad, VanishingClientsTheConnectionLimitAndAShortageOfDescriptorsLeaveItAnswering) {
    TempDir tmp;
    ListenerProcess l(tmp.path());
    // Reset mid-document, or gone half-way through a frame.
    for (int i = 0; i < 20; i++) {
        int fd = connectTo(l.port());
        linger reset{i % 2, 0};
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &reset, sizeof reset);
        sendAll(fd, i % 2 ? R"({"request_type": "sharing", "x": ")" : "\x0bMSH|^~\\&|half");
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

    // Clients arriving during a shortage are answered once descriptors are back.
    std::vector<int> during;
    ASSERT_TRUE(l.shortOfDescriptors(true));
    for (int i = 0; i < 3; i++) {
        during.push_back(connectTo(l.port(), "127.0.0.1", 10));
        sendAll(during.back(), PING_REQUEST);
    }
    usleep(1000 * 1000);
    ASSERT_TRUE(l.shortOfDescriptors(false));
    for (int fd : during) EXPECT_EQ(readAll(fd), "success");
    EXPECT_EQ(talk(l.port(), PING_REQUEST, false, "127.0.0.1", 10), "success");
}

TEST_F(ListenerService, SlowClientsAndASilentServiceHoldNeitherPingNorMllp) {
    svc.setFault(LocalService::Fault::Silent);
    // Twenty clients that send nothing, or dribble a sharing document or a
    // frame that never ends, and three requests for the silent service.
    const std::string starts[] = {"", R"({"request_type": "sharing", "notes": ")", "\x0bMSH|^~\\&|A|B"};
    std::vector<int> slow;
    for (int i = 0; i < 23; i++) {
        slow.push_back(connectTo(port, "127.0.0.1", 5));
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
    for (std::string id : {"R1", "R2", "R3"}) {
        EXPECT_EQ(talk(port, PING_REQUEST, false, "127.0.0.1", 5), "success") << id;
        EXPECT_TRUE(isAnswer(talk(port, frame(msh(id) + "\r"), false, "127.0.0.1", 5), true, id));
    }
    done = true;
    dribble.join();
    for (int fd : slow) close(fd);
}
