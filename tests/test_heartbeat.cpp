// The heartbeat query built from state files, and whole main-loop cycles
// against the bundled local service (the sleeps are recorded, not slept).
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "localServiceHarness.h"
#include "mainLoop.h"
#include "processResults.h"
#include "settings.h"
#include "startup.h"

namespace {

class Heartbeat : public ::testing::Test {
protected:
    void SetUp() override { TearDown(); }
    void TearDown() override {
        resetSettings();
        applications2[0] = '\0';
    }
    std::string query(const char* intip = "10.0.0.5") {
        char q[HEARTBEAT_QUERY_SIZE];
        memset(q, 'x', sizeof q);
        return heartbeatQuery(data.path().c_str(), intip, q);
    }
    const std::string pid = std::to_string(getpid());
    TempDir data;
};

TEST_F(Heartbeat, QueryFromStateFiles) {
    snprintf(applications2, sizeof applications2, ", No Sundel Image Processing");
    EXPECT_EQ(query("127.0.0.1"),
              "version=0-0-0&fqdn=&intip=127.0.0.1&port=&bcpid=" + pid + ", No Sundel Image Processing&os=OS X");
    for (auto [name, text] : {std::pair{"hubTalkVer.txt", "20240101:10\n"}, {"storescpVer.txt", "3.6.7"},
                              {"hostName.txt", " box7 \n"}, {"scpPort.txt", "104\n"}, {"CLIENTVP6.txt", " parentBox\n"}})
        spit(data.file(name), text);
    snprintf(EmbedType, sizeof EmbedType, "mini");
    snprintf(applications1, sizeof applications1, "File-Export (/exp)");
    const std::string full = "version=20240101:10-3.6.7-0&fqdn=box7&intip=10.0.0.5&port=104&parent=parentBox&bcpid=" +
                             pid + "&embedded_type=mini&applications=File-Export (/exp), No Sundel Image Processing&os=OS X";
    EXPECT_EQ(query(), full);

    // The whole query is cut at 649 characters, losing "&os=" first, and one
    // that just fits keeps it.
    memset(applications1, 'a', 700);
    applications1[700] = '\0';
    EXPECT_EQ(query(), (full.substr(0, full.find("File-Export")) + std::string(700, 'a')).substr(0, 649));
    applications1[0] = '\0';
    std::string fits(649 - query().size() - strlen("&applications="), 'b');
    snprintf(applications1, sizeof applications1, "%s", fits.c_str());
    EXPECT_EQ(query().size(), 649u);
    EXPECT_EQ(query().substr(641), "&os=OS X");
}

// The recorded sleeps, and the newest command the service had logged at each.
std::vector<unsigned> sleeps;
std::vector<std::string> newestAtSleep;
const LocalService* loggingService = nullptr;

unsigned recordSleep(unsigned s) {
    std::vector<std::string> all = loggingService->commands();
    sleeps.push_back(s);
    newestAtSleep.push_back(all.empty() ? "" : all.back());
    return 0;
}

class MainLoopCycle : public Heartbeat {
protected:
    void SetUp() override {
        Heartbeat::SetUp();
        svc.prepareAgentDataDir(data.path(), "box7", "Front Desk");
        sleeps.clear(), newestAtSleep.clear();
        loggingService = &svc;
    }
    void cycle() { loopCycle(data.path().c_str(), recordSleep); }
    LocalService svc;
};

TEST_F(MainLoopCycle, HeartbeatReplyIsProcessedBetweenTheSleepsFailuresOnlyForAPositiveCount) {
    snprintf(viewpointDir, sizeof viewpointDir, "%s", data.file("export").c_str());
    NUM_WORKERS = 2;
    svc.setReply("heartbeat", "display_name=Back Office&optimize=OA");
    sleepTime = 10;
    char intip[256];
    get_intip(intip, sizeof intip);
    std::string expected = "heartbeat|" + query(intip);
    cycle();

    EXPECT_EQ(slurp(data.file("internalIp.txt")), intip);
    ASSERT_EQ(sleeps, (std::vector<unsigned>{3, 3, 3}));
    EXPECT_EQ(svc.countStartingWith("heartbeat|"), 1u);
    // The server list, the first sleep, then the heartbeat before the second.
    EXPECT_EQ(newestAtSleep[0].rfind("ips", 0), 0u) << newestAtSleep[0];
    EXPECT_EQ(newestAtSleep[1], expected);
    EXPECT_STREQ(Util::decrypt(slurp(data.file("displayName.txt")).c_str()), "Back Office");
    EXPECT_EQ(slurp(data.file("ANON.txt")), "heartbeat");

    // The next heartbeat reports the new description.
    sleepTime = 3;
    cycle();
    ASSERT_EQ(sleeps, (std::vector<unsigned>{3, 3, 3, 1, 1, 1}));
    EXPECT_EQ(svc.countStartingWith("heartbeat|"), 2u);
    EXPECT_NE(newestAtSleep[4].find("&bcpid=" + pid + ", anonymization for export (strict,optimized), 2 workers&os=OS X"),
              std::string::npos)
        << newestAtSleep[4];

    // Failures are reported only for a positive count (clearing it is the commands' test).
    for (const char* notACount : {"abc", "0", "", " -2", "missing"}) {
        spit(data.file("ErrorFile.txt"), notACount);
        if (notACount[0] == 'm') unlink(data.file("ErrorFile.txt").c_str());
        cycle();
    }
    EXPECT_EQ(svc.countStartingWith("failure|"), 0u);
    spit(data.file("ErrorFile.txt"), " 3\n");
    cycle();
    EXPECT_EQ(svc.countStartingWith("failure|fqdn=box7&numFailedDicomAttempts=3"), 1u);
}

}  // namespace
