// "--status": a prepared data directory read back as text and JSON, the
// conditions that ask for attention, garbage state files, the heartbeat
// record, and the real program reading without writing or connecting.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <ctime>
#include <functional>
#include <sstream>

#include "localServiceProcess.h"
#include "mainLoop.h"
#include "options.h"
#include "selfUpdate.h"
#include "settings.h"
#include "status.h"
#include "testUtil.h"
#include "util.h"

namespace {

// Local time in the format: ledger file names and times.
std::string local(time_t t, const char* format) {
    char s[40];
    struct tm tm;
    strftime(s, sizeof s, format, localtime_r(&t, &tm));
    return s;
}
const char* const DAY = "ledger/%Y-%m-%d.tsv";
const char* const ISO = "%Y-%m-%dT%H:%M:%S%z";

void age(const std::string& path, long long seconds) {
    time_t then = time(nullptr) - seconds;
    struct timeval times[2] = {{then, 0}, {then, 0}};
    utimes(path.c_str(), times);
}

// A data directory as a running agent leaves it, with its export directory
// and the companions beside the program.
struct Box {
    const time_t now = time(nullptr);
    TempDir data, exportDir, bin;
    Box() {
        resetSettings();
        snprintf(PROCESS_DIR, sizeof PROCESS_DIR, "%s", bin.path().c_str());
        const std::pair<const char*, std::string> files[] = {
            {"hostName.txt", "box7\n"}, {"displayName.txt", Util::encrypt3("Front Desk")},
            {"hosts.txt", "127.0.0.5\n127.0.0.6\n"}, {"port.txt", "8443"}, {"APIport.txt", "5678"},
            {"viewpointDir.txt", exportDir.path()}, {"hubTalkVer.txt", "20240101:10"},
            {"lastHeartbeat.txt", std::to_string(now - 3000) + " 1 0"},
            {"lastUpdate.txt", std::to_string(now - 100) + " hubTalk@20240101:10 ok"}};
        for (const auto& [name, text] : files) spit(data.file(name), text);
        mkdir(data.file("Q").c_str(), 0775), mkdir(data.file("Q1").c_str(), 0775);
        for (const char* f : {"Q/a", "Q/b", "Q/b.BAD", "Q1/c"}) spit(data.file(f), "x");
        mkdir(exportDir.file("VP6").c_str(), 0775);
        spit(exportDir.file("one.dcm"), std::string(10, 'a'));
        spit(exportDir.file("VP6/two"), std::string(50, 'b'));
        spit(exportDir.file("empty"), "");
        symlink(exportDir.file("one.dcm").c_str(), exportDir.file("link").c_str());
        spit(bin.file("scrubmill"), "#!/bin/sh\n"), chmod(bin.file("scrubmill").c_str(), 0755);
        spit(bin.file("imagemill"), "");
        mkdir(data.file("ledger").c_str(), 0775);
        spit(data.file(local(now - 86400, DAY)), local(now - 90000, ISO) + "\tupload\told\t-\t7\tok\t1\ts\n");
        spit(data.file(local(now, DAY)),
             local(now - 60, ISO) + "\tupload\ta.dcm\t1.2\t100\tok\t0.5\ts1\n" + local(now - 50, ISO) +
                 "\tupload\tb.dcm\t-\t-\tconnect failed\t9\ts1\n" + local(now - 40, ISO) + "\troute\tc\t-\t5\tok\t1\tpacs\n" +
                 "not a ledger line\n");
    }
    std::pair<int, std::string> status(bool json, const std::string& dir = "") {
        std::string path = bin.file(json ? "out.json" : "out.txt");
        FILE* f = fopen(path.c_str(), "w");
        int rc = printStatus((dir.empty() ? data.path() : dir).c_str(), json, f);
        fclose(f);
        return {rc, slurp(path)};
    }
};

// Parses the JSON strictly (UTF-8, no raw control bytes) and flattens it to
// "path=value" lines; empty when it does not parse.
std::string flatJson(const std::string& text) {
    TempDir t;
    spit(t.file("s.json"), text);
    RunResult r = runProgram({"/usr/bin/env", "python3", "-c",
                              "import json,sys\n"
                              "def w(p,v):\n"
                              "  if isinstance(v,(dict,list)):\n"
                              "    for k,x in (v.items() if isinstance(v,dict) else enumerate(v)): w(p+'.'+str(k),x)\n"
                              "  else: print(p+'='+json.dumps(v))\n"
                              "w('',json.load(open(sys.argv[1],encoding='utf-8')))",
                              t.file("s.json")});
    return r.status == 0 ? r.out : "";
}

TEST(Status, PreparedDirectoryAsTextAndJson) {
    Box box;
    auto [rc, text] = box.status(false);
    auto [jrc, json] = box.status(true);
    EXPECT_EQ(rc, 0) << text;
    EXPECT_EQ(jrc, 0);
    std::string flat = flatJson(json);
    for (const char* expected :
         {".healthy=true", ".hostName=\"box7\"", ".displayName=\"Front Desk\"", ".registered=true",
          ".heartbeat.answered=true", ".heartbeat.unansweredInARow=0", ".servers.1=\"127.0.0.6\"",
          ".port=\"8443\"", ".listenerPort=\"5678\"", ".export.files=2", ".export.bytes=60", ".queues.Q.files=2",
          ".queues.Q.bad=1", ".queues.Q1.files=1", ".failures.uploads=0", ".companions.scrubmill=\"executable\"",
          ".companions.imagemill=\"not executable\"", ".companions.download=\"missing\"", ".versions.hubTalk=\"20240101:10\"",
          ".lastUpdate.what=\"hubTalk@20240101:10\"", ".lastUpdate.result=\"ok\"", ".last24h.upload.ok.count=1",
          ".last24h.upload.ok.bytes=100", ".last24h.upload.failed.count=1", ".last24h.route.ok.bytes=5",
          ".last24h.unreadableLines=1"})
        EXPECT_NE(flat.find(std::string(expected) + "\n"), std::string::npos) << expected << "\n" << flat;
    EXPECT_NE(flat.find(".heartbeat.ageSeconds=300"), std::string::npos);
    for (const char* expected : {"healthy: yes", "hostName: box7", "displayName: Front Desk", "- 127.0.0.5", "files: 2"})
        EXPECT_NE(text.find(expected), std::string::npos) << expected << "\n" << text;
}

TEST(Status, AttentionCases) {
    const struct {
        std::function<void(Box&)> change;
        int rc;
        std::string reason;
    } cases[] = {
        {[](Box& b) { age(b.exportDir.file("VP6/two"), 3700); }, 1, "export backlog: oldest file 370"},
        {[](Box& b) { age(b.exportDir.file("VP6/two"), 3500); }, 0, "healthy: yes"},
        {[](Box& b) { spit(b.data.file("FileFailedCount.txt"), "2\n"); }, 1, "2 uploads failing"},
        {[](Box& b) { spit(b.data.file("ErrorFile.txt"), "1"); }, 1, "1 commands failing"},
        {[](Box& b) { spit(b.data.file("lastHeartbeat.txt"), std::to_string(b.now) + " 0 2"); }, 0, "healthy: yes"},
        {[](Box& b) { spit(b.data.file("lastHeartbeat.txt"), std::to_string(b.now) + " 0 3"); }, 1, "3 heartbeats in a row"},
        {[](Box&) {}, 1, "data directory cannot be read"},
    };
    for (const auto& c : cases) {
        Box box;
        c.change(box);
        // The last case reads a data directory that is not there.
        auto [rc, text] = box.status(false, c.reason[0] == 'd' ? box.data.file("none") : "");
        EXPECT_EQ(rc, c.rc) << c.reason << "\n" << text;
        EXPECT_NE(text.find(c.reason), std::string::npos) << text;
    }
}

TEST(Status, GarbageStateFilesStillGiveValidJson) {
    Box box;
    TempDir& data = box.data;
    std::string junk;
    for (int i = 0; junk.size() < 1048576; ++i) junk += static_cast<char>(i * 37 % 256);
    for (const char* name : {"hostName.txt", "displayName.txt", "hosts.txt", "port.txt", "APIport.txt", "lastUpdate.txt",
                             "hubTalkVer.txt", "FileFailedCount.txt", "lastHeartbeat.txt", "ErrorFile.txt"})
        spit(data.file(name), junk);
    spit(data.file(local(box.now, DAY)), junk);
    spit(data.file("viewpointDir.txt"), "\x01\xff\"\\\n");
    std::string json = box.status(true).second;
    std::string flat = flatJson(json);
    EXPECT_NE(flat.find(".couldNotRead.0="), std::string::npos) << json.substr(0, 2000);
    EXPECT_NE(flat.find("FileFailedCount.txt: not a number"), std::string::npos) << flat;
    EXPECT_NE(flat.find("hostName.txt: 1048576 bytes, only the first 256 read"), std::string::npos) << flat;
    std::string text = box.status(false).second;
    EXPECT_EQ(text.find_first_of(std::string("\x01\x1b\x7f\xff", 4)), std::string::npos);
    // A data directory that is a file: what it says is still one JSON object.
    auto [rc, notADir] = box.status(true, data.file("port.txt"));
    EXPECT_EQ(rc, 1);
    EXPECT_NE(flatJson(notADir).find(".healthy=false"), std::string::npos) << notADir;
}

TEST(Status, HeartbeatsUnansweredInARowAskForAttentionUntilOneIsAnswered) {
    Box box;
    TempDir& data = box.data;
    spit(data.file("lastHeartbeat.txt"), "garbage");
    const struct { bool answered; const char* row; int rc; } beats[] = {
        {false, " 0 1", 0}, {false, " 0 2", 0}, {false, " 0 3", 1}, {true, " 1 0", 0}, {false, " 0 1", 0}};
    for (const auto& b : beats) {
        recordHeartbeat(data.path().c_str(), b.answered);
        std::string record = slurp(data.file("lastHeartbeat.txt"));
        EXPECT_NE(record.find(b.row), std::string::npos) << record;
        EXPECT_LE(std::abs(std::stoll(record) - time(nullptr)), 5);
        EXPECT_EQ(box.status(false).first, b.rc);
    }
}

TEST(Status, TheMainLoopRecordsEachHeartbeat) {
    Box box;
    LocalService svc;
    svc.prepareAgentDataDir(box.data.path(), "box7", "Front Desk");
    svc.setReply("heartbeat", "display_name=Front Desk");
    for (const char* expected : {" 1 0", " 0 1"}) {
        loopCycle(box.data.path().c_str(), [](unsigned) { return 0u; });
        EXPECT_NE(slurp(box.data.file("lastHeartbeat.txt")).find(expected), std::string::npos) << expected;
        spit(box.data.file("port.txt"), std::to_string(freePort()));  // nobody answers there
    }
}

TEST(Status, EachSelfUpdateTriedIsRecordedOnce) {
    Box box;
    locateProgram((box.bin.path() + "/hubTalk").c_str());
    spit(box.bin.file("download"), "#!/bin/sh\ncase \"$1\" in */dicom.dic) echo x > \"$2\" ;; *) exit 3 ;; esac\n");
    chmod(box.bin.file("download").c_str(), 0755);
    spit(box.bin.file("storescp"), "receiver");
    for (const char* v : {"hubTalkVer.txt", "storescpVer.txt", "dicomDicVer.txt"}) spit(box.data.file(v), "1");
    unlink(box.data.file("lastUpdate.txt").c_str());
    const struct { OfferedVersions offered; const char* recorded; } cases[] = {
        {{"0", "1", "0"}, ""}, {{"0", "0", "2 b"}, " dicom.dic@2_b ok"}, {{"0", "3", "1"}, " storescp@3 download failed"},
        {{"1", "1", "2 b"}, " storescp@3 download failed"}};
    for (const auto& c : cases) {
        runSelfUpdate(box.data.path().c_str(), c.offered);
        std::string record = slurp(box.data.file("lastUpdate.txt"));
        EXPECT_EQ(record.substr(std::min(record.find(' '), record.size())), c.recorded);
    }
}

// Every entry's name, size and modification time, recursively.
std::string listing(const std::string& dir) {
    return runProgram({"/usr/bin/find", dir, "-printf", "%p %s %T@ %m\n"}).out;
}

TEST(Status, TheProgramReadsOnlyAndOpensNoSocket) {
    Box box;
    TempDir& data = box.data;
    std::string before = listing(data.path());
    std::vector<std::string> args = {HUBTALK_BIN, "-d", data.path(), "-R", "127.0.0.9", "--status", "--json"};
    // Under strace when it can trace here; the sanitizers' leak check cannot run traced.
    bool traced = runProgram({"/usr/bin/strace", "-o", "/dev/null", "/bin/true"}).status == 0;
    if (traced)
        args.insert(args.begin(), {"/usr/bin/strace", "-f", "-qq", "-o", box.bin.file("trace"), "-E", "ASAN_OPTIONS=detect_leaks=0",
                                   "-e", "trace=socket,connect,clone,clone3,fork,vfork,openat,creat,mkdir,mkdirat,rename,"
                                         "renameat,renameat2,unlink,unlinkat"});
    RunResult r = runProgram(args, "", 30);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_NE(flatJson(r.out).find(".hostName=\"box7\""), std::string::npos) << r.out;
    EXPECT_EQ(listing(data.path()), before);
    // The thread sanitizer's runtime makes and removes a scratch file of its own.
    std::string calls;
    std::istringstream trace(slurp(box.bin.file("trace")));
    for (std::string line; std::getline(trace, line);)
        if (line.find("tsan") == std::string::npos) calls += line + "\n";
    for (const char* call : {"socket(", "connect(", "clone", "fork(", "O_WRONLY", "O_RDWR", "O_CREAT", "creat(", "mkdir",
                             "rename", "unlink"})
        EXPECT_EQ(calls.find(call), std::string::npos) << call << "\n" << calls;
    EXPECT_TRUE(!traced || calls.find("openat(") != std::string::npos) << "nothing traced";
    // A missing data directory is reported, not created (-R would make it).
    r = runProgram({HUBTALK_BIN, "-d", data.file("none"), "-R", "127.0.0.9", "--status"}, "", 30);
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.out.find("the data directory cannot be read"), std::string::npos) << r.out;
    EXPECT_FALSE(exists(data.file("none")));
}

}  // namespace
