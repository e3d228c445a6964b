// Clients that stall are cut off after a minute, still answered where an
// answer is due, while the listener keeps answering others.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "listenerClient.h"
#include "testUtil.h"

struct Stalled {
    std::string answer;
    double seconds = 0;
    bool timedOut = true;  // our own time-out, not the listener, ended it
};

TEST(ListenerTimeout, StalledClientsAreCutOffAfterAMinute) {
    TempDir tmp, logs;
    const std::string hl7 = tmp.file("HL7"), log = logs.file("stderr.log");
    ListenerProcess l(tmp.path(), {hl7, false, "", "", log});
    const std::string frame = "\x0bMSH|^~\\&|A|B|C|D|20240101||ADT^A01|55|P|2.4\r";
    Stalled s[3];  // silent, half a frame, half a sharing document
    std::thread stalls[3];
    for (int i = 0; i < 3; i++)
        stalls[i] = std::thread([&, i] {
            int fd = connectTo(l.port(), "127.0.0.1", 120);
            if (fd < 0 || !sendAll(fd, i == 0 ? "" : i == 1 ? frame : R"({"request_type": "sharing", "notes": "un)")) return;
            auto start = std::chrono::steady_clock::now();
            s[i].answer = readAll(fd, &s[i].timedOut);
            s[i].seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        });
    sleep(2);
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");
    for (std::thread& t : stalls) t.join();
    for (const Stalled& one : s) {
        EXPECT_FALSE(one.timedOut);
        EXPECT_GE(one.seconds, 59.0);  // not before the minute is up
    }
    EXPECT_EQ(s[0].answer, "");
    // A frame without its end byte is refused and kept among the rejected.
    EXPECT_EQ(s[1].answer.compare(0, 28, "\x0bMSH|^~\\&|PDF||GE|ViewPoint|"), 0) << s[1].answer;
    EXPECT_NE(s[1].answer.find("|NACK^T01^NACK|"), std::string::npos) << s[1].answer;
    EXPECT_NE(s[1].answer.find("\r\nMSA|AE|55||||\x1c\r\n"), std::string::npos) << s[1].answer;
    std::filesystem::directory_iterator kept(hl7 + "/rejected"), none;
    ASSERT_NE(kept, none);
    EXPECT_EQ(slurp(kept->path()), frame.substr(1, frame.size() - 2));
    EXPECT_EQ(++kept, none);
    EXPECT_EQ(s[2].answer, "error");
    // Only the client that sent nothing is a failed receive.
    std::string errors = slurp(log);
    size_t at = errors.find("Socket receive failed: ");
    EXPECT_NE(at, std::string::npos) << errors;
    EXPECT_EQ(errors.find("Socket receive failed", at + 1), std::string::npos) << errors;
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");
}
