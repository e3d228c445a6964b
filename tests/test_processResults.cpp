// Server replies turned into state, and the self-update through a stand-in download tool.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "buildConfig.h"
#include "options.h"
#include "processResults.h"
#include "selfUpdate.h"
#include "settings.h"
#include "testUtil.h"
#include "util.h"

namespace {

class ProcessResults : public ::testing::Test {
protected:
    void SetUp() override {
        resetSettings();
        resetSelfUpdateCount();
        applications2[0] = '\0';
        snprintf(viewpointDir, sizeof viewpointDir, "%s", data.file("export").c_str());
    }
    void TearDown() override { resetSettings(); }
    void reply(const std::string& text, int times = 1) { while (times-- > 0) processResults(data.path().c_str(), text.c_str()); }
    std::string read(const std::string& name) { return slurp(data.file(name)); }
    // The flag files with their contents; the three processing settings as "apr" ('-' when off); the description.
    std::string state() {
        std::string s;
        for (std::string f : {"noProcessing", "optimizePixel", "retainPixel", "strict_anon", "ANON", "NS"})
            if (exists(data.file(f + ".txt"))) s += f + "=" + read(f + ".txt") + " ";
        return s + (anonExport ? "a" : "-") + (pixelProcessing ? "p" : "-") + (pixelProcessingRetain ? "r" : "-") +
               "|" + applications2;
    }
    TempDir data;
};

TEST_F(ProcessResults, OptimizeCodesSetAndClearTheFlagFiles) {
    const std::string none = "---|, No Sundel Image Processing", anon = "|, anonymization for export (",
                      retain = "--r|, Sundel Image Processing + Retain original Pixel Data, 2 workers";
    // Flag files a person wrote are never removed; a hand-made strict flag is marked non-strict instead.
    const std::string hand = "optimizePixel=mine retainPixel=set by hand\n strict_anon=yes ";
    const std::pair<const char*, std::string> steps[] = {
        {"optimize=R", "retainPixel=heartbeat " + retain},
        {"optimize=D", none},
        {"optimize=R", "retainPixel=heartbeat " + retain},
        {"optimize=OA", "optimizePixel=heartbeat strict_anon=heartbeat ANON=heartbeat ap-" + anon + "strict,optimized), 2 workers"},
        {"display_name=Front Desk", none},  // no code means "D"
        {"optimize=YA", "strict_anon=heartbeat ANON=heartbeat a--" + anon + "strict,original), 2 workers"},
        {"optimize=OAN", "optimizePixel=heartbeat ANON=heartbeat ap-" + anon + "non-strict,optimized), 2 workers"},
        {"optimize=N", "noProcessing=heartbeat optimizePixel=heartbeat " + none},
        {"optimize=D", none},
        {"by hand", ""},
        {"optimize=D", hand + retain},
        {"optimize=R", hand + retain},
        {"optimize=O", hand + retain},
        {"optimize=DAN", hand + "ANON=heartbeat NS=heartbeat a-r" + anon + "non-strict,original), 2 workers"},
        {"optimize=DA", hand + "ANON=heartbeat a-r" + anon + "strict,original), 2 workers"},
    };
    NUM_WORKERS = 2;
    for (const auto& [code, expected] : steps) {
        if (expected.empty()) {
            for (auto [f, text] : {std::pair{"retainPixel", "set by hand\n"}, {"optimizePixel", "mine"}, {"strict_anon", "yes"}})
                spit(data.file(std::string(f) + ".txt"), text);
            continue;
        }
        reply(code);
        EXPECT_EQ(state(), expected) << code;
    }
}

// Any code but "N" removes "noProcessing", whatever it holds; "Y" ends the command line's
// anonymisation; a site with an EMR interface keeps its own description.
TEST_F(ProcessResults, CommandLineFlagsAndWhoGetsADescription) {
    _anonExport = _pixelProcessing = true;
    reply("optimize=N");
    EXPECT_EQ(state(), "noProcessing=heartbeat ---|, No Sundel Image Processing");
    spit(data.file("noProcessing.txt"), "by hand");
    reply("optimize=DY");
    EXPECT_EQ(state(), "-p-|, Sundel Image Processing, 1 workers");
    EMR_INTF = EMR_CENTRICITY;
    reply("optimize=OA");
    EXPECT_EQ(state(), "optimizePixel=heartbeat strict_anon=heartbeat ANON=heartbeat ap-|, Sundel Image Processing, 1 workers");
}

TEST_F(ProcessResults, DisplayNameAndAccountAreStoredEnciphered) {
    reply("display_name=  Front Desk &acct=A-17");
    std::string stored = read("displayName.txt");
    EXPECT_EQ(stored[0], '~');
    EXPECT_STREQ(Util::decrypt(stored.c_str()), "Front Desk");
    EXPECT_FALSE(exists(data.file("acct.txt")));  // no EMR interface
    // The same name, or none, leaves the file alone (a fresh cipher text would differ).
    reply("display_name=Front Desk");
    reply("display_name=");
    EXPECT_EQ(read("displayName.txt"), stored);
    EMR_INTF = EMR_ALLSCRIPTS;
    reply("acct=A-17");
    std::string acct = read("acct.txt");
    EXPECT_NE(acct[0], '~');
    EXPECT_STREQ(Util::decrypt(acct.c_str()), "A-17");
}

// An installation directory with a download tool that logs each call and serves what the script says.
class SelfUpdate : public ProcessResults {
protected:
    void SetUp() override {
        ProcessResults::SetUp();
        install = data.file("inst dir 'x'");  // blanks and quotes reach the shell
        mkdir(install.c_str(), 0775);
        locateProgram((install + "/vshubTalk").c_str());
        UPDATE = true;
        for (const char* v : {"hubTalkVer.txt", "storescpVer.txt", "dicomDicVer.txt"}) spit(data.file(v), "20240101:10");
    }
    void tool(const std::string& cases) {
        spit(install + "/download", "#!/bin/sh\necho \"$1\" >> \"$(dirname \"$0\")/calls.log\"\ncase \"$1\" in\n" + cases + "\nesac\n");
        chmod((install + "/download").c_str(), 0755);
    }
    std::string inst(const std::string& name) { return slurp(install + "/" + name); }
    std::string url(const std::string& piece) {
        std::string base = HUBTALK_DOWNLOAD_BASE;
        return base.substr(0, base.find_last_not_of('/') + 1) + "/varnesk_sundel/" + piece + "\n";
    }
    // Nineteen of each reply in a child process (a replaced program exits); its exit status.
    int nineteenInChild(const std::vector<std::string>& replies) {
        return inChild([&] { for (const std::string& r : replies) reply(r, 19); return 0; });
    }
    std::string install;
};

TEST_F(SelfUpdate, DictionaryOnEveryNineteenthCallWhenNewerAsText) {
    tool("*/pieces/dicom.dic) printf '(0010,0010) PN PatientName\\n' > \"$2\" ;;\n*) exit 1 ;;");
    // "10" sorts before "9"; "0" is never offered, not even when nothing is installed.
    spit(data.file("dicomDicVer.txt"), "9");
    unlink(data.file("hubTalkVer.txt").c_str());
    reply("dicomDicVer=10&hubTalkVer=0", 19);
    reply("dicomDicVer=90&optimize=D", 18);
    EXPECT_EQ(inst("calls.log"), "");
    reply("dicomDicVer=90&optimize=D");
    EXPECT_EQ(inst("calls.log"), url("pieces/dicom.dic"));
    EXPECT_EQ(read("dicom.dic"), "(0010,0010) PN PatientName\n");
    EXPECT_EQ(read("dicomDicVer.txt"), "90");
    EXPECT_FALSE(exists(data.file("dicom.NEW.dic")));
    // Off: no counting at all.
    UPDATE = false;
    resetSelfUpdateCount();
    reply("dicomDicVer=99", 19);
    EXPECT_EQ(read("dicomDicVer.txt"), "90");
}

TEST_F(SelfUpdate, ProgramAndReceiverReplacedThenExitOne) {
    spit(install + "/vshubTalk", "old program");
    spit(install + "/vshubTalk.SV", "older program");
    spit(install + "/vsstorescp", "old receiver");
    tool("*/piecesX/hubTalk) printf 'new program' > \"$2\" ;;\n"
         "*/piecesX/storescp) printf 'new receiver' > \"$2\" ;;\n*) exit 1 ;;");
    EXPECT_EQ(nineteenInChild({"hubTalkVer=20250202:02&storescpVer=3.7.0"}), 1);
    EXPECT_EQ(inst("calls.log"), url("piecesX/storescp") + url("piecesX/hubTalk"));
    EXPECT_EQ(inst("vshubTalk") + "|" + inst("vshubTalk.SV"), "new program|old program");
    EXPECT_FALSE(exists(install + "/vshubTalk.NEW"));
    EXPECT_EQ(inst("vsstorescp") + "|" + inst("vsstorescp.SV"), "new receiver|old receiver");
    EXPECT_EQ(read("hubTalkVer.txt") + "|" + read("storescpVer.txt"), "20250202:02|3.7.0");
    struct stat st = {};
    EXPECT_EQ(stat((install + "/vshubTalk").c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0755u);

    // A failed dictionary download ends the check before the program. Then the tool claims success
    // without writing the program: the second move fails and the saved program comes back.
    spit(install + "/vshubTalk", "old program");
    for (const char* f : {"/vshubTalk.SV", "/calls.log"}) unlink((install + f).c_str());
    spit(data.file("hubTalkVer.txt"), "20240101:10");
    tool("*/pieces/dicom.dic) exit 3 ;;\n*) exit 0 ;;");
    EXPECT_EQ(nineteenInChild({"hubTalkVer=20250202:02&dicomDicVer=20250101:00", "hubTalkVer=20250202:02"}), 0);
    EXPECT_EQ(inst("vshubTalk"), "old program");
    EXPECT_FALSE(exists(install + "/vshubTalk.SV"));
    EXPECT_EQ(read("hubTalkVer.txt"), "20240101:10");
    EXPECT_EQ(inst("calls.log"), url("pieces/dicom.dic") + url("piecesX/hubTalk"));
}

TEST_F(SelfUpdate, DownloadsNeitherOverlapNorHoldUpOtherReplies) {
    // The tool notices a second download starting while one is under way.
    tool("*) mkdir \"$(dirname \"$0\")/busy\" || echo overlap >> \"$(dirname \"$0\")/calls.log\"\n"
         "   sleep 0.2; rmdir \"$(dirname \"$0\")/busy\"; exit 1 ;;");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] { reply(t % 2 ? "optimize=R&dicomDicVer=20250101:00" : "optimize=O&dicomDicVer=20250101:00", 19); });
    for (auto& t : threads) t.join();
    // Every nineteenth of the 76 calls comes due; one due while another runs is skipped.
    std::string log = inst("calls.log");
    EXPECT_EQ(log.find("overlap"), std::string::npos) << log;
    EXPECT_NE(log.find(url("pieces/dicom.dic")), std::string::npos);

    // A download that waits for the test: another reply is taken meanwhile.
    resetSelfUpdateCount();
    tool("*) touch \"$(dirname \"$0\")/started\"; i=0\n"
         "   while [ ! -e \"$(dirname \"$0\")/release\" ] && [ $i -lt 200 ]; do sleep 0.05; i=$((i+1)); done; exit 1 ;;");
    reply("dicomDicVer=20250101:00", 18);
    std::thread due([&] { reply("dicomDicVer=20250101:00"); });
    ASSERT_TRUE(waitUntil([&] { return exists(install + "/started"); }, 5000));
    std::atomic<bool> answered{false};
    std::thread other([&] { reply("display_name=Meanwhile"), answered = true; });
    EXPECT_TRUE(waitUntil([&] { return answered.load(); }, 5000));
    spit(install + "/release", "");
    due.join();
    other.join();
}

}  // namespace
