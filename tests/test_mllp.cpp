// MLLP-framed HL7 on the local listener: acknowledgements byte for byte,
// storage in the inbound HL7 directory, hostile control IDs and garbage.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <random>
#include <regex>
#include <set>
#include <thread>
#include <vector>

#include "listenerClient.h"
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
    std::vector<std::string> names;
    std::error_code missing;
    for (const auto& entry : std::filesystem::directory_iterator(dir, missing))
        if (entry.path().filename().string().rfind(prefix, 0) == 0) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

// A listener storing into a fresh inbound HL7 directory.
struct Hl7Listener {
    TempDir tmp;
    std::string hl7 = tmp.file("HL7");
    ListenerProcess listener;
    int port;

    explicit Hl7Listener(long fileSizeLimit = 0) : listener(tmp.path(), options(fileSizeLimit)), port(listener.port()) {}
    ListenerOptions options(long fileSizeLimit) const {
        ListenerOptions o(hl7);
        o.fileSizeLimit = fileSizeLimit;
        return o;
    }
    // The one file stored for the control ID prefix, "" when not exactly one.
    std::string stored(const std::string& prefix, const std::string& folder = "") {
        std::string dir = folder.empty() ? hl7 : hl7 + "/" + folder;
        std::vector<std::string> names = listDir(dir, prefix);
        return names.size() == 1 ? slurp(dir + "/" + names[0]) : "";
    }
};

}  // namespace

TEST(Mllp, AcceptedMessagesAreAcknowledgedAndStored) {
    Hl7Listener l;
    std::string file = l.tmp.file("msg.hl7");
    spit(file, msh("123") + "\nPID|1||4711||Doe^Jane\nOBX|1|TX|||All fine\n");
    RunResult r = runProgram({"/usr/bin/mllp_send", "--loose", "-f", file, "-p", std::to_string(l.port), "127.0.0.1"});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_FALSE(r.out.empty());
    EXPECT_TRUE(isAnswer(r.out.substr(0, r.out.size() - 1), true, "123")) << r.out;
    std::vector<std::string> names = listDir(l.hl7, "123.");
    ASSERT_EQ(names.size(), 1u);
    EXPECT_TRUE(std::regex_match(names[0], std::regex(R"(123\.\d{1,3}\.hl7)")));
    EXPECT_EQ(l.stored("123."), msh("123") + "\rPID|1||4711||Doe^Jane\rOBX|1|TX|||All fine");

    // A large frame arriving in several segments.
    std::string message = msh("BIG1");
    for (int i = 0; i < 3000; i++) message += "\rOBX|" + std::to_string(i) + "|TX|||line of report text";
    int fd = connectTo(l.port);
    ASSERT_GE(fd, 0);
    std::string bytes = frame(message + "\r");
    ASSERT_TRUE(sendAll(fd, bytes.substr(0, 10)));
    usleep(200 * 1000);
    ASSERT_TRUE(sendAll(fd, bytes.substr(10)));
    EXPECT_TRUE(isAnswer(readAll(fd), true, "BIG1"));
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
}

TEST(Mllp, MessagesSharingAControlIdAreAllKept) {
    Hl7Listener l;
    const int clients = 3, each = 400;
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; c++)
        threads.emplace_back([&, c] {
            for (int i = 0; i < each; i++) {
                std::string answer = talk(l.port, frame(msh("SAME") + "\rPID|" + std::to_string(c * each + i) + "\r"));
                if (answer.find("\nMSA|AA|SAME||||\x1c") == std::string::npos) ++refused;
            }
        });
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(refused, 0);
    std::vector<std::string> names = listDir(l.hl7);
    ASSERT_EQ(names.size(), static_cast<size_t>(clients * each));
    std::set<std::string> contents;
    for (const std::string& name : names) {
        EXPECT_TRUE(std::regex_match(name, std::regex(R"(SAME\.\d+\.hl7)"))) << name;
        contents.insert(slurp(l.hl7 + "/" + name));
    }
    EXPECT_EQ(contents.size(), names.size());
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
        EXPECT_EQ(l.stored(std::string(c.controlId) + ".", "rejected"), c.stored) << c.controlId;
    }
    EXPECT_EQ(listDir(l.hl7), (std::vector<std::string>{"rejected"}));
    EXPECT_EQ(listDir(l.hl7 + "/rejected").size(), 2u);

    // The HL7 cache may be the outbound directory: inbound messages never go there.
    TempDir tmp;
    ListenerOptions options;
    options.hl7Cache = tmp.file("cache");
    ListenerProcess noInbound(tmp.path(), options);
    EXPECT_TRUE(isAnswer(talk(noInbound.port(), frame(msh("321") + "\r")), false, "321"));
    EXPECT_EQ(listDir(tmp.path()), (std::vector<std::string>{"APIport.txt", "cache"}));
    EXPECT_TRUE(listDir(options.hl7Cache).empty());

    // A full disk: the message that does not fit is refused and leaves nothing.
    Hl7Listener full(4096);
    EXPECT_TRUE(isAnswer(talk(full.port, frame(msh("LARGE") + "\r" + std::string(8990, 'x'))), false, "LARGE"));
    EXPECT_TRUE(isAnswer(talk(full.port, frame(msh("SMALL") + "\r")), true, "SMALL"));
    EXPECT_EQ(full.stored("SMALL."), msh("SMALL"));
    EXPECT_TRUE(listDir(full.hl7, "LARGE").empty());
    EXPECT_TRUE(listDir(full.hl7, ".").empty());
}

TEST(Mllp, HostileControlIdsStayInsideTheDirectoryAndOutOfTheFraming) {
    Hl7Listener l;
    const std::vector<std::string> ids = {"../../escape", "a/b/c", "..", ".", "/etc/passwd", "$(touch PWNED)",
                                          "`touch PWNED`", "x'y\"z;touch PWNED", "sp ace\\tab\t*?", "",
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
}

TEST(Mllp, GarbageOfAnyShapeNeverStopsIt) {
    Hl7Listener l;
    std::mt19937 rng(20240611);
    for (int round = 0; round < 120; round++) {
        std::string bytes(rng() % (round < 60 ? 200 : 40000), '\0');
        for (char& c : bytes) c = static_cast<char>(rng() % 256);
        if (round % 2 == 0) {
            // A frame of arbitrary content, zero bytes included, is answered.
            std::replace(bytes.begin(), bytes.end(), '\x1c', 'x');
            if (round % 4 == 0) bytes = "MSH|" + bytes;
            std::string answer = talk(l.port, frame(bytes), true);
            EXPECT_EQ(answer.compare(0, 28, "\x0bMSH|^~\\&|PDF||GE|ViewPoint|"), 0) << round;
            EXPECT_EQ(answer.substr(answer.size() - 3), "\x1c\r\n") << round;
        } else {
            if (!bytes.empty() && bytes[0] == '\x0b') bytes[0] = '{';
            talk(l.port, bytes, true);
        }
    }
    EXPECT_TRUE(isAnswer(talk(l.port, frame(msh("after") + "\r")), true, "after"));
    EXPECT_EQ(talk(l.port, PING_REQUEST), "success");
}
