// The per-file step and the workers, with real DICOM files, the local service
// for crop answers and log messages, and stand-in companions written here
// for the failure paths.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <utime.h>

#include <cstring>
#include <ctime>
#include <set>
#include <string>

#include "anonFile.h"
#include "files.h"
#include "localServiceHarness.h"
#include "processing.h"
#include "settings.h"

namespace {

const std::string CT = "/usr/lib/python3/dist-packages/pydicom/data/test_files/CT_small.dcm";

// A stand-in companion: records its arguments one per line, then runs body.
const char* const COPY = "cp \"$(eval echo \\${$(($#-1))})\" \"$(eval echo \\${$#})\"";

class Processing : public ServiceTest {
protected:
    void SetUp() override {
        resetSettings();
        snprintf(dataDir, sizeof dataDir, "%s", dir());
        snprintf(PROCESS_DIR, sizeof PROCESS_DIR, "%s", tools.path().c_str());
        snprintf(qDir, sizeof qDir, "%s", data.file("Q").c_str());
        snprintf(viewpointDir, sizeof viewpointDir, "%s", data.file("export").c_str());
        for (const std::string d : {"Q", "Q1", "Q2", "Q3", "export"}) mkdir(data.file(d).c_str(), 0775);
        tool("scrubmill", COPY);
        tool("imagemill", "true");
        svc.setReply("CROP", "10|0|0|0|0");
    }
    void TearDown() override { resetSettings(); }

    void tool(const std::string& name, const std::string& body) {
        spit(tools.file(name), "#!/bin/sh\nfor a in \"$@\"; do echo \"$a\"; done > \"$0.args\"\n" + body + "\n");
        chmod(tools.file(name).c_str(), 0755);
    }
    std::string args(const std::string& name) {
        return exists(tools.file(name + ".args")) ? slurp(tools.file(name + ".args")) : "<not run>";
    }
    // CT_small with the attributes given ("Keyword=value"), this many seconds old.
    std::string image(const std::string& path, std::vector<std::string> attrs = {}, int age = 60) {
        spit(path, slurp(CT));
        std::vector<std::string> argv = {"/usr/bin/dcmodify", "-nb"};
        for (const std::string& a : attrs) argv.insert(argv.end(), {"-i", a});
        argv.push_back(path);
        if (!attrs.empty()) {
            EXPECT_EQ(0, runProgram(argv).status);
        }
        age_(path, age);
        return path;
    }
    static void age_(const std::string& path, int seconds) {
        struct utimbuf t{time(nullptr) - seconds, time(nullptr) - seconds};
        utime(path.c_str(), &t);
    }
    bool logged(const std::string& text) {
        for (const std::string& c : svc.commands())
            if (c.find(text) != std::string::npos) return true;
        return false;
    }
    std::string listing(const std::string& d) {
        std::string names;
        for (const std::string& n : listDir(d)) names += n + " ";
        return names;
    }
    // Names in name order, or with "-U" in directory order.
    static std::vector<std::string> listDir(const std::string& d, const char* order = "-A") {
        std::vector<std::string> names;
        RunResult r = runProgram({"/bin/ls", "-A", order, d});
        for (size_t at = 0, nl; (nl = r.out.find('\n', at)) != std::string::npos; at = nl + 1)
            names.push_back(r.out.substr(at, nl - at));
        return names;
    }

    TempDir tools;
};

}  // namespace

TEST_F(Processing, AnonymisationRulesAndFailures) {
    struct Case {
        const char* what;
        std::vector<std::string> attrs;
        const char* crops;   // the service's answer
        const char* scrub;   // the stand-in's body
        int result;
        const char* log;     // a command the service must have seen ("" none)
        bool scrubRuns;
    } cases[] = {
        {"ordinary", {"ManufacturerModelName=Vivid"}, "10|0|0|0|0", COPY, ANON_EXPORT, "|CROP|CT|Vivid", true},
        {"multiframe", {"NumberOfFrames=3"}, "0|0|0|0|0", COPY, ANON_EXPORT, "|CROP|CT MultiFrame|", true},
        {"service error", {}, "error", COPY, ANON_DISCARD, "Sundel FAIL:  No crop values for ", false},
        {"no crops", {}, "EMPTY", COPY, ANON_DISCARD, "No crop values", false},
        {"own file", {"ManufacturerModelName=varnesk sundel"}, "0|0|0|0|0", COPY, ANON_EXPORT, "", false},
        {"processed", {"(0035,0010)=SUNDEL"}, "0|0|0|0|0", COPY, ANON_EXPORT, "", false},
        {"capture refused", {"SOPClassUID=1.2.840.10008.5.1.4.1.1.7.4"}, "0|0|0|0|1", COPY, ANON_DISCARD,
         "SecondaryCaptureImageStorage cannot be anonymized", false},
        {"capture from logiq", {"SOPClassUID=1.2.840.10008.5.1.4.1.1.7", "ManufacturerModelName=LOGIQ e"},
         "0|0|0|0|1", COPY, ANON_EXPORT, "", true},
        {"report", {"SOPClassUID=1.2.840.10008.5.1.4.1.1.88.11"}, "error", COPY, ANON_EXPORT, "", true},
        {"tool fails", {}, "0|0|0|0|0", "exit 1", ANON_DISCARD, "scrubmill command FAILED", true},
        {"no output", {}, "0|0|0|0|0", "exit 0", ANON_DISCARD, "scrubmill command FAILED", true},
        {"tool hangs", {}, "0|0|0|0|0", "touch \"$(eval echo \\${$#}).scrub.99\"; sleep 30", ANON_DISCARD,
         "scrubmill command FAILED", true},
    };
    anonExport = true;
    spit(data.file("toolTimeout.txt"), "2");
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        rmFile(tools.path().c_str(), "scrubmill.args");
        tool("scrubmill", c.scrub);
        svc.setReply("CROP", c.crops);
        size_t before = svc.commands().size();
        std::string path = image(data.file("Q/in.dcm"), c.attrs);
        EXPECT_EQ(c.result, processAnonFile(path.c_str(), 0, 0, nullptr));
        EXPECT_EQ(c.scrubRuns, args("scrubmill") != "<not run>");
        if (*c.log) {
            EXPECT_TRUE(logged(c.log)) << c.log;
        }
        bool report = std::string(c.what) == "report";
        if (report) {
            EXPECT_EQ(before, svc.commands().size()) << "a report needs no crop look-up";
        }
        EXPECT_EQ(c.result == ANON_EXPORT || !c.scrubRuns, exists(path));
        EXPECT_FALSE(exists(path + ".T"));
        EXPECT_FALSE(exists(path + ".scrub.99"));  // a stopped tool's temporary
        if (c.scrubRuns) {
            EXPECT_EQ(!report, args("scrubmill").find("--clip-percent\n" + std::string(c.crops) + "\n") !=
                                   std::string::npos);
        }
        unlink(path.c_str());
    }
}

TEST_F(Processing, CropAnswerAndPathsNeverRunAsCommands) {
    anonExport = true;
    const std::string crops = "1|2|3|4|0';touch pwned;'$(touch pwned)`touch pwned`\"";
    svc.setReply("CROP", crops);
    spit(data.file("strict_anon.txt"), "1");
    std::string path = image(data.file("Q/it's $(touch pwned).dcm"));
    ASSERT_EQ(ANON_EXPORT, processAnonFile(path.c_str(), 0, 0, nullptr));
    EXPECT_EQ("--dict-path\n" + data.file("dicom.dic") + "\n--strict-anon\n--sundel\n--anonymize\n--clip-percent\n" +
                  crops + "\n" + path + ".T\n" + path + "\n",
              args("scrubmill"));
    EXPECT_FALSE(exists(data.file("Q/pwned")));
    EXPECT_FALSE(exists("pwned"));
    spit(data.file("NS.txt"), "1");
    ASSERT_EQ(ANON_EXPORT, processAnonFile(image(path).c_str(), 0, 0, nullptr));
    EXPECT_EQ(std::string::npos, args("scrubmill").find("--strict-anon"));
}

TEST_F(Processing, PixelProcessingAgeAndFailures) {
    struct Case {
        const char* what;
        bool optimise, retain;
        int age;
        const char* body;
        bool runs, flagged;
        const char* log;
    } cases[] = {
        {"processed", true, false, 1800, "true", true, false, ""},
        {"too old", true, false, 1801, "true", false, true, "File date too far behind"},
        {"tool fails", true, false, 10, "touch \"$(eval echo \\${$#}).im.2\"; exit 3", true, true,
         "Processing Sundel:  imagemill FAILED"},
        {"retained, fails", false, true, 10, "exit 3", true, false, "imagemill FAILED"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        pixelProcessing = c.optimise;
        pixelProcessingRetain = c.retain;
        rmFile(tools.path().c_str(), "imagemill.args");
        tool("imagemill", c.body);
        std::string path = image(data.file("Q2/f.dcm"));
        bool flag = false;
        EXPECT_EQ(ANON_EXPORT, processAnonFile(path.c_str(), 2, time(nullptr) - c.age, &flag));
        EXPECT_EQ(c.flagged, flag);
        EXPECT_EQ(c.runs, args("imagemill") != "<not run>");
        EXPECT_FALSE(exists(path + ".im.2"));
        if (*c.log) {
            EXPECT_TRUE(logged(c.log));
        }
    }
    EXPECT_EQ(std::string("--worker\n2\n--sundel2\n--repeat\n--data-dir\n") + dir() + "\n--process-dir\n" +
                  tools.path() + "\n" + data.file("Q2/f.dcm") + "\n",
              args("imagemill"));
}

TEST_F(Processing, DistributorSpreadsNewFilesOverTheWorkers) {
    NUM_WORKERS = 3;
    for (const char* n : {"a", "b", "c", "d", "e"}) {
        spit(data.file(std::string("Q/") + n), n);
        age_(data.file(std::string("Q/") + n), 100);
    }
    mkdir(data.file("Q/sub.dcm").c_str(), 0775);
    spit(data.file("Q/x"), "x");
    spit(data.file("Q/x.BAD"), "move/rm failed");
    age_(data.file("Q/x"), 100);
    // Files go to workers 1, 2, 3, 1, 2 in directory order.
    std::set<std::string> expected[4];
    int next = 0;
    char stamp[16];
    snprintf(stamp, sizeof stamp, "%010u.", static_cast<unsigned>(time(nullptr) - 100));
    std::string last;
    for (const std::string& n : listDir(data.file("Q"), "-U"))
        if (n.size() == 1 && n != "x") expected[next++ % 3 + 1].insert(stamp + (last = n));
    // The fifth one's name is taken in its worker's queue: nothing is replaced.
    spit(data.file("Q2/") + stamp + last, "waiting");
    int64_t ts = -1;
    WorkerContext distributor{&ts, 0};
    processing_loop_proc(&distributor);
    for (int k = 1; k <= 3; ++k) {
        std::vector<std::string> got = listDir(data.file("Q" + std::to_string(k)));
        EXPECT_EQ(expected[k], std::set<std::string>(got.begin(), got.end()));
    }
    EXPECT_EQ("waiting", slurp(data.file("Q2/") + stamp + last));
    EXPECT_EQ(last + " sub.dcm x x.BAD ", listing(data.file("Q")));
}

TEST_F(Processing, WorkerExportsOldestFirstAndLosesNothing) {
    anonExport = true;
    std::string q = data.file("Q1/");
    // Processing the first file, a receiver adds to a later one.
    tool("scrubmill", "case \"$(eval echo \\${$#})\" in *discard*) exit 1;; *.a.dcm) touch '" + q +
                          "0000000006.fresh.dcm';; esac; " + COPY);
    image(q + "0000000002.b.dcm", {"PatientName=B"}, 50);
    image(q + "0000000001.a.dcm", {"PatientName=A"}, 60);
    image(q + "0000000003.discard.dcm");
    image(q + "0000000004.crashed.dcm.T");             // left by a stop mid-way
    spit(q + "notes.txt", "not an image");              // stays for a later pass
    image(q + "0000000005.fenced.dcm");
    spit(q + "0000000005.fenced.dcm.BAD", "move/rm failed");
    image(q + "0000000006.fresh.dcm");                  // still being written
    std::string outside = image(data.file("outside.dcm"));
    spit(data.file("secret.txt"), "not DICOM");
    spit(q + "r1.REF", outside + "\n");
    spit(q + "r2.REF", data.file("secret.txt"));
    for (const char* r : {"r1.REF", "r2.REF"}) age_(q + r, 30);
    image(data.file("export/0000000002.b.dcm"), {}, 5);  // waiting for its upload

    int64_t ts = 0;
    WorkerContext worker{&ts, 1};
    processing_loop_proc(&worker);
    EXPECT_GT(ts, 0);
    EXPECT_EQ("0000000001.a.dcm 0000000002.b.dcm 0000000002.b.dcm.1 0000000004.crashed.dcm ",
              listing(data.file("export")));
    EXPECT_EQ("0000000005.fenced.dcm 0000000005.fenced.dcm.BAD 0000000006.fresh.dcm notes.txt ",
              listing(data.file("Q1")));
    EXPECT_TRUE(exists(outside));
    EXPECT_EQ("not DICOM", slurp(data.file("secret.txt")));
    EXPECT_NE(std::string::npos, args("scrubmill").find(q + "outside.dcm"));  // processed in place

    // An export directory that cannot take the file: it stays queued.
    snprintf(viewpointDir, sizeof viewpointDir, "%s", data.file("gone").c_str());
    age_(q + "0000000006.fresh.dcm", 30);
    processing_loop_proc(&worker);
    EXPECT_TRUE(exists(q + "0000000006.fresh.dcm"));
}

TEST_F(Processing, UnprocessedFilesCarryTheMarker) {
    pixelProcessing = true;
    tool("imagemill", "exit 1");
    image(data.file("Q/one.dcm"));
    int64_t ts = 0;
    WorkerContext worker{&ts, 0};
    processing_loop_proc(&worker);
    EXPECT_EQ("one.dcm._UNP_ ", listing(data.file("export")));
}

// The agent itself with the reference companions: queued images leave the
// box de-identified, and a companion inherits none of the agent's sockets.
TEST_F(Processing, AgentChainWithTheReferenceCompanions) {
    for (const char* q : {"Q1", "Q2", "Q3"}) rmdir(data.file(q).c_str());  // start-up makes its own
    std::string built = std::string(HUBTALK_BIN).substr(0, std::string(HUBTALK_BIN).rfind('/'));
    ASSERT_EQ(0, symlink(HUBTALK_BIN, tools.file("hubTalk").c_str()));
    ASSERT_EQ(0, symlink((built + "/scrubmill").c_str(), tools.file("scrubmill.real").c_str()));
    tool("scrubmill", "ls -l /proc/$$/fd >> \"$0.fds\"; exec \"$0.real\" \"$@\"");
    unlink(tools.file("imagemill").c_str());
    ASSERT_EQ(0, symlink((built + "/imagemill").c_str(), tools.file("imagemill").c_str()));
    svc.setReply("CROP", "0|0|0|0|0");
    for (const char* verb : {"init", "heartbeat"})  // pixel processing on too
        svc.setReply(verb, "display_name=Clinic One&optimize=OA");
    const std::string real = CT.substr(0, CT.rfind('/') + 1);
    for (std::string name : {"CT_small.dcm", "MR_small.dcm"}) {
        spit(data.file("Q/" + name), slurp(real + name));
        age_(data.file("Q/" + name), 30);
    }
    TempDir logs;
    ChildProcess agent({tools.file("hubTalk"), "-d", dir(), "-V", data.file("export"), "-N", "1-2",
                        "-p", std::to_string(freePort()), "-s", "6"},
                       "", logs.file("out"), logs.file("err"));
    // The whole road: queue, workers, export directory, the service's store.
    std::string store = svc.storedFile("x");
    store = store.substr(0, store.rfind('/'));
    ASSERT_TRUE(waitUntil([&] { return listDir(store).size() == 2 && listDir(data.file("export")).empty(); }, 90000))
        << slurp(logs.file("err"));
    EXPECT_EQ("", listing(data.file("Q")));
    // Two workers beside the distributor, each with its queue.
    EXPECT_EQ("", listing(data.file("Q1")) + listing(data.file("Q2")));
    EXPECT_FALSE(exists(data.file("Q3")));
    auto dump = [](const std::string& file, const char* keyword) {
        return runProgram({"/usr/bin/dcmdump", "-M", "+P", keyword, file}).out;
    };
    auto pixels = [&](const std::string& file) {
        std::string d = logs.file("raw" + std::to_string(rand()));
        mkdir(d.c_str(), 0775);
        runProgram({"/usr/bin/dcmdump", "+W", d, file});
        std::vector<std::string> raw = listDir(d);
        return raw.size() == 1 ? slurp(d + "/" + raw[0]) : "<none>";
    };
    for (std::string exported : listDir(store)) {
        std::string name = exported.substr(11), out = store + "/" + exported;  // "%010u." first
        EXPECT_EQ(std::string::npos, svc.storedHeader(exported).find("._UNP_")) << svc.storedHeader(exported);
        EXPECT_NE("", dump(out, "0035,0010")) << name;
        for (const char* keyword : {"PatientName", "PatientID", "SOPInstanceUID", "StudyInstanceUID"}) {
            EXPECT_NE("", dump(real + name, keyword));
            EXPECT_NE(dump(real + name, keyword), dump(out, keyword)) << name << " " << keyword;
        }
        // Recompressed losslessly: the decoded pixels are the original ones.
        EXPECT_NE(std::string::npos, dump(out, "TransferSyntaxUID").find("JPEGLSLossless")) << name;
        ASSERT_EQ(0, runProgram({"/usr/bin/dcmdjpls", out, logs.file("plain.dcm")}).status);
        std::string original = pixels(real + name);
        EXPECT_GT(original.size(), 1000u) << name;
        EXPECT_EQ(original, pixels(logs.file("plain.dcm"))) << name;
    }
    std::string fds = slurp(tools.file("scrubmill.fds"));
    EXPECT_NE(std::string::npos, fds.find(" 2 -> ")) << fds;
    EXPECT_EQ(std::string::npos, fds.find("socket:")) << fds;
}
