// Start-up driven as a user would: the built program in temporary directories,
// plus the option rules that decide the settings.
#include <gtest/gtest.h>
#include <signal.h>
#include <unistd.h>

#include <cctype>
#include <cstring>

#include "options.h"
#include "pinnedCa.h"
#include "settings.h"
#include "testUtil.h"

namespace {

RunResult hubTalk(const std::vector<std::string>& args, const std::string& cwd = "") {
    std::vector<std::string> argv{HUBTALK_BIN};
    argv.insert(argv.end(), args.begin(), args.end());
    return runProgram(argv, cwd, 30);
}

// Starts the agent in the background and waits until its identity exists.
struct RunningAgent {
    TempDir logs;
    ChildProcess process;
    RunningAgent(const std::vector<std::string>& args, const std::string& dataDir)
        : process(withBinary(args), "", logs.file("out"), logs.file("err")) {
        started = waitUntil([&] { return exists(dataDir + "/hostName.txt"); }, 10000);
    }
    static std::vector<std::string> withBinary(std::vector<std::string> args) {
        args.insert(args.begin(), HUBTALK_BIN);
        return args;
    }
    bool started = false;
};

void parse(std::vector<std::string> args) {
    resetSettings();
    args.insert(args.begin(), "hubTalk");
    std::vector<char*> argv;
    for (auto& a : args) argv.push_back(&a[0]);
    argv.push_back(nullptr);
    StartOptions options;
    parseOptions(static_cast<int>(args.size()), argv.data(), options);
}

}  // namespace

TEST(StartupCommandLine, UsageAndRefusals) {
    const std::string usage =
        "hubTalk -d <dataDir>  [ -s loopFreqInSecs ] [ -R receiver-ip ] [ -v ] [ -q ] [ -l ] [ -z ] [ -U ]\n";
    RunResult none = hubTalk({});
    EXPECT_EQ(none.status, 1);
    EXPECT_EQ(none.err, usage);
    EXPECT_EQ(none.out, "");

    RunResult help = hubTalk({"-?"});
    EXPECT_EQ(help.status, 1);
    EXPECT_EQ(help.out, usage);

    RunResult longHelp = hubTalk({"--help"});
    EXPECT_EQ(longHelp.status, 1);
    EXPECT_EQ(longHelp.out, usage);

    // Unknown options are ignored and do not mask a later "-?".
    EXPECT_EQ(hubTalk({"-x", "-?"}).out, usage);
    RunResult unknown = hubTalk({"--bogus", "-d", "-odd"});
    EXPECT_EQ(unknown.status, 1);
    EXPECT_EQ(unknown.out, "");

    RunResult dashDir = hubTalk({"-d", "-odd"});
    EXPECT_EQ(dashDir.status, 1);
    EXPECT_EQ(dashDir.err, "No Data Dir\n" + usage);

    // Refused rather than cut or written elsewhere: the messages name the cause.
    TempDir tmp;
    const std::string longPath = tmp.path() + "/" + std::string(260, 'p');
    struct Refusal {
        std::vector<std::string> args;
        const char* message;
    } refusals[] = {
        {{"-R", "127.0.0.9", "-d", tmp.file("data")}, "-R needs the data directory first"},
        {{"-d", longPath}, "Path given with -d is too long (at most 255 characters)"},
        {{"-d", tmp.file("data"), "-V", longPath}, "Path given with -V is too long"},
        {{"-d", tmp.file("data"), "-H", "out|" + longPath}, "Path given with -H is too long"},
        {{"-d", tmp.file("data"), "-p", "0"}, "Port given with -p must be a number from 1 to 65535"},
        {{"-d", tmp.file("data"), "-p", "65536"}, "Port given with -p must be"},
        {{"-d", tmp.file("data"), "-p", "80x"}, "Port given with -p must be"},
    };
    for (const Refusal& r : refusals) {
        RunResult run = hubTalk(r.args);
        EXPECT_EQ(run.status, 1) << r.message;
        EXPECT_NE(run.err.find(r.message), std::string::npos) << run.err;
    }
    EXPECT_FALSE(exists(tmp.file("data/hostName.txt")));

    RunResult anon = hubTalk({"-d", tmp.file("data"), "-V", tmp.path(), "-A", "centricity", "-N", "1"});
    EXPECT_EQ(anon.status, 1);
    EXPECT_NE(anon.err.find("Anonymization (-N) requires File-Export/VP6 (-V)\n"), std::string::npos);
    RunResult anonNoExport = hubTalk({"-d", tmp.file("data"), "-N", "2"});
    EXPECT_EQ(anonNoExport.status, 1);
    EXPECT_NE(anonNoExport.err.find("Anonymization (-N) requires"), std::string::npos);
}

TEST(StartupDataDir, FirstStartCreatesIdentityAndSecondKeepsIt) {
    TempDir tmp;
    std::string data = tmp.file("data");
    std::string identity;
    {
        RunningAgent agent({"-d", data, "-R", "127.0.0.5\n127.0.0.6"}, data);
        ASSERT_TRUE(agent.started) << slurp(agent.logs.file("err"));
        identity = slurp(data + "/hostName.txt");
        ASSERT_EQ(identity.size(), 32u);
        for (char c : identity) EXPECT_TRUE(isxdigit(static_cast<unsigned char>(c))) << identity;
        // Version-4 UUID bits survive into the hex text.
        EXPECT_EQ(identity[12], '4');
        EXPECT_NE(std::string("89ABab").find(identity[16]), std::string::npos);
        EXPECT_EQ(slurp(data + "/sundel.crt"), std::string(PINNED_CA_PEM));
        EXPECT_EQ(slurp(data + "/receiver.txt"), "127.0.0.5\n127.0.0.6");
        EXPECT_EQ(slurp(data + "/hosts.txt"), "127.0.0.5\n127.0.0.6");
        EXPECT_TRUE(waitUntil([&] { return !exists(data + "/APIport.txt"); }, 2000));
    }
    spit(data + "/APIport.txt", "9999");
    spit(data + "/sundel.crt", "");  // an emptied certificate is restored
    {
        RunningAgent agent({"-d", data}, data);
        ASSERT_TRUE(agent.started);
        EXPECT_TRUE(waitUntil([&] { return !exists(data + "/APIport.txt"); }, 5000));
        EXPECT_EQ(slurp(data + "/hostName.txt"), identity);
        EXPECT_EQ(slurp(data + "/sundel.crt"), std::string(PINNED_CA_PEM));
    }
}

TEST(StartupDataDir, RelativeDataDirIsFoundAfterTheWorkerChangesIntoIt) {
    TempDir tmp;
    ChildProcess agent({HUBTALK_BIN, "-d", "rel"}, tmp.path(), tmp.file("out"), tmp.file("err"));
    EXPECT_TRUE(waitUntil([&] { return exists(tmp.file("rel/hostName.txt")); }, 10000)) << slurp(tmp.file("err"));
    EXPECT_FALSE(exists(tmp.file("rel/rel")));
}

TEST(StartupDataDir, NameFileSetsAndChangesIdentity) {
    TempDir tmp;
    std::string data = tmp.file("data");
    spit(tmp.file("name"), "  clinic-box-7 \n");
    {
        RunningAgent agent({"-d", data, "-f", tmp.file("name")}, data);
        ASSERT_TRUE(agent.started);
        EXPECT_EQ(slurp(data + "/hostName.txt"), "clinic-box-7");
    }
    // Cut at 92 characters, and a blank at the cut is not part of the name.
    spit(tmp.file("name"), std::string(91, 'n') + "  tail");
    {
        RunningAgent agent({"-d", data, "-f", tmp.file("name")}, data);
        ASSERT_TRUE(waitUntil([&] { return slurp(data + "/hostName.txt") == std::string(91, 'n'); }, 5000))
            << slurp(data + "/hostName.txt");
    }
}

TEST(StartupQuiet, OutputGoesToFilesAndSupervisorRestartsWorker) {
    TempDir tmp;
    // A long path once cut the output files' names.
    std::string data = tmp.file(std::string(120, 'q'));
    // -v: a quiet, non-verbose worker rewinds the shared log before each
    // network failure report and could overwrite the parent's line.
    RunningAgent agent({"-d", data, "-q", "-v", "-z"}, data);
    ASSERT_TRUE(agent.started);
    ASSERT_TRUE(waitUntil([&] { return childrenOf(agent.process.pid()).size() == 1; }, 5000));
    int worker = childrenOf(agent.process.pid())[0];

    kill(worker, SIGKILL);
    ASSERT_TRUE(waitUntil(
        [&] {
            auto now = childrenOf(agent.process.pid());
            return now.size() == 1 && now[0] != worker;
        },
        5000));
    EXPECT_TRUE(waitUntil([&] { return slurp(data + "/stderr.bc.txt").find("Restarting process") != std::string::npos; },
                          2000));
    EXPECT_TRUE(exists(data + "/stdout.bc.txt"));
    EXPECT_EQ(slurp(agent.logs.file("err")), "");  // nothing reached the real standard error

    int restarted = childrenOf(agent.process.pid())[0];
    EXPECT_EQ(agent.process.stop(SIGTERM), 0);
    EXPECT_TRUE(waitUntil([&] { return kill(restarted, 0) != 0; }, 5000)) << "worker outlived its parent";
}

TEST(StartupOptions, LoopPeriodInterfaceKindsAndBounds) {
    parse({"-s", "1"});
    EXPECT_EQ(sleepTime, 3);
    parse({"-s", "abc"});
    EXPECT_EQ(sleepTime, 3);
    parse({"--loop-sleep", "45", "-p", "7000", "-n", "5", "-l"});
    EXPECT_EQ(sleepTime, 45);
    EXPECT_EQ(PORT, 7000);
    EXPECT_EQ(NumTcpThreads, 5);
    EXPECT_FALSE(REMOTE);

    struct Case {
        const char* arg;
        int kind;
    } cases[] = {{"MEDITOUCH", 9}, {"meditouch", 9}, {"Medent", 7}, {"m", 7}, {"Allscripts", 4},
                 {"centricity", 3}, {"eClinical", 5}, {"osti", 8},   {"Sevocity", 6}, {"forward", 2},
                 {"R", 1},          {"xyz", 0}};
    for (const auto& c : cases) {
        parse({"-A", c.arg});
        EXPECT_EQ(EMR_INTF, c.kind) << c.arg;
        EXPECT_EQ(std::string(InterfaceName), c.kind ? std::string(c.arg) : std::string()) << c.arg;
        EXPECT_EQ(std::string(applications1), std::string("EMR Intf: ") + c.arg);
    }

    std::string longArg(500, 'x');
    parse({"-A", "r" + longArg, "-C", longArg + ":4242", "-e", longArg, "-S", "short.txt|test.txt",
           "-H", "out|in"});
    EXPECT_EQ(strlen(InterfaceName), 32u);
    EXPECT_EQ(strlen(applications1), strlen("EMR Intf: ") + 32);
    EXPECT_EQ(strlen(ER_ip), 31u);
    EXPECT_EQ(ER_port, 4242);
    EXPECT_LT(strnlen(EmbedType, sizeof EmbedType), sizeof EmbedType);
    EXPECT_STREQ(ShortCodeFile, "short.txt");
    EXPECT_STREQ(TestCodeFile, "test.txt");
    EXPECT_STREQ(HL7_dir, "out");
    EXPECT_STREQ(HL7_inputDir, "in");
    resetSettings();
}

TEST(StartupOptions, ProcessingModeWorkers) {
    resetSettings();
    applyProcessingMode("2", 6);
    EXPECT_TRUE(pixelProcessing && _pixelProcessing);
    EXPECT_FALSE(anonExport);
    EXPECT_EQ(NUM_WORKERS, 3);
    resetSettings();
    applyProcessingMode("2-12", 6);
    EXPECT_EQ(NUM_WORKERS, 8);
    resetSettings();
    applyProcessingMode("3-0", 6);
    EXPECT_TRUE(pixelProcessingRetain);
    EXPECT_EQ(NUM_WORKERS, 1);
    resetSettings();
    applyProcessingMode("1", 2);
    EXPECT_TRUE(anonExport && _anonExport);
    EXPECT_EQ(NUM_CPUS, 2);
    EXPECT_EQ(NUM_WORKERS, 1);
    resetSettings();
    applyProcessingMode("7", 64);
    EXPECT_FALSE(anonExport || pixelProcessing || pixelProcessingRetain);
    EXPECT_EQ(NUM_CPUS, 8);
    EXPECT_EQ(NUM_WORKERS, 4);
    resetSettings();
}

TEST(StartupOptions, ProgramLocationFromTheFileNameMadeAbsolute) {
    char cwd[4096];
    ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
    const std::string here = cwd;
    struct Case {
        const char* argv0;
        std::string dir, pre;
    } cases[] = {
        {"/opt/hubTalk/hubTalk", "/opt/hubTalk", ""},  // a directory named like the program
        {"/opt/agent/bin/xhubTalk", "/opt/agent/bin", "x"},
        {"build/hubTalk/hubTalk", here + "/build/hubTalk", ""},
        {"./bin/vshubTalk", here + "/bin", "vs"},
        {"hubTalk", "", ""},
        {"/opt/hubTalk/agent", "", ""},
    };
    for (const Case& c : cases) {
        resetSettings();
        EXPECT_TRUE(locateProgram(c.argv0));
        EXPECT_EQ(PROCESS_DIR, c.dir) << c.argv0;
        EXPECT_EQ(PRE, c.pre) << c.argv0;
    }
    resetSettings();
    EXPECT_FALSE(locateProgram(("/" + std::string(300, 'd') + "/hubTalk").c_str()));
    resetSettings();
}
