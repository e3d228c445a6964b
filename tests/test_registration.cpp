// The built agent registers a new identity with the bundled local service and
// skips registration when it starts again with the same identity.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "localServiceHarness.h"
#include "testUtil.h"

namespace {

bool logged(const LocalService& service, const std::string& prefix) {
    for (const auto& c : service.commands())
        if (c.compare(0, prefix.size(), prefix) == 0) return true;
    return false;
}

}  // namespace

TEST(Registration, FirstStartRegistersSecondStartDoesNot) {
    LocalService service;
    TempDir tmp;
    std::string data = tmp.file("data");
    ASSERT_EQ(mkdir(data.c_str(), 0775), 0);
    service.prepareAgentDataDir(data, "box-one", "Clinic One");
    unlink((data + "/hostName.txt").c_str());  // a new box: no identity yet
    service.setReply("init", "displayName=Clinic One\n");

    {
        ChildProcess agent({HUBTALK_BIN, "-d", data, "-s", "3"}, "", tmp.file("out1"), tmp.file("err1"));
        ASSERT_TRUE(waitUntil([&] { return logged(service, "init|"); }, 15000)) << slurp(tmp.file("err1"));
        std::string id = slurp(data + "/hostName.txt");
        ASSERT_EQ(id.size(), 32u);
        auto commands = service.commands();
        ASSERT_GE(commands.size(), 2u);
        EXPECT_EQ(commands[0], "ips/" + id);
        EXPECT_EQ(commands[1], "init|fqdn=" + id);
        // The installed versions are recorded once, all three alike.
        ASSERT_TRUE(waitUntil([&] { return exists(data + "/dicomDicVer.txt"); }, 5000));
        std::string version = slurp(data + "/hubTalkVer.txt");
        EXPECT_EQ(version.size(), 11u) << version;  // %Y%m%d:%H
        EXPECT_EQ(version[8], ':');
        EXPECT_EQ(slurp(data + "/storescpVer.txt"), version);
        EXPECT_EQ(slurp(data + "/dicomDicVer.txt"), version);
        // The main loop then keeps the box alive.
        EXPECT_TRUE(waitUntil([&] { return logged(service, "heartbeat|"); }, 15000));
        EXPECT_EQ(agent.stop(SIGTERM), 128 + SIGTERM);
    }

    size_t before = service.commands().size();
    ChildProcess agent({HUBTALK_BIN, "-d", data, "-s", "3"}, "", tmp.file("out2"), tmp.file("err2"));
    ASSERT_TRUE(waitUntil([&] { return service.commands().size() > before + 1; }, 15000));
    auto commands = service.commands();
    for (size_t i = before; i < commands.size(); ++i)
        EXPECT_NE(commands[i].rfind("init|", 0), 0u) << "registered again: " << commands[i];
}
