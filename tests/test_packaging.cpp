// scripts/install.sh into temporary directories (with blanks in their names),
// from the build these tests belong to, and the service definitions it writes.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

#include "testUtil.h"

namespace {

const std::string kBin = HUBTALK_BIN;
const std::string kToolDir = kBin.substr(0, kBin.rfind('/'));
const std::string kBuildDir = kToolDir.substr(0, kToolDir.rfind('/'));

struct Box {
    TempDir tmp;
    std::string prefix = tmp.file("opt/hub talk"), data = tmp.file("var/hub data"), units = tmp.file("units");
    Box() { mkdir(units.c_str(), 0755); }
    RunResult install(const std::vector<std::string>& more = {}) const {
        std::vector<std::string> argv = {"/bin/sh", std::string(TEST_SOURCE_DIR) + "/../scripts/install.sh",
                                         "--no-build", "--build", kBuildDir, "--prefix", prefix, "--data", data,
                                         "--unit-dir", units};
        argv.insert(argv.end(), more.begin(), more.end());
        return runProgram(argv, tmp.path(), 120);
    }
};

bool placeholderLeft(const std::string& text) {
    return text.find("@PREFIX@") != std::string::npos || text.find("@DATA@") != std::string::npos;
}

bool executable(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && (st.st_mode & 0111) == 0111;
}

TEST(Packaging, ReinstallReplacesProgramsAndKeepsDataAndEnvironment) {
    Box box;
    RunResult first = box.install();
    ASSERT_EQ(first.status, 0) << first.err;
    const std::string env = box.prefix + "/etc/hubTalk.env";
    spit(box.data + "/hostName.txt", "box-7");
    spit(env, slurp(env) + "HUBTALK_OPTIONS=\"-q -v\"\n");
    spit(box.prefix + "/bin/download", "stale");
    const std::string edited = slurp(env);
    RunResult second = box.install();
    ASSERT_EQ(second.status, 0) << second.err;
    EXPECT_EQ(slurp(box.data + "/hostName.txt"), "box-7");
    EXPECT_EQ(slurp(env), edited);
    EXPECT_NE(second.out.find("kept " + env), std::string::npos) << second.out;
    // Every program built beside the agent, and nothing half written.
    std::vector<std::string> built;
    for (const std::string& name : entriesOf(kToolDir))
        if (executable(kToolDir + "/" + name)) built.push_back(name);
    for (const char* name : {"hubTalk", "download"})
        EXPECT_NE(std::find(built.begin(), built.end(), name), built.end()) << name;
    EXPECT_EQ(entriesOf(box.prefix + "/bin"), built);
    for (const std::string& name : built) {
        EXPECT_TRUE(executable(box.prefix + "/bin/" + name)) << name;
        EXPECT_EQ(slurp(box.prefix + "/bin/" + name), slurp(kToolDir + "/" + name)) << name;
    }
}

TEST(Packaging, SystemdUnitVerifies) {
    if (system("command -v systemd-analyze >/dev/null 2>&1") != 0) {
        const char* ci = getenv("CI");
        if (ci && std::string(ci) == "true") FAIL() << "systemd-analyze is missing (scripts/bootstrap.sh installs it)";
        GTEST_SKIP() << "systemd-analyze is missing";
    }
    Box box;
    RunResult installed = box.install();
    ASSERT_EQ(installed.status, 0) << installed.err;
    const std::string unit = box.units + "/hubTalk.service";
    EXPECT_FALSE(placeholderLeft(slurp(unit)));
    // Only this unit: no man pages, and the units it names are not verified in turn.
    RunResult verify = runProgram({"/usr/bin/env", "systemd-analyze", "verify", "--man=no",
                                   "--recursive-errors=no", unit});
    EXPECT_EQ(verify.status, 0) << verify.err;
    // Unknown or malformed settings are only warned about.
    EXPECT_EQ((verify.out + verify.err).find("hubTalk.service"), std::string::npos) << verify.out << verify.err;
}

TEST(Packaging, LaunchdPropertyListNamesTheInstalledAgent) {
    Box box;
    RunResult installed = box.install({"--launchd"});
    ASSERT_EQ(installed.status, 0) << installed.err;
    RunResult list = runProgram({"/usr/bin/env", "python3", "-c",
                                 "import plistlib, sys\n"
                                 "p = plistlib.load(open(sys.argv[1], 'rb'))\n"
                                 "print('\\n'.join([p['Label']] + p['ProgramArguments']))",
                                 box.units + "/hubTalk.plist"});
    ASSERT_EQ(list.status, 0) << list.err;
    EXPECT_FALSE(placeholderLeft(slurp(box.units + "/hubTalk.plist")));
    EXPECT_EQ(list.out, "hubTalk\n" + box.prefix + "/bin/hubTalk\n-d\n" + box.data + "\n-q\n");
    EXPECT_TRUE(executable(box.prefix + "/bin/hubTalk"));
}

TEST(Packaging, BadArgumentsAreRefusedBeforeAnythingIsMade) {
    const struct {
        std::vector<std::string> args;
        const char* message;
    } cases[] = {
        {{"--prefix", "opt/hubTalk"}, "--prefix must be an absolute path"},
        {{"--data", ""}, "--data is empty"},
        {{"--data", "/var/lib/hub\ntalk"}, "--data may not contain a newline"},
        {{"--prefix", "/opt/$HOME"}, "--prefix may not contain"},
        {{"--prefix"}, "--prefix needs a value"},
        {{"--prefix", "--data", "/var/lib/x"}, "--prefix needs a value"},
        {{"--unit-dir", "/nonexistent/units"}, "unit directory /nonexistent/units does not exist"},
        {{"--enable"}, "--enable needs the system's unit directory"},
        {{"--bogus"}, "unknown argument: --bogus"},
    };
    for (const auto& c : cases) {
        Box box;
        RunResult r = box.install(c.args);
        EXPECT_NE(r.status, 0) << c.message;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << r.err;
        EXPECT_EQ(entriesOf(box.tmp.path()), std::vector<std::string>{"units"}) << c.message;
        EXPECT_TRUE(entriesOf(box.units).empty()) << c.message;
    }
}

}  // namespace
