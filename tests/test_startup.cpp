// Start-up driven as a user would, plus the option rules that decide the settings.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "options.h"
#include "pinnedCa.h"
#include "settings.h"
#include "testUtil.h"

namespace {

std::vector<std::string> withBinary(std::vector<std::string> args) {
    args.insert(args.begin(), HUBTALK_BIN);
    return args;
}

// The agent in the background; started once its data directory holds the given file.
struct RunningAgent {
    TempDir logs;
    ChildProcess process;
    bool started;
    RunningAgent(const std::vector<std::string>& args, const std::string& awaited, const std::string& cwd = "")
        : process(withBinary(args), cwd, logs.file("out"), logs.file("err")),
          started(waitUntil([&] { return exists(awaited); }, 10000)) {}
};

void parse(std::vector<std::string> args) {
    resetSettings();
    args.insert(args.begin(), "hubTalk");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    StartOptions options;
    parseOptions(static_cast<int>(args.size()), argv.data(), options);
}

}  // namespace

TEST(StartupCommandLine, UsageAndRefusals) {
    const std::string usage =
        "hubTalk -d <dataDir>  [ -s loopFreqInSecs ] [ -R receiver-ip ] [ -v ] [ -q ] [ -l ] [ -z ] [ -U ]\n";
    TempDir tmp;
    const std::string data = tmp.file("data"), longPath = tmp.path() + "/" + std::string(260, 'p');
    // Unknown options are ignored and do not mask a later "-?". Refusals name their cause.
    const struct { std::vector<std::string> args; std::string out, err; } cases[] = {  // err: a part of it
        {{}, "", usage},
        {{"--help"}, usage, ""},
        {{"-x", "-?"}, usage, ""},
        {{"--bogus", "-d", "-odd"}, "", "No Data Dir\n" + usage},
        {{"-R", "127.0.0.9", "-d", data}, "", "-R needs the data directory first"},
        {{"-d", longPath}, "", "Path given with -d is too long (at most 255 characters)"},
        {{"-d", data, "-H", "out|" + longPath}, "", "Path given with -H is too long"},
        {{"-d", data, "-p", "0"}, "", "Port given with -p must be a number from 1 to 65535"},
        {{"-d", data, "-p", "65536"}, "", "Port given with -p must be"},
        {{"-d", data, "-p", "80x"}, "", "Port given with -p must be"},
        {{"-d", data, "-V", tmp.path(), "-A", "centricity", "-N", "1"}, "", "Anonymization (-N) requires File-Export/VP6 (-V)\n"},
        {{"-d", data, "-N", "2"}, "", "Anonymization (-N) requires"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::PrintToString(c.args));
        RunResult run = runProgram(withBinary(c.args), "", 30);
        EXPECT_EQ(run.status, 1);
        EXPECT_EQ(run.out, c.out);
        EXPECT_NE(run.err.find(c.err), std::string::npos) << run.err;
    }
    EXPECT_FALSE(exists(data + "/hostName.txt"));
}

TEST(StartupDataDir, IdentityIsMadeOnceAndTheNameFileChangesIt) {
    TempDir tmp;
    std::string data = tmp.file("data"), identity;
    {
        RunningAgent agent({"-d", data, "-R", "127.0.0.5\n127.0.0.6"}, data + "/hostName.txt");
        ASSERT_TRUE(agent.started) << slurp(agent.logs.file("err"));
        identity = slurp(data + "/hostName.txt");
        ASSERT_EQ(identity.size(), 32u);
        // A version-4 UUID in hexadecimal.
        EXPECT_EQ(identity.find_first_not_of("0123456789abcdefABCDEF"), std::string::npos) << identity;
        EXPECT_EQ(identity[12], '4');
        EXPECT_NE(std::string("89ABab").find(identity[16]), std::string::npos);
        EXPECT_EQ(slurp(data + "/sundel.crt"), std::string(PINNED_CA_PEM));
        EXPECT_EQ(slurp(data + "/receiver.txt"), "127.0.0.5\n127.0.0.6");
        EXPECT_EQ(slurp(data + "/hosts.txt"), "127.0.0.5\n127.0.0.6");
    }
    spit(data + "/sundel.crt", "");  // an emptied certificate is restored
    spit(data + "/APIport.txt", "9999");  // a stale port is not announced
    {
        RunningAgent agent({"-d", data}, data + "/hostName.txt");
        EXPECT_TRUE(waitUntil([&] { return !exists(data + "/APIport.txt"); }, 5000));
        EXPECT_TRUE(waitUntil([&] { return slurp(data + "/sundel.crt") == PINNED_CA_PEM; }, 5000));
        EXPECT_EQ(slurp(data + "/hostName.txt"), identity);
    }
    // A name file sets it: trimmed, cut at 92 characters, a blank at the cut not part of it.
    for (auto [text, name] : {std::pair{std::string("  clinic-box-7 \n"), std::string("clinic-box-7")},
                              {std::string(91, 'n') + " tail", std::string(91, 'n')},
                              {std::string(93, 'm'), std::string(92, 'm')}}) {
        spit(tmp.file("name"), text);
        RunningAgent agent({"-d", data, "-f", tmp.file("name")}, data + "/hostName.txt");
        EXPECT_TRUE(waitUntil([&] { return slurp(data + "/hostName.txt") == name; }, 5000)) << slurp(data + "/hostName.txt");
    }
    // A relative data directory is still found after the worker changed into it.
    RunningAgent relative({"-d", "rel"}, tmp.file("rel/hostName.txt"), tmp.path());
    EXPECT_TRUE(relative.started) << slurp(relative.logs.file("err"));
    EXPECT_FALSE(exists(tmp.file("rel/rel")));
}

// Parsing the start-up tests do not reach: the loop's floor, one EMR kind
// per branch, and over-long arguments kept within their settings.
TEST(StartupOptions, SettingsFromTheCommandLine) {
    parse({"-s", "1", "-n", "5", "-S", "short.txt|test.txt", "-H", "out|in"});
    EXPECT_EQ(sleepTime, 3);
    EXPECT_EQ(NumTcpThreads, 5);
    EXPECT_EQ(std::string(ShortCodeFile) + TestCodeFile + HL7_dir + HL7_inputDir, "short.txttest.txtoutin");
    for (const auto& [arg, kind] : {std::pair{"MEDITOUCH", 9}, {"m", 7}, {"centricity", 3}, {"xyz", 0}}) {
        parse({"-A", arg});
        EXPECT_EQ(EMR_INTF, kind) << arg;
    }
    parse({"-N", "3-0"});
    EXPECT_TRUE(pixelProcessingRetain && !anonExport && !pixelProcessing);
    std::string longArg(500, 'x');
    parse({"-A", "r" + longArg, "-C", longArg + ":4242", "-e", longArg});
    EXPECT_EQ(ER_port, 4242);
    resetSettings();
}
