// Clients that stall are cut off after a minute, still answered where an
// answer is due, while the listener keeps answering others.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <thread>

#include "listenerClient.h"
#include "testUtil.h"

TEST(ListenerTimeout, StalledClientsAreCutOffAfterAMinute) {
    TempDir tmp, logs;
    const std::string hl7 = tmp.file("HL7"), log = logs.file("stderr.log");
    ListenerProcess l(tmp.path(), {hl7, false, "", "", log});
    const std::string frame = "\x0bMSH|^~\\&|A|B|C|D|20240101||ADT^A01|55|P|2.4\r";
    // Silent, half a frame, half a sharing document; timedOut: our own
    // time-out, not the listener, ended it.
    const std::string sent[3] = {"", frame, R"({"request_type": "sharing", "notes": "un)"};
    std::string answer[3];
    bool timedOut[3] = {true, true, true};
    std::thread stalls[3];
    for (int i = 0; i < 3; i++)
        stalls[i] = std::thread([&, i] {
            int fd = connectTo(l.port(), "127.0.0.1", 120);
            if (fd < 0 || !sendAll(fd, sent[i])) return;
            auto start = std::chrono::steady_clock::now();
            answer[i] = readAll(fd, &timedOut[i]);
            // Not before the minute is up.
            EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(59)) << i;
        });
    sleep(2);
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");
    for (std::thread& t : stalls) t.join();
    EXPECT_EQ(timedOut[0] + timedOut[1] + timedOut[2], 0);
    EXPECT_EQ(answer[0], "");
    // A frame without its end byte is refused and kept among the rejected.
    EXPECT_NE(answer[1].find("|NACK^T01^NACK|"), std::string::npos) << answer[1];
    EXPECT_NE(answer[1].find("\r\nMSA|AE|55||||\x1c\r\n"), std::string::npos) << answer[1];
    std::filesystem::directory_iterator kept(hl7 + "/rejected"), none;
    ASSERT_NE(kept, none);
    EXPECT_EQ(slurp(kept->path()), frame.substr(1, frame.size() - 2));
    EXPECT_EQ(answer[2], "error");
    // Only the client that sent nothing is a failed receive.
    std::string errors = slurp(log);
    size_t at = errors.find("Socket receive failed: ");
    EXPECT_NE(at, std::string::npos) << errors;
    EXPECT_EQ(errors.find("Socket receive failed", at + 1), std::string::npos) << errors;
    EXPECT_EQ(talk(l.port(), PING_REQUEST), "success");
}
