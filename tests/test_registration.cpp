// The built agent registers a new identity, retrying while the service is out of reach, once per identity.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "localServiceHarness.h"

TEST(Registration, RetriedUntilAnsweredThenNeverAgain) {
    LocalService service;
    TempDir tmp;
    std::string data = tmp.file("data");
    ASSERT_EQ(mkdir(data.c_str(), 0775), 0);
    service.prepareAgentDataDir(data, "box-one", "Clinic One");
    unlink((data + "/hostName.txt").c_str());  // a new box: no identity yet
    service.setReply("init", "displayName=Clinic One\n");
    // The service is out of reach for the first start.
    service.setFault(LocalService::Fault::NoOk);

    {
        ChildProcess agent({HUBTALK_BIN, "-d", data, "-s", "3"}, "", tmp.file("out1"), tmp.file("err1"));
        // The main loop's first cycle has begun: start-up and one retry failed.
        ASSERT_TRUE(waitUntil([&] { return exists(data + "/internalIp.txt"); }, 15000)) << slurp(tmp.file("err1"));
        EXPECT_TRUE(exists(data + "/registrationPending.txt"));
        service.setFault(LocalService::Fault::NoOk, false);
        ASSERT_TRUE(waitUntil([&] { return service.countStartingWith("init|") > 0; }, 15000)) << slurp(tmp.file("err1"));
        std::string id = slurp(data + "/hostName.txt");
        ASSERT_EQ(id.size(), 32u);
        // A heartbeat may come first: the loop beats whether or not the retry went through.
        EXPECT_EQ(service.countStartingWith("init|fqdn=" + id), 1u);
        EXPECT_TRUE(waitUntil([&] { return !exists(data + "/registrationPending.txt"); }, 5000));
        // The installed versions are recorded, all three alike, as the service writes them ("YYYYMMDD:NN").
        ASSERT_TRUE(waitUntil([&] { return exists(data + "/dicomDicVer.txt"); }, 5000));
        std::string version = slurp(data + "/hubTalkVer.txt");
        EXPECT_TRUE(version.size() == 11 && version[8] == ':') << version;
        EXPECT_EQ(slurp(data + "/storescpVer.txt") + slurp(data + "/dicomDicVer.txt"), version + version);
        // The main loop then keeps the box alive.
        EXPECT_TRUE(waitUntil([&] { return service.countStartingWith("heartbeat|") > 0; }, 15000));
        EXPECT_EQ(agent.stop(SIGTERM), 128 + SIGTERM);
    }
    EXPECT_EQ(service.countStartingWith("init|"), 1u);

    // A name file changes the identity: one registration, however often the worker is restarted.
    service.addBox("box-two", "Clinic Two");
    spit(tmp.file("name"), "box-two");
    ChildProcess agent({HUBTALK_BIN, "-d", data, "-s", "3", "-z", "-f", tmp.file("name")}, "", tmp.file("out2"),
                       tmp.file("err2"));
    for (int round = 0; round < 3; round++) {
        size_t beats = service.countStartingWith("heartbeat|");
        ASSERT_TRUE(waitUntil([&] { return service.countStartingWith("heartbeat|") > beats; }, 15000))
            << slurp(tmp.file("err2"));
        auto workers = childrenOf(agent.pid());
        ASSERT_EQ(workers.size(), 1u);
        if (round < 2) kill(workers[0], SIGKILL);
    }
    EXPECT_EQ(service.countStartingWith("init|fqdn=box-two"), 1u);
    EXPECT_EQ(service.countStartingWith("init|"), 2u);
}
