// The command catalogue against the local service over loopback TLS: what
// goes on the wire and what the replies become.
#include <gtest/gtest.h>

#include <string>

#include "localServiceHarness.h"
#include "sendFile.h"
#include "testUtil.h"

namespace {

class Commands : public ::testing::Test {
protected:
    void SetUp() override { svc.prepareAgentDataDir(data.path(), "box7", "Clinic One"); }
    const char* dir() const { return data.path().c_str(); }
    std::string last() const {
        auto c = svc.commands();
        return c.empty() ? "" : c.back();
    }

    TempDir data;
    LocalService svc;
};

TEST_F(Commands, RegistrationAndEcho) {
    int status = 1;
    EXPECT_EQ(std::string(SendFile::sendInitCommand(dir(), status, nullptr, false, false)),
              "display_name=Clinic One");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(last(), "init|fqdn=box7");

    svc.setReply("heartbeat", "  flags=1\n");
    EXPECT_EQ(std::string(SendFile::sendHeartbeatCommand(dir(), status, "v=2&x=y", false, false)),
              "flags=1");
    EXPECT_EQ(last(), "heartbeat|v=2&x=y");

    SendFile::sendEcho(dir(), status, "a", "b", false, false);
    EXPECT_EQ(last(), "echo|a|b|box7|1");

    // Without an id there is nothing to register as.
    spit(data.file("hostName.txt"), "  \n");
    size_t before = svc.commands().size();
    status = 0;
    EXPECT_EQ(std::string(SendFile::sendInitCommand(dir(), status, nullptr, false, false)), "");
    EXPECT_EQ(status, 1);
    EXPECT_EQ(svc.commands().size(), before);
}

TEST_F(Commands, TextLimits) {
    int status = 1;
    SendFile::sendLogMsg(dir(), status, std::string(5000, 'x').c_str(), false, false);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(last(), "box7|LOG|msg|" + std::string(2048, 'x'));

    SendFile::sendDdicom(dir(), status, 12, std::string(400, 'y').c_str(), false, false);
    EXPECT_EQ(last(), "box7|dDicom|id|12-" + std::string(250, 'y'));
    SendFile::sendDdicom(dir(), status, 13, "", false, false);
    EXPECT_EQ(last(), "box7|dDicom|id|13");

    // "|" and "~" travel unescaped; the line is still one command.
    SendFile::getCropInfo(dir(), status, "a|b", "c~d", false, false);
    EXPECT_EQ(last(), "box7|CROP|a|b|c~d");
}

TEST_F(Commands, NothingQueuedMapsToEmpty) {
    int status = 1;
    EXPECT_EQ(std::string(SendFile::sendQdicom(dir(), status, "ROOM1", false, false)), "");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(last(), "box7|qDicom|destination|ROOM1");
    svc.setReply("qDicom", "0|NONE   \n");
    EXPECT_EQ(std::string(SendFile::sendQdicom(dir(), status, "ROOM1", false, false)), "");
    svc.setReply("qDicom", "2|study|uri");
    EXPECT_EQ(std::string(SendFile::sendQdicom(dir(), status, "ROOM1", false, false)),
              "2|study|uri");

    EXPECT_EQ(std::string(SendFile::sendQdicom1(dir(), status, false, false)), "");
    EXPECT_EQ(last(), "box7|qDicom1|deviceId|box7");
    svc.setReply("qDicom1", "1|title|x");
    EXPECT_EQ(std::string(SendFile::sendQdicom1(dir(), status, false, false)), "1|title|x");
}

TEST_F(Commands, NumericAndYesReplies) {
    svc.setReply("MOVE", "17");
    EXPECT_EQ(SendFile::executeMove(dir(), "A", "B", "q=1", false, false), 17);
    EXPECT_EQ(last(), "box7|MOVE|B/A|q=1");
    svc.setReply("MOVE", "");
    EXPECT_EQ(SendFile::executeMove(dir(), "A", "B", "q=1", false, false), -1);

    int status = 1;
    EXPECT_FALSE(SendFile::isRepeat(dir(), status, "1.2.3", false, false));
    svc.setReply("REPEAT", "yes");
    EXPECT_TRUE(SendFile::isRepeat(dir(), status, "1.2.3", false, false));
    EXPECT_EQ(last(), "box7|REPEAT|uid|1.2.3");
    svc.setReply("REPEAT", "yes!");
    EXPECT_FALSE(SendFile::isRepeat(dir(), status, "1.2.3", false, false));
}

TEST_F(Commands, DisplayNameGating) {
    spit(data.file("displayName.txt"), " \n");
    int status = 0;
    EXPECT_EQ(std::string(SendFile::getStudiesSince(dir(), "20240101", false, false)), "error");
    EXPECT_EQ(std::string(SendFile::sendQdicom(dir(), status, "X", false, false)), "error");
    EXPECT_EQ(SendFile::executeMove(dir(), "a", "b", "c", false, false), -1);
    EXPECT_EQ(SendFile::getNumRetrieves(dir(), "X", false, false), -1);
    EXPECT_FALSE(SendFile::isRepeat(dir(), status, "1", false, false));
    EXPECT_EQ(std::string(SendFile::getDicom(dir(), "a/b", false, false)), "error");
    EXPECT_TRUE(svc.commands().empty());

    SendFile::sendLogMsg(dir(), status, "still sent", false, false);
    ASSERT_EQ(svc.commands().size(), 1u);
    EXPECT_EQ(last(), "box7|LOG|msg|still sent");
}

TEST_F(Commands, FailureCountWrittenBack) {
    spit(data.file("ErrorFile.txt"), "3\n");
    EXPECT_EQ(SendFile::sendFailureCommand(dir(), false, false, 1), 0);
    EXPECT_EQ(last(), "failure|fqdn=box7&numFailedDicomAttempts=4");
    EXPECT_EQ(slurp(data.file("ErrorFile.txt")), "0");

    // A missing file counts as 0.
    remove(data.file("ErrorFile.txt").c_str());
    EXPECT_EQ(SendFile::sendFailureCommand(dir(), false, true, 0), 0);
    EXPECT_EQ(last(), "failure|fqdn=box7&numFailedDicomAttempts=0");

    spit(data.file("ErrorFile.txt"), "3");
    svc.stop();
    EXPECT_EQ(SendFile::sendFailureCommand(dir(), false, true, 1), 1);
    EXPECT_EQ(slurp(data.file("ErrorFile.txt")), "4");
}

TEST_F(Commands, ApiRetriesAfterServerListRefresh) {
    svc.queueReply("API.share", "");
    svc.setReply("API.share", "{\"ok\":1}");
    std::string json = "{\"request_type\": \"share\", \"x\": [1,2]}";
    EXPECT_EQ(std::string(SendFile::sendAPICommand(dir(), json.c_str(), false, true)),
              "{\"ok\":1}");
    auto c = svc.commands();
    ASSERT_EQ(c.size(), 3u);
    EXPECT_EQ(c[0], "API/box7/Clinic One/1|share|" + json);
    EXPECT_EQ(c[1], "ips/box7");
    EXPECT_EQ(c[2], c[0]);

    // No request type, or no id: nothing is sent.
    EXPECT_EQ(std::string(SendFile::sendAPICommand(dir(), "{\"type\":\"x\"}", false, true)),
              "error");
    spit(data.file("hostName.txt"), "");
    EXPECT_EQ(std::string(SendFile::sendAPICommand(dir(), json.c_str(), false, true)), "error");
    EXPECT_EQ(svc.commands().size(), 3u);
}

TEST_F(Commands, ApiStillEmptyIsError) {
    svc.setReply("API", "");
    EXPECT_EQ(
        std::string(SendFile::sendAPICommand(dir(), "{\"request_type\":\"ping\"}", false, true)),
        "error");
    EXPECT_EQ(svc.commands().size(), 3u);
}

}  // namespace
