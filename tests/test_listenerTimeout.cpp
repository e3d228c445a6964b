// Clients that stall are cut off after a minute, still answered where an
// answer is due, while the listener keeps answering others.
#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <iterator>
#include <thread>

#include "listenerClient.h"
#include "testUtil.h"

namespace {

struct Stalled {
    std::string answer;
    double seconds = 0;
    bool timedOut = true;  // our own time-out, not the listener, ended it
};

Stalled stall(int port, const std::string& bytes) {
    Stalled s;
    int fd = connectTo(port, "127.0.0.1", 120);
    if (fd < 0 || !sendAll(fd, bytes)) return s;
    auto start = std::chrono::steady_clock::now();
    s.answer = readAll(fd, &s.timedOut);
    s.seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    return s;
}

}  // namespace

TEST(ListenerTimeout, StalledClientsAreCutOffAfterAMinute) {
    TempDir tmp, logs;
    ListenerOptions options;
    options.hl7Dir = tmp.file("HL7");
    options.errorLog = logs.file("stderr.log");
    ListenerProcess l(tmp.path(), options);
    Stalled silent, halfFrame, halfSharing;
    std::thread stalls[] = {
        std::thread([&] { silent = stall(l.port(), ""); }),
        std::thread([&] { halfFrame = stall(l.port(), "\x0bMSH|^~\\&|A|B|C|D|20240101||ADT^A01|55|P|2.4\r"); }),
        std::thread([&] { halfSharing = stall(l.port(), R"({"request_type": "sharing", "notes": "un)"); })};
    sleep(2);
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");
    for (std::thread& t : stalls) t.join();

    for (const Stalled* s : {&silent, &halfFrame, &halfSharing}) {
        EXPECT_FALSE(s->timedOut);
        EXPECT_GE(s->seconds, 59.0);  // not before the minute is up
    }
    EXPECT_EQ(silent.answer, "");
    // A frame without its end byte is refused and kept among the rejected.
    EXPECT_EQ(halfFrame.answer.compare(0, 28, "\x0bMSH|^~\\&|PDF||GE|ViewPoint|"), 0) << halfFrame.answer;
    EXPECT_NE(halfFrame.answer.find("|NACK^T01^NACK|"), std::string::npos) << halfFrame.answer;
    EXPECT_NE(halfFrame.answer.find("\r\nMSA|AE|55||||\x1c\r\n"), std::string::npos) << halfFrame.answer;
    std::string rejected = options.hl7Dir + "/rejected";
    std::filesystem::directory_iterator kept(rejected);
    EXPECT_EQ(std::distance(kept, {}), 1);
    EXPECT_EQ(slurp(std::filesystem::directory_iterator(rejected)->path()), "MSH|^~\\&|A|B|C|D|20240101||ADT^A01|55|P|2.4");
    EXPECT_EQ(halfSharing.answer, "error");
    // Only the client that sent nothing is a failed receive.
    std::string log = slurp(options.errorLog);
    size_t at = log.find("Socket receive failed: ");
    EXPECT_NE(at, std::string::npos) << log;
    EXPECT_EQ(log.find("Socket receive failed", at + 1), std::string::npos) << log;
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");
}
