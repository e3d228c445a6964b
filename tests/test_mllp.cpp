// MLLP-framed HL7 on the local listener: acknowledgements byte for byte,
// storage in the inbound HL7 directory, hostile control IDs and garbage.
#include <arpa/inet.h>
#include <dirent.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <regex>
#include <vector>

#include "listener.h"
#include "mllp.h"
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
    timeval tv{90, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    return fd;
}

std::string readAll(int fd) {
    std::string out;
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof buf, 0)) > 0) out.append(buf, static_cast<size_t>(n));
    close(fd);
    return out;
}

// Sends the bytes (optionally ending the sending side) and reads the answer.
std::string talk(int port, const std::string& bytes, bool endSending = false) {
    int fd = connectTo(port);
    if (fd < 0) return "<refused>";
    send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (endSending) shutdown(fd, SHUT_WR);
    return readAll(fd);
}

std::string frame(const std::string& message) { return "\x0b" + message + "\x1c\r"; }

std::string msh(const std::string& controlId) {
    return "MSH|^~\\&|REPORTS|CLINIC|HUB|BOX|20240101120000||ORU^R01|" + controlId + "|P|2.4";
}

// The whole acknowledgement, with the same 14-digit timestamp twice.
bool isAnswer(const std::string& answer, bool accepted, const std::string& controlId) {
    std::string expectedTail = std::string(accepted ? "MSA|AA|" : "MSA|AE|") + controlId + "||||\x1c\r\n";
    std::string head = "\x0bMSH|^~\\&|PDF||GE|ViewPoint|";
    if (answer.compare(0, head.size(), head) != 0) return false;
    if (answer.size() < expectedTail.size() ||
        answer.compare(answer.size() - expectedTail.size(), expectedTail.size(), expectedTail) != 0)
        return false;
    std::string middle = answer.substr(head.size(), answer.size() - head.size() - expectedTail.size());
    std::regex shape(accepted ? R"((\d{14})\|ACK\^T01\^ACK\|\1\|P\|2\.4\r\n)"
                              : R"((\d{14})\|NACK\^T01\^NACK\|\1\|P\|2\.4\r\n)");
    return std::regex_match(middle, shape);
}

std::vector<std::string> listDir(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (strcmp(e->d_name, ".") && strcmp(e->d_name, "..")) names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

// The stored files whose names start with the prefix.
std::vector<std::string> storedAs(const std::string& dir, const std::string& prefix) {
    std::vector<std::string> found;
    for (const std::string& n : listDir(dir))
        if (n.compare(0, prefix.size(), prefix) == 0) found.push_back(n);
    return found;
}

// A listener in a child process of its own (the accept lock is process-wide),
// storing into a fresh HL7 directory; killed with the object.
struct Hl7Listener {
    TempDir tmp;
    std::string hl7 = tmp.file("HL7");
    int port = freePort();
    pid_t pid = -1;
    Hl7Listener() {
        mkdir(hl7.c_str(), 0775);
        pid = fork();
        if (pid == 0) {
            snprintf(dataDir, sizeof dataDir, "%s", tmp.path().c_str());
            snprintf(HL7_inputDir, sizeof HL7_inputDir, "%s", hl7.c_str());
            PORT = port;
            REMOTE = false;
            NumTcpThreads = 3;
            if (!startListener()) _exit(3);
            for (;;) pause();
        }
        EXPECT_TRUE(waitUntil([&] { return talk(port, "{}") == "error"; }, 5000));
    }
    ~Hl7Listener() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
};

}  // namespace

TEST(Mllp, RealClientIsAcknowledgedAndMessageStored) {
    Hl7Listener l;
    std::string file = l.tmp.file("msg.hl7");
    spit(file, msh("123") + "\nPID|1||4711||Doe^Jane\nOBX|1|TX|||All fine\n");
    RunResult r = runProgram({"/usr/bin/mllp_send", "--loose", "-f", file, "-p", std::to_string(l.port), "127.0.0.1"});
    ASSERT_EQ(r.status, 0) << r.err;
    ASSERT_FALSE(r.out.empty());
    EXPECT_TRUE(isAnswer(r.out.substr(0, r.out.size() - 1), true, "123")) << r.out;

    std::vector<std::string> stored = storedAs(l.hl7, "123.");
    ASSERT_EQ(stored.size(), 1u);
    EXPECT_TRUE(std::regex_match(stored[0], std::regex(R"(123\.\d{1,3}\.hl7)")));
    EXPECT_EQ(slurp(l.hl7 + "/" + stored[0]), msh("123") + "\rPID|1||4711||Doe^Jane\rOBX|1|TX|||All fine");
}

TEST(Mllp, RejectionsCarryTheirControlId) {
    Hl7Listener l;
    std::string shortAnswer = talk(l.port, frame("MSH|a|b\r"));
    EXPECT_TRUE(isAnswer(shortAnswer, false, "ERROR")) << shortAnswer;
    ASSERT_EQ(storedAs(l.hl7, "ERROR.").size(), 1u);

    std::string noMsh = talk(l.port, frame("ABC|1|2|3|4|5|6|7|8|999|x"));
    EXPECT_TRUE(isAnswer(noMsh, false, "999")) << noMsh;
    EXPECT_TRUE(storedAs(l.hl7, "999.").empty());

    // The sender stops before the end byte: rejected, yet kept.
    std::string cut = talk(l.port, "\x0b" + msh("777") + "\rPID|1\r", true);
    EXPECT_TRUE(isAnswer(cut, false, "777")) << cut;
    std::vector<std::string> kept = storedAs(l.hl7, "777.");
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(slurp(l.hl7 + "/" + kept[0]), msh("777") + "\rPID|1");
}

TEST(Mllp, FrameOverManySegmentsIsAccepted) {
    Hl7Listener l;
    std::string message = msh("BIG1") + "\r";
    for (int i = 0; i < 3000; i++) message += "OBX|" + std::to_string(i) + "|TX|||line of report text\r";
    int fd = connectTo(l.port);
    ASSERT_GE(fd, 0);
    std::string bytes = frame(message);
    send(fd, bytes.data(), 10, MSG_NOSIGNAL);
    usleep(200 * 1000);
    send(fd, bytes.data() + 10, bytes.size() - 10, MSG_NOSIGNAL);
    EXPECT_TRUE(isAnswer(readAll(fd), true, "BIG1"));
    std::vector<std::string> stored = storedAs(l.hl7, "BIG1.");
    ASSERT_EQ(stored.size(), 1u);
    std::string expected = message;
    expected.pop_back();
    EXPECT_EQ(slurp(l.hl7 + "/" + stored[0]), expected);
}

TEST(Mllp, HostileControlIdsStayInsideTheDirectory) {
    Hl7Listener l;
    const std::vector<std::string> ids = {"../../escape", "a/b/c", "..", ".", "/etc/passwd",
                                          "$(touch PWNED)", "`touch PWNED`", "x'y\"z;touch PWNED",
                                          "sp ace\\tab\t*?", ""};
    for (const std::string& id : ids) {
        std::string answer = talk(l.port, frame(msh(id) + "\r"));
        EXPECT_TRUE(isAnswer(answer, true, id)) << id;
    }
    EXPECT_EQ(listDir(l.hl7).size(), ids.size());
    for (const std::string& name : listDir(l.hl7)) EXPECT_NE(name[0], '.') << name;
    std::vector<std::string> top = listDir(l.tmp.path());
    std::sort(top.begin(), top.end());
    EXPECT_EQ(top, (std::vector<std::string>{"APIport.txt", "HL7"}));
    std::string above = l.tmp.path().substr(0, l.tmp.path().rfind('/'));
    EXPECT_TRUE(storedAs(above, "escape").empty());

    char name[128];
    EXPECT_STREQ(hl7FileName("../../x", 7, name, sizeof name), "_._.._x.7.hl7");
    EXPECT_STREQ(hl7FileName("", 999, name, sizeof name), "NOID.999.hl7");
    EXPECT_STREQ(hl7FileName("ACC-1_2.3", 0, name, sizeof name), "ACC-1_2.3.0.hl7");
    EXPECT_EQ(strlen(hl7FileName(std::string(500, 'z').c_str(), 12, name, sizeof name)), 64u + 7u);
}

TEST(Mllp, GarbageOfAnyShapeNeverStopsIt) {
    Hl7Listener l;
    std::mt19937 rng(20240611);
    for (int round = 0; round < 120; round++) {
        size_t length = rng() % (round < 60 ? 200 : 40000);
        std::string bytes(length, '\0');
        for (char& c : bytes) c = static_cast<char>(rng() % 256);
        if (round % 2 == 0) {
            // A frame with arbitrary content, zero bytes included.
            for (char& c : bytes)
                if (c == '\x1c') c = 'x';
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
    EXPECT_EQ(talk(l.port, R"({"request_type": "ping"})"), "success");
}
