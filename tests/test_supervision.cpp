// The supervising parent (-z) driven as an operator would: signals, a worker
// that dies at once, a local shutdown, a self-update in two installation layouts.
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "listenerClient.h"
#include "localServiceHarness.h"
#include "supervisor.h"

namespace {

// The agent under -z; its data directory has an identity, so nothing registers unless a service is wired.
struct Supervised {
    TempDir tmp;
    std::string data;
    std::unique_ptr<ChildProcess> parent;

    explicit Supervised(const std::string& dataName = "data") : data(tmp.file(dataName)) {
        mkdir(data.c_str(), 0775), spit(data + "/hostName.txt", "box-supervised");
    }
    void start(std::vector<std::string> args, const std::string& program = HUBTALK_BIN, const std::string& cwd = "") {
        args.insert(args.begin(), {program, "-d", data, "-z"});
        parent = std::make_unique<ChildProcess>(args, cwd, tmp.file("out"), tmp.file("err"));
    }
    int worker() {
        auto children = childrenOf(parent->pid());
        return children.size() == 1 ? children[0] : -1;
    }
    size_t restarts() {
        size_t n = 0;
        for (size_t at = 0; (at = slurp(tmp.file("err")).find("Restarting process", at)) != std::string::npos; at++) n++;
        return n;
    }
};

bool alive(int pid) { return pid > 0 && kill(pid, 0) == 0; }

std::string exeOf(int pid) {
    char buf[4096];
    ssize_t n = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), buf, sizeof buf);
    return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
}

}  // namespace

TEST(Supervisor, QuietOutputInFilesHangUpIgnoredKilledWorkerRestartedStopSignalsStopBoth) {
    // A long path once cut the output files' names. -v: a quiet, non-verbose worker rewinds
    // the shared log before each network failure report and could overwrite the parent's line.
    Supervised s(std::string(120, 'q'));
    s.start({"-q", "-v"});
    ASSERT_TRUE(waitUntil([&] { return s.worker() > 0; }, 10000)) << slurp(s.tmp.file("err"));
    int worker = s.worker();
    kill(s.parent->pid(), SIGHUP);
    usleep(300 * 1000);
    EXPECT_EQ(s.worker(), worker);
    unlink((s.data + "/internalIp.txt").c_str());
    kill(worker, SIGKILL);
    // The new worker is up once its main loop has begun.
    ASSERT_TRUE(waitUntil([&] { return s.worker() != worker && exists(s.data + "/internalIp.txt"); }, 5000));
    EXPECT_TRUE(waitUntil([&] { return slurp(s.data + "/stderr.bc.txt").find("Restarting process") != std::string::npos; },
                          2000));
    EXPECT_TRUE(exists(s.data + "/stdout.bc.txt"));
    EXPECT_EQ(slurp(s.tmp.file("err")), "");  // nothing reached the real standard error
    worker = s.worker();
    EXPECT_EQ(s.parent->stop(SIGINT), 0);
    EXPECT_TRUE(waitUntil([&] { return !alive(worker); }, 5000)) << "worker outlived its parent";

    // A stop reaching a worker before it has handlers (at once after fork) still ends it; a survivor leaves a mark.
    std::string mark = s.tmp.file("survived"), log = s.tmp.file("inProcess.log");
    fflush(nullptr);
    pid_t parent = fork();
    if (parent == 0) {
        freopen(log.c_str(), "w", stderr);
        pthread_atfork(nullptr, nullptr, [] { raise(SIGTERM); });
        daemonInit(s.data.c_str(), true);
        spit(mark, "");
        kill(getppid(), SIGTERM);
        _exit(0);
    }
    EXPECT_TRUE(waitUntil([&] { return exists(mark) || slurp(log).find("Restarting process") != std::string::npos; },
                          10000));
    kill(parent, SIGTERM);
    int status = -1;
    EXPECT_EQ(waitChildFor(parent, 20, &status), ChildWait::Ended);
    EXPECT_EQ(status, 0);
    EXPECT_FALSE(exists(mark)) << "a stop signal to a new worker was lost";
}

TEST(Supervisor, WorkerDyingAtOnceIsRestartedWithGrowingPauses) {
    // The port is taken: every worker ends at once with a bind failure.
    int heldPort = 0, holder = listenLoopback(&heldPort);
    ASSERT_GE(holder, 0);
    Supervised s;
    s.start({"-l", "-p", std::to_string(heldPort)});
    // Pauses of 1 s, then 2 s: three or four starts in 4.5 s, not hundreds.
    usleep(4500 * 1000);
    EXPECT_GE(s.restarts(), 2u);
    EXPECT_LE(s.restarts(), 4u);
    EXPECT_NE(slurp(s.tmp.file("err")).find("Could not bind"), std::string::npos);
    EXPECT_EQ(s.parent->stop(SIGTERM), 0);  // also in the middle of a pause
    close(holder);
}

TEST(Supervisor, LocalShutdownStopsWorkerAndParent) {
    Supervised s;
    int port = freePort();
    s.start({"-l", "-p", std::to_string(port)});
    ASSERT_TRUE(waitUntil([&] { return talk(port, PING_REQUEST) == "success"; }, 10000));
    int worker = s.worker();
    EXPECT_EQ(talk(port, R"({"request_type": "shutdown"})"), "success");
    EXPECT_EQ(s.parent->wait(10000), 0);
    EXPECT_FALSE(alive(worker));
    EXPECT_FALSE(exists(s.data + "/SHUTDOWN.txt"));  // the next start is not a shutdown
    EXPECT_EQ(s.restarts(), 0u);
}

// The program installed in each layout; every heartbeat offers a newer version (failed relayed
// requests bring heartbeats quickly); the download tool beside it fetches a copy of the built program from
// the service's file endpoint, trusting the data directory's authority.
class ProgramUpdate : public ::testing::TestWithParam<const char*> {};

TEST_P(ProgramUpdate, ParentStartsTheNewProgramInPlace) {
    const std::string program = GetParam();  // relative to the test's directory
    Supervised s;
    std::string installed = s.tmp.file(program.substr(program.compare(0, 2, "./") == 0 ? 2 : 0));
    std::string installDir = installed.substr(0, installed.rfind('/'));
    ASSERT_EQ(system(("mkdir -p '" + installDir + "'").c_str()), 0);
    for (const std::string& to : {installed, s.tmp.file("new-program")}) spit(to, slurp(HUBTALK_BIN)), chmod(to.c_str(), 0755);
    std::string bin = HUBTALK_BIN;
    spit(installDir + "/download", slurp(bin.substr(0, bin.rfind('/')) + "/download"));
    chmod((installDir + "/download").c_str(), 0755);

    LocalService service;
    service.prepareAgentDataDir(s.data, "box7", "Clinic");
    spit(s.data + "/hubTalkVer.txt", "20240101:10");
    service.setWebFile("varnesk_sundel/piecesX/hubTalk", s.tmp.file("new-program"));
    spit(s.data + "/downloadBase.txt", service.webBase());
    service.setReply("API", "error");
    service.setReply("heartbeat", "display_name=Clinic&hubTalkVer=20990101:00");

    int port = freePort();
    // Started by a relative path from the test's directory, or by the absolute one.
    s.start({"-U", "-l", "-p", std::to_string(port)}, program[0] == '.' ? program : installed, s.tmp.path());
    ASSERT_TRUE(waitUntil([&] { return talk(port, PING_REQUEST) == "success"; }, 10000)) << slurp(s.tmp.file("err"));
    for (int i = 0; i < 40 && slurp(s.data + "/hubTalkVer.txt") != "20990101:00"; i++)
        talk(port, R"({"request_type": "status"})");
    ASSERT_EQ(slurp(s.data + "/hubTalkVer.txt"), "20990101:00") << slurp(s.tmp.file("err"));

    // The same parent process now runs the new file, and so does its worker.
    EXPECT_TRUE(waitUntil([&] { return exeOf(s.parent->pid()) == installed; }, 10000)) << exeOf(s.parent->pid());
    EXPECT_TRUE(waitUntil([&] { return talk(port, PING_REQUEST) == "success"; }, 10000));
    EXPECT_EQ(exeOf(s.worker()), installed);
    EXPECT_EQ(slurp(installed + ".SV"), slurp(HUBTALK_BIN));
    EXPECT_EQ(system(("test -d '" + installDir + "'").c_str()), 0);  // the directory stays where it was
}

INSTANTIATE_TEST_SUITE_P(Layouts, ProgramUpdate, ::testing::Values("opt/hubTalk/hubTalk", "./bin/vshubTalk"),
                         [](const ::testing::TestParamInfo<const char*>& info) {
                             return std::string(info.param[0] == '.' ? "RelativeWithPrefix" : "DirectoryNamedHubTalk");
                         });
