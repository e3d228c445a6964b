// Server replies turned into state: display name, account, processing flag
// files and description, and the periodic self-update with a stand-in
// download tool in a temporary installation directory.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>

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

    void reply(const std::string& text) { processResults(data.path().c_str(), text.c_str()); }
    std::string read(const std::string& name) { return slurp(data.file(name)); }
    bool has(const std::string& name) { return exists(data.file(name)); }
    void put(const std::string& name, const std::string& text) { spit(data.file(name), text); }

    TempDir data;
};

TEST_F(ProcessResults, OptimizeOaCreatesAnonymisingFlagsAndDescription) {
    NUM_WORKERS = 2;
    put("retainPixel.txt", "heartbeat");
    reply("display_name=Front Desk&optimize=OA");
    for (const char* flag : {"optimizePixel.txt", "strict_anon.txt", "ANON.txt"}) EXPECT_EQ(read(flag), "heartbeat") << flag;
    EXPECT_FALSE(has("retainPixel.txt"));
    EXPECT_FALSE(has("noProcessing.txt"));
    EXPECT_TRUE(anonExport);
    EXPECT_TRUE(pixelProcessing);
    EXPECT_FALSE(pixelProcessingRetain);
    EXPECT_STREQ(applications2, ", anonymization for export (strict,optimized), 2 workers");

    // Without an optimize key the reply means "D": anonymisation ends, the
    // optimisation the server caused ends, the description follows.
    reply("display_name=Front Desk");
    EXPECT_FALSE(has("ANON.txt"));
    EXPECT_FALSE(has("optimizePixel.txt"));
    EXPECT_FALSE(has("strict_anon.txt"));
    EXPECT_FALSE(anonExport);
    EXPECT_FALSE(pixelProcessing);
    EXPECT_STREQ(applications2, ", No Sundel Image Processing");
}

TEST_F(ProcessResults, FlagFilesOfAPersonAreLeftAlone) {
    reply("optimize=R");
    EXPECT_EQ(read("retainPixel.txt"), "heartbeat");
    EXPECT_TRUE(pixelProcessingRetain);
    EXPECT_STREQ(applications2, ", Sundel Image Processing + Retain original Pixel Data, 1 workers");
    reply("optimize=D");
    EXPECT_FALSE(has("retainPixel.txt"));

    put("retainPixel.txt", "set by hand\n");
    put("optimizePixel.txt", "mine");
    put("strict_anon.txt", "yes");
    reply("optimize=D");
    reply("optimize=R");
    EXPECT_EQ(read("retainPixel.txt"), "set by hand\n");
    EXPECT_EQ(read("optimizePixel.txt"), "mine");
    EXPECT_EQ(read("strict_anon.txt"), "yes");
    // The hand-made retain flag wins over the hand-made optimisation.
    EXPECT_TRUE(pixelProcessingRetain);
    EXPECT_FALSE(pixelProcessing);

    // "O" finds optimizePixel.txt already there, so the retain flag stays.
    reply("optimize=O");
    EXPECT_EQ(read("retainPixel.txt"), "set by hand\n");
}

TEST_F(ProcessResults, NoProcessingOverridesTheCommandLine) {
    _anonExport = _pixelProcessing = true;
    reply("optimize=N");
    EXPECT_EQ(read("noProcessing.txt"), "heartbeat");
    EXPECT_FALSE(anonExport || pixelProcessing || pixelProcessingRetain);
    EXPECT_STREQ(applications2, ", No Sundel Image Processing");

    // Any other code removes it, whatever it holds.
    put("noProcessing.txt", "by hand");
    reply("optimize=DY");
    EXPECT_FALSE(has("noProcessing.txt"));
    EXPECT_FALSE(anonExport);  // "Y" turns off the command line's anonymisation
    EXPECT_TRUE(pixelProcessing);
    EXPECT_STREQ(applications2, ", Sundel Image Processing, 1 workers");
}

TEST_F(ProcessResults, AnonymisationVariants) {
    reply("optimize=YA");
    EXPECT_EQ(read("strict_anon.txt"), "heartbeat");
    EXPECT_EQ(read("ANON.txt"), "heartbeat");
    EXPECT_TRUE(anonExport);
    EXPECT_STREQ(applications2, ", anonymization for export (strict,original), 1 workers");

    // Non-strict: the server's strict flag goes, ANON stays.
    reply("optimize=OAN");
    EXPECT_FALSE(has("strict_anon.txt"));
    EXPECT_FALSE(has("NS.txt"));
    EXPECT_TRUE(has("ANON.txt"));
    EXPECT_STREQ(applications2, ", anonymization for export (non-strict,optimized), 1 workers");

    // A strict flag set by hand survives and is marked non-strict instead.
    put("strict_anon.txt", "local policy");
    reply("optimize=DAN");
    EXPECT_EQ(read("NS.txt"), "heartbeat");
    EXPECT_STREQ(applications2, ", anonymization for export (non-strict,original), 1 workers");
    reply("optimize=DA");
    EXPECT_FALSE(has("NS.txt"));
    EXPECT_STREQ(applications2, ", anonymization for export (strict,original), 1 workers");

    // Description belongs to export boxes only.
    EMR_INTF = EMR_CENTRICITY;
    snprintf(applications2, sizeof applications2, "%s", "untouched");
    reply("optimize=O");
    EXPECT_FALSE(has("ANON.txt"));
    EXPECT_STREQ(applications2, "untouched");
}

TEST_F(ProcessResults, DisplayNameAndAccountAreStoredEnciphered) {
    reply("display_name=  Front Desk &acct=A-17");
    std::string stored = read("displayName.txt");
    ASSERT_EQ(stored[0], '~');
    EXPECT_STREQ(Util::decrypt(stored.c_str()), "Front Desk");
    EXPECT_FALSE(has("acct.txt"));  // no EMR interface

    // The same name again leaves the file as it is (a fresh cipher text would differ).
    reply("display_name=Front Desk");
    EXPECT_EQ(read("displayName.txt"), stored);
    reply("display_name=");
    EXPECT_EQ(read("displayName.txt"), stored);

    EMR_INTF = EMR_ALLSCRIPTS;
    reply("display_name=Back Office&acct=A-17");
    EXPECT_STREQ(Util::decrypt(read("displayName.txt").c_str()), "Back Office");
    std::string acct = read("acct.txt");
    EXPECT_NE(acct[0], '~');
    EXPECT_STREQ(Util::decrypt(acct.c_str()), "A-17");
}

// An installation directory with a stand-in download tool that logs each
// call and serves the files named by the script body.
class SelfUpdate : public ProcessResults {
protected:
    void SetUp() override {
        ProcessResults::SetUp();
        install = data.file("inst dir 'x'");  // blanks and quotes reach the shell
        mkdir(install.c_str(), 0775);
        locateProgram((install + "/vshubTalk").c_str());
        UPDATE = true;
        for (const char* v : {"hubTalkVer.txt", "storescpVer.txt", "dicomDicVer.txt"}) put(v, "20240101:10");
    }

    void tool(const std::string& cases) {
        std::string path = install + "/download";
        spit(path, "#!/bin/sh\necho \"$1\" >> \"$(dirname \"$0\")/calls.log\"\ncase \"$1\" in\n" + cases +
                       "\nesac\n");
        chmod(path.c_str(), 0755);
    }
    std::string calls() { return slurp(install + "/calls.log"); }
    std::string inst(const std::string& name) { return slurp(install + "/" + name); }
    std::string url(const std::string& path) {
        std::string base = HUBTALK_DOWNLOAD_BASE;
        while (!base.empty() && base.back() == '/') base.pop_back();
        return base + path;
    }

    // Runs the calls in a child process; its exit status, or 0 when it returned.
    int inChild(const std::function<void()>& body) {
        fflush(nullptr);
        pid_t pid = fork();
        if (pid == 0) {
            body();
            _exit(0);
        }
        int status = 0;
        waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

    std::string install;
};

TEST_F(SelfUpdate, DictionaryEveryNineteenthCallOnly) {
    tool("*/pieces/dicom.dic) printf '(0010,0010) PN PatientName\\n' > \"$2\" ;;\n*) exit 1 ;;");
    const std::string offer = "dicomDicVer=20250101:00&optimize=D";
    for (int i = 0; i < 18; ++i) reply(offer);
    EXPECT_EQ(calls(), "");
    EXPECT_EQ(read("dicomDicVer.txt"), "20240101:10");

    reply(offer);
    EXPECT_EQ(calls(), url("/varnesk_sundel/pieces/dicom.dic") + "\n");
    EXPECT_EQ(read("dicom.dic"), "(0010,0010) PN PatientName\n");
    EXPECT_EQ(read("dicomDicVer.txt"), "20250101:00");
    EXPECT_FALSE(has("dicom.NEW.dic"));

    // Off: no counting at all.
    UPDATE = false;
    resetSelfUpdateCount();
    for (int i = 0; i < 19; ++i) reply("dicomDicVer=20990101:00");
    EXPECT_EQ(read("dicomDicVer.txt"), "20250101:00");
}

TEST_F(SelfUpdate, VersionsCompareAsTextAndZeroIsNeverOffered) {
    EXPECT_FALSE(isNewerVersion("10", "9"));
    EXPECT_TRUE(isNewerVersion("9", "10"));
    EXPECT_FALSE(isNewerVersion("0", ""));
    tool("*) printf 'x' > \"$2\" ;;");
    put("dicomDicVer.txt", "9");
    unlink(data.file("hubTalkVer.txt").c_str());  // nothing installed reads as "0"
    for (int i = 0; i < 19; ++i) reply("dicomDicVer=10&hubTalkVer=0");
    EXPECT_EQ(calls(), "");
    EXPECT_EQ(read("dicomDicVer.txt"), "9");
}

TEST_F(SelfUpdate, ProgramAndReceiverReplacedThenExitOne) {
    spit(install + "/vshubTalk", "old program");
    spit(install + "/vshubTalk.SV", "older program");
    spit(install + "/vsstorescp", "old receiver");
    tool("*/piecesX/hubTalk) printf 'new program' > \"$2\" ;;\n"
         "*/piecesX/storescp) printf 'new receiver' > \"$2\" ;;\n*) exit 1 ;;");
    int status = inChild([&] {
        for (int i = 0; i < 19; ++i) reply("hubTalkVer=20250202:02&storescpVer=3.7.0");
    });
    EXPECT_EQ(status, 1);
    EXPECT_EQ(calls(), url("/varnesk_sundel/piecesX/storescp") + "\n" + url("/varnesk_sundel/piecesX/hubTalk") + "\n");
    EXPECT_EQ(inst("vshubTalk"), "new program");
    EXPECT_EQ(inst("vshubTalk.SV"), "old program");
    EXPECT_FALSE(exists(install + "/vshubTalk.NEW"));
    EXPECT_EQ(read("hubTalkVer.txt"), "20250202:02");
    EXPECT_EQ(inst("vsstorescp"), "new receiver");
    EXPECT_EQ(inst("vsstorescp.SV"), "old receiver");
    EXPECT_EQ(read("storescpVer.txt"), "3.7.0");
    struct stat st;
    ASSERT_EQ(stat((install + "/vshubTalk").c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0755u);
}

TEST_F(SelfUpdate, FailuresEndTheCheckAndRestoreTheOldProgram) {
    spit(install + "/vshubTalk", "old program");
    // The tool claims success without writing the program: the second move
    // fails and the saved program comes back.
    tool("*/pieces/dicom.dic) exit 3 ;;\n*) exit 0 ;;");
    int status = inChild([&] {
        for (int i = 0; i < 19; ++i) reply("hubTalkVer=20250202:02&dicomDicVer=20250101:00");
        // A failed dictionary download ends the check before the program.
        if (calls() != url("/varnesk_sundel/pieces/dicom.dic") + "\n") _exit(10);
        for (int i = 0; i < 19; ++i) reply("hubTalkVer=20250202:02");
    });
    EXPECT_EQ(status, 0);
    EXPECT_EQ(inst("vshubTalk"), "old program");
    EXPECT_FALSE(exists(install + "/vshubTalk.SV"));
    EXPECT_EQ(read("hubTalkVer.txt"), "20240101:10");
    EXPECT_EQ(calls(), url("/varnesk_sundel/pieces/dicom.dic") + "\n" + url("/varnesk_sundel/piecesX/hubTalk") + "\n");
}

TEST(SelfUpdateInstallation, DirectoryFromTheProgramPath) {
    resetSettings();
    locateProgram("hubTalk");
    EXPECT_EQ(installationDir(), "/Applications/Varnesk_Sundel/bin");
    locateProgram("/opt/box/bin/hubTalk");
    EXPECT_EQ(installationDir(), "/opt/box/bin");
    resetSettings();
}

}  // namespace
