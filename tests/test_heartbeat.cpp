// The heartbeat query built from state files, and whole main-loop cycles
// against the bundled local service (the sleeps are recorded, not slept).
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "localServiceHarness.h"
#include "mainLoop.h"
#include "processResults.h"
#include "settings.h"
#include "startup.h"
#include "testUtil.h"
#include "util.h"

namespace {

class HeartbeatQuery : public ::testing::Test {
protected:
    void SetUp() override {
        resetSettings();
        applications2[0] = '\0';
    }
    void TearDown() override {
        resetSettings();
        applications2[0] = '\0';
    }
    std::string query(const char* intip = "10.0.0.5") {
        char q[HEARTBEAT_QUERY_SIZE];
        memset(q, 'x', sizeof q);
        return heartbeatQuery(data.path().c_str(), intip, q);
    }
    void put(const std::string& name, const std::string& text) { spit(data.file(name), text); }
    std::string pid() { return std::to_string(getpid()); }

    TempDir data;
};

TEST_F(HeartbeatQuery, FieldsInOrder) {
    put("hubTalkVer.txt", "20240101:10\n");
    put("storescpVer.txt", "3.6.7");
    put("hostName.txt", " box7 \n");
    put("scpPort.txt", "104\n");
    put("CLIENTVP6.txt", " parentBox\n");
    snprintf(EmbedType, sizeof EmbedType, "mini");
    snprintf(applications1, sizeof applications1, "File-Export (/exp)");
    snprintf(applications2, sizeof applications2, ", No Sundel Image Processing");
    EXPECT_EQ(query(), "version=20240101:10-3.6.7-0&fqdn=box7&intip=10.0.0.5&port=104&parent=parentBox&bcpid=" +
                           pid() + "&embedded_type=mini&applications=File-Export (/exp), No Sundel Image Processing&os=OS X");
}

TEST_F(HeartbeatQuery, MissingFilesGiveEmptyFieldsAndNoParent) {
    snprintf(applications2, sizeof applications2, ", No Sundel Image Processing");
    EXPECT_EQ(query("127.0.0.1"), "version=0-0-0&fqdn=&intip=127.0.0.1&port=&bcpid=" + pid() +
                                      ", No Sundel Image Processing&os=OS X");
}

TEST_F(HeartbeatQuery, FieldsAreCutAndALongQueryLosesItsEnd) {
    put("hubTalkVer.txt", std::string(20, '1'));
    put("storescpVer.txt", std::string(20, '2'));
    put("dicomDicVer.txt", std::string(20, '3'));
    put("hostName.txt", std::string(100, 'h'));
    put("scpPort.txt", std::string(20, '4'));
    put("CLIENTVP6.txt", std::string(40, 'p'));
    std::string intip(100, '9');
    std::string q = query(intip.c_str());
    EXPECT_EQ(q.substr(0, q.find("&bcpid=")),
              "version=" + std::string(16, '1') + "-" + std::string(16, '2') + "-" + std::string(16, '3') +
                  "&fqdn=" + std::string(64, 'h') + "&intip=" + std::string(64, '9') + "&port=" +
                  std::string(16, '4') + "&parent=" + std::string(32, 'p'));

    memset(applications1, 'a', 700);
    applications1[700] = '\0';
    q = query();
    EXPECT_EQ(q.size(), 649u);
    EXPECT_EQ(q.find("&os="), std::string::npos);
    EXPECT_EQ(q.back(), 'a');
    EXPECT_NE(q.find("&bcpid=" + pid() + "&applications=aaa"), std::string::npos);

    // One byte short of the bound keeps the whole text.
    applications1[0] = '\0';
    size_t base = query().size() - strlen("&os=OS X");
    std::string fill(649 - base - strlen("&os=OS X") - strlen("&applications="), 'b');
    snprintf(applications1, sizeof applications1, "%s", fill.c_str());
    q = query();
    EXPECT_EQ(q.size(), 649u);
    EXPECT_EQ(q.substr(q.size() - 8), "&os=OS X");
}

// Each recorded sleep notes how many commands the service had logged by then.
struct Sleeps {
    std::vector<unsigned> seconds;
    std::vector<size_t> commandsSoFar;
    const LocalService* service = nullptr;
};
Sleeps sleeps;

unsigned recordSleep(unsigned s) {
    sleeps.seconds.push_back(s);
    sleeps.commandsSoFar.push_back(sleeps.service->commands().size());
    return 0;
}

class MainLoopCycle : public HeartbeatQuery {
protected:
    void SetUp() override {
        HeartbeatQuery::SetUp();
        service.prepareAgentDataDir(data.path(), "box7", "Front Desk");
        sleeps = Sleeps();
        sleeps.service = &service;
    }
    void cycle() { loopCycle(data.path().c_str(), recordSleep); }
    std::vector<std::string> withPrefix(const std::string& prefix) {
        std::vector<std::string> out;
        for (const auto& c : service.commands())
            if (c.compare(0, prefix.size(), prefix) == 0) out.push_back(c);
        return out;
    }

    LocalService service;
};

TEST_F(MainLoopCycle, HeartbeatReplyIsProcessedBetweenTheSleeps) {
    snprintf(viewpointDir, sizeof viewpointDir, "%s", data.file("export").c_str());
    NUM_WORKERS = 2;
    put("hubTalkVer.txt", "20240101:10");
    service.setReply("heartbeat", "display_name=Back Office&optimize=OA");
    sleepTime = 10;

    char intip[256];
    get_intip(intip, sizeof intip);
    std::string expected = "heartbeat|" + query(intip);
    cycle();

    EXPECT_EQ(slurp(data.file("internalIp.txt")), intip);
    EXPECT_EQ(sleeps.seconds, (std::vector<unsigned>{3, 3, 3}));
    std::vector<std::string> heartbeats = withPrefix("heartbeat|");
    ASSERT_EQ(heartbeats.size(), 1u);
    EXPECT_EQ(heartbeats[0], expected);
    // Server list first, then the first sleep, then the heartbeat.
    ASSERT_EQ(sleeps.commandsSoFar.size(), 3u);
    std::vector<std::string> all = service.commands();
    ASSERT_GE(sleeps.commandsSoFar[0], 1u);
    EXPECT_EQ(all[0].compare(0, 3, "ips"), 0) << all[0];
    EXPECT_EQ(std::count(all.begin(), all.begin() + sleeps.commandsSoFar[0], expected), 0);
    EXPECT_EQ(all[sleeps.commandsSoFar[1] - 1], expected);

    EXPECT_STREQ(Util::decrypt(slurp(data.file("displayName.txt")).c_str()), "Back Office");
    EXPECT_EQ(slurp(data.file("ANON.txt")), "heartbeat");
    EXPECT_STREQ(applications2, ", anonymization for export (strict,optimized), 2 workers");

    // The next heartbeat reports the new description.
    sleepTime = 3;
    cycle();
    EXPECT_EQ(std::vector<unsigned>(sleeps.seconds.begin() + 3, sleeps.seconds.end()),
              (std::vector<unsigned>{1, 1, 1}));
    heartbeats = withPrefix("heartbeat|");
    ASSERT_EQ(heartbeats.size(), 2u);
    EXPECT_NE(heartbeats[1].find("&bcpid=" + pid() + ", anonymization for export (strict,optimized), 2 workers&os=OS X"),
              std::string::npos)
        << heartbeats[1];
}

TEST_F(MainLoopCycle, FailuresAreReportedOnlyForAPositiveCount) {
    sleepTime = 3;
    for (const char* notACount : {"abc", "0", "", " -2"}) {
        put("ErrorFile.txt", notACount);
        cycle();
    }
    unlink(data.file("ErrorFile.txt").c_str());
    cycle();
    EXPECT_EQ(withPrefix("heartbeat|").size(), 5u);
    EXPECT_TRUE(withPrefix("failure|").empty());

    put("ErrorFile.txt", " 3\n");
    cycle();
    std::vector<std::string> failures = withPrefix("failure|");
    ASSERT_EQ(failures.size(), 1u);
    EXPECT_EQ(failures[0], "failure|fqdn=box7&numFailedDicomAttempts=3");
    EXPECT_EQ(slurp(data.file("ErrorFile.txt")), "0");
}

}  // namespace
