// The command catalogue over loopback TLS: what goes on the wire and what the replies become.
#include <gtest/gtest.h>

#include "localServiceHarness.h"

namespace {

using Commands = ServiceTest;
using S = SendFile;

TEST_F(Commands, LinesRepliesTextLimitsAndNothingQueued) {
    int status = 1;
    svc.setReply("heartbeat", "  flags=1\n");
    EXPECT_EQ(std::string(S::sendHeartbeatCommand(dir(), status, "v=2&x=y", false, false)), "flags=1");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(lastCommand(), "heartbeat|v=2&x=y");
    // Texts cut to their limits; "|" and "~" travel unescaped, the line is still one command.
    S::sendEcho(dir(), status, "a", "b", false, false);
    EXPECT_EQ(lastCommand(), "echo|a|b|box7|1");
    S::sendLogMsg(dir(), status, std::string(5000, 'x').c_str(), false, false);
    EXPECT_EQ(lastCommand(), "box7|LOG|msg|" + std::string(2048, 'x'));
    S::sendDdicom(dir(), status, 12, std::string(400, 'y').c_str(), false, false);
    EXPECT_EQ(lastCommand(), "box7|dDicom|id|12-" + std::string(250, 'y'));
    S::sendDdicom(dir(), status, 13, "", false, false);
    EXPECT_EQ(lastCommand(), "box7|dDicom|id|13");
    S::getCropInfo(dir(), status, "a|b", "c~d", false, false);
    EXPECT_EQ(lastCommand(), "box7|CROP|a|b|c~d");
    for (auto [reply, moved] : {std::pair{"17", 17}, {"", -1}}) {
        svc.setReply("MOVE", reply);
        EXPECT_EQ(S::executeMove(dir(), "A", "B", "q=1", false, false), moved);
    }
    EXPECT_EQ(lastCommand(), "box7|MOVE|B/A|q=1");
    for (auto [reply, repeat] : {std::pair{"yes", true}, {"yes!", false}, {"", false}}) {
        svc.setReply("REPEAT", reply);
        EXPECT_EQ(S::isRepeat(dir(), status, "1.2.3", false, false), repeat) << reply;
    }
    EXPECT_EQ(lastCommand(), "box7|REPEAT|uid|1.2.3");

    // Nothing queued maps to empty.
    for (auto [reply, expected] : {std::pair{"0|NONE   \n", ""}, {"2|study|uri", "2|study|uri"}}) {
        svc.setReply("qDicom", reply);
        EXPECT_EQ(std::string(S::sendQdicom(dir(), status, "ROOM1", false, false)), expected);
        EXPECT_EQ(lastCommand(), "box7|qDicom|destination|ROOM1");
    }
    for (auto [reply, expected] : {std::pair{"0|title|NONE", ""}, {"1|title|x", "1|title|x"}}) {
        svc.setReply("qDicom1", reply);
        EXPECT_EQ(std::string(S::sendQdicom1(dir(), status, false, false)), expected);
        EXPECT_EQ(lastCommand(), "box7|qDicom1|deviceId|box7");
    }
}

TEST_F(Commands, MissingIdentityOrDisplayNameSendsNothing) {
    spit(data.file("displayName.txt"), " \n");
    int status = 0;
    EXPECT_EQ(std::string(S::getStudiesSince(dir(), "20240101", false, false)), "error");
    EXPECT_EQ(std::string(S::sendQdicom(dir(), status, "X", false, false)), "error");
    EXPECT_EQ(S::executeMove(dir(), "a", "b", "c", false, false), -1);
    EXPECT_EQ(S::getNumRetrieves(dir(), "X", false, false), -1);
    EXPECT_FALSE(S::isRepeat(dir(), status, "1", false, false));
    EXPECT_EQ(std::string(S::getDicom(dir(), "a/b", false, false)), "error");
    S::sendLogMsg(dir(), status, "still sent", false, false);
    EXPECT_EQ(svc.commands(), std::vector<std::string>{"box7|LOG|msg|still sent"});

    // A state file grown out of all measure is read only as far as its kind allows.
    spit(data.file("hostName.txt"), std::string(2 << 20, 'h'));
    S::sendLogMsg(dir(), status, "long id", false, false);
    EXPECT_EQ(lastCommand(), std::string(Limits::IDENTITY_MOST, 'h') + "|LOG|msg|long id");

    spit(data.file("hostName.txt"), "  \n");
    EXPECT_EQ(std::string(S::sendInitCommand(dir(), status, nullptr, false, false)), "");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(svc.commands().size(), 2u);
}

TEST_F(Commands, FailureCountWrittenBack) {
    // Added to, sent and cleared; a missing file counts as 0; kept, added to, when not sent.
    spit(data.file("ErrorFile.txt"), "3\n");
    EXPECT_EQ(S::sendFailureCommand(dir(), false, false, 1), 0);
    EXPECT_EQ(lastCommand(), "failure|fqdn=box7&numFailedDicomAttempts=4");
    EXPECT_EQ(slurp(data.file("ErrorFile.txt")), "0");
    remove(data.file("ErrorFile.txt").c_str());
    EXPECT_EQ(S::sendFailureCommand(dir(), false, true, 0), 0);
    EXPECT_EQ(lastCommand(), "failure|fqdn=box7&numFailedDicomAttempts=0");
    spit(data.file("ErrorFile.txt"), "3");
    svc.stop();
    EXPECT_EQ(S::sendFailureCommand(dir(), false, true, 1), 1);
    EXPECT_EQ(slurp(data.file("ErrorFile.txt")), "4");
}

TEST_F(Commands, ApiRetriesOnceAfterServerListRefresh) {
    svc.queueReply("API.share", "");
    svc.setReply("API.share", "{\"ok\":1}");
    std::string json = "{\"request_type\": \"share\", \"x\": [1,2]}";
    EXPECT_EQ(std::string(S::sendAPICommand(dir(), json.c_str(), false, true)), "{\"ok\":1}");
    std::string first = "API/box7/Clinic One/1|share|" + json;
    EXPECT_EQ(svc.commands(), (std::vector<std::string>{first, "ips/box7", first}));
    // Longer than the shared ring takes: whole, into the caller's arena.
    std::string wide(2 * Limits::RING_TEXT_MOST, 'w');
    svc.setReply("API.share", wide);
    Memory arena;
    EXPECT_EQ(std::string(S::sendAPICommand(dir(), json.c_str(), false, true, &arena)), wide);

    svc.setReply("API", "");
    EXPECT_EQ(std::string(S::sendAPICommand(dir(), "{\"request_type\":\"p\"}", false, true)), "error");
    EXPECT_EQ(svc.commands().size(), 7u);
    // No request type, or no id: nothing is sent.
    EXPECT_EQ(std::string(S::sendAPICommand(dir(), "{\"type\":\"x\"}", false, true)), "error");
    spit(data.file("hostName.txt"), "");
    EXPECT_EQ(std::string(S::sendAPICommand(dir(), json.c_str(), false, true)), "error");
    EXPECT_EQ(svc.commands().size(), 7u);
}

}  // namespace
