// EMR outbound messages: exact bytes per EMR kind, read back by an HL7
// parser; hostile values; the link files; pruning; the SFTP drop against a
// real OpenSSH server.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <sstream>

#include "bounds.h"
#include "emr/hl7Writers.h"
#include "emr/ostiDrop.h"
#include "listenerClient.h"
#include "localServiceHarness.h"
#include "serviceLog.h"
#include "settings.h"

namespace {

// Prints the segment names with their field counts, then each asked
// field ("PID.5"), unescaped.
const char* const READ_BACK = R"(
import hl7, sys
m = hl7.parse(open(sys.argv[1]).read().replace("\n", "\r"))
print(" ".join("%s:%d" % (str(s[0]), len(s)) for s in m))
for a in sys.argv[2:]:
    name, n = a.split(".")
    print(m.unescape(str(m.segment(name)[int(n)])))
)";

struct Kind {
    int kind;
    const char* name;     // in the log line
    const char* file;
    const char* golden;
    const char* idField;  // where the patient ID goes first ("" for none)
    std::vector<std::pair<std::string, std::string>> fields;  // parsed back from the message
};

const std::string LINK = "https://127.0.0.1/permalinks/abcdefgh1.3.6.1.4.1.64523.7.1.pdf";
const char* const CTL = "171000000012345.hl7";
const std::vector<Kind> KINDS = {
    {3, "Centricity", "171000000012345.ht", "centricity.ht", "PID.3",
     {{"PID.3", "P1234"}, {"PID.5", "DOE^JANE^Q"}, {"OBX.5", LINK}, {"TXA.5", "SMITH^JOHN^MD"}}},
    {4, "Allscripts", CTL, "allscripts.hl7", "", {{"OBR.16", "^SMITH^JOHN^^^^^N"}, {"MSH.10", "171000000012345"}}},
    {5, "eClinical", CTL, "eclinical.hl7", "PID.3",
     {{"PID.5", "DOE^JANE^Q"}, {"OBR.4", "US01^US Pelvis"}, {"OBR.16", "SJ7^SMITH^JOHN"}}},
    {6, "Sevocity", CTL, "sevocity.hl7", "PID.2", {{"MSH.6", "box7"}, {"PID.3", "P1234"}, {"OBX.5", LINK}}},
    {7, "Medent", CTL, "medent.hl7", "PID.2", {{"PID.5", "DOE^JANE^Q"}, {"MSH.10", "171000000012345"}}},
    {8, "OSTI", CTL, "osti.hl7", "PID.2", {{"PID.5", "DOE^JANE^Q"}, {"PV1.7", "SJ7^SMITH^JOHN"}, {"ZID.2", LINK}}},
    {9, "Meditouch", "5678.hl7", "meditouch.hl7", "PID.2",
     {{"MSH.6", "Clinic Facility"}, {"OBR.16", "SJ7^SMITH^JOHN"}, {"OBX.5", LINK}}},
};

StudyRecord exampleStudy() {
    StudyRecord s;
    s.dateTime = "20240305070809", s.dateTimeDashed = "2024-03-05-07-08-09", s.birthDate = "19800102";
    s.description = "US Pelvis", s.patientId = "P1234", s.studyId = "5678", s.reportLink = LINK;
    s.studyUid = "1.3.6.1.4.1.64523.7.1", s.accession = "ACC1", s.controlId = "171000000012345";
    s.firstName = "JANE", s.lastName = "DOE", s.middleName = "Q", s.sex = "F", s.patientName = "DOE^JANE^Q";
    s.physician = "SMITH^JOHN^MD", s.physicianLast = "SMITH", s.physicianFirst = "JOHN";
    return s;
}

void setText(char* setting, const std::string& value) { snprintf(setting, 256, "%s", value.c_str()); }

class Hl7WritersTest : public ServiceTest {
protected:
    Hl7WritersTest() {
        resetSettings();
        setText(dataDir, data.path());
        setText(HL7_dir, out.path());
        setText(HL7_cache, cache.path());
        spit(data.file("codes.csv"), "smith,John Smith,SJ7\n"), setText(ShortCodeFile, data.file("codes.csv"));
        spit(data.file("tests.txt"), "US01^US Pelvis\n"), setText(TestCodeFile, data.file("tests.txt"));
        spit(data.file("acct.txt"), Util::encipher("Clinic Facility"));
        QUIET = true;
    }
    ~Hl7WritersTest() override {
        flushServiceLog(60);
        resetSettings();
    }
    // What the service received, the log lines queued behind the writer included.
    std::vector<std::string> sent() {
        EXPECT_TRUE(flushServiceLog(60));
        return svc.commands();
    }
    std::string ledger() {
        std::string all;
        for (const auto& name : entriesOf(data.file("ledger"))) all += slurp(data.file("ledger/" + name));
        return all;
    }

    // The segment summary line, then the asked fields.
    std::vector<std::string> readBack(const std::string& path, std::vector<std::string> fields) {
        fields.insert(fields.begin(), {"/usr/bin/python3", "-c", READ_BACK, path});
        RunResult r = runProgram(fields);
        EXPECT_EQ(r.status, 0) << r.err;
        std::vector<std::string> lines(fields.size() - 3);
        std::istringstream in(r.out);
        for (auto& line : lines) std::getline(in, line);
        return lines;
    }

    TempDir out, cache;
};

TEST_F(Hl7WritersTest, EachKindWritesItsMessageParsedBackAndLogged) {
    for (const Kind& k : KINDS) {
        SCOPED_TRACE(k.golden);
        writeStudy(k.kind, exampleStudy());
        std::string message = slurp(out.file(k.file));
        EXPECT_EQ(message, slurp(std::string(TEST_SOURCE_DIR) + "/data/emr/" + k.golden));
        std::vector<std::string> names;
        for (auto& f : k.fields) names.push_back(f.first);
        auto got = readBack(out.file(k.file), names);
        for (size_t i = 0; i < names.size(); ++i) EXPECT_EQ(got[i + 1], k.fields[i].second) << names[i];
        auto c = sent();
        EXPECT_NE(std::find(c.begin(), c.end(), "box7|LOG|msg|" + std::string(k.name) + " Sundel:  HL7 Message written to " +
                                                     out.path() + " / " + k.file + " : " + message),
                  c.end());
        EXPECT_NE(ledger().find("\temr\t" + std::string(k.file) + "\t-\t" + std::to_string(message.size()) + "\tok\t"),
                  std::string::npos);
        unlink(out.file(k.file).c_str());
    }
}

// Separators and line ends inside values stay inside their field; the
// parser gives the value back, line ends as blanks.
TEST_F(Hl7WritersTest, HostileValuesStayInTheirFields) {
    StudyRecord hostile = exampleStudy();
    hostile.lastName = "O|B^R~I\\E&N$\r\nOBX|9";
    hostile.patientId = "P|1^2\r";
    hostile.physicianLast = "SM|ITH\nZZZ";
    hostile.reportLink = LINK + "|x\\y";
    for (const Kind& k : KINDS) {
        SCOPED_TRACE(k.golden);
        writeStudy(k.kind, exampleStudy());
        std::string shape = readBack(out.file(k.file), {})[0];
        writeStudy(k.kind, hostile);
        auto got = readBack(out.file(k.file), *k.idField ? std::vector<std::string>{k.idField, "PID.5"}
                                                         : std::vector<std::string>{});
        EXPECT_EQ(got[0], shape);
        if (*k.idField) {
            EXPECT_EQ(got[1] + "," + got[2].substr(0, 20), "P|1^2 ,O|B^R~I\\E&N$  OBX|9^");
        }
    }
}

TEST_F(Hl7WritersTest, EmptyAccessionIsDefEverywhere) {
    StudyRecord s = exampleStudy();
    s.accession.clear();
    for (int kind : {5, 8, 9}) {
        writeStudy(kind, s);
        EXPECT_EQ(readBack(out.file(kind == 9 ? "5678.hl7" : "171000000012345.hl7"), {"OBR.2"})[1], "DEF") << kind;
    }
    setText(HL7_inputDir, cache.path());
    writeStudy(1, s);
    EXPECT_NE(slurp(out.file("P1234-DEF.txt")).find("\"accession_number\": \"DEF\""), std::string::npos);
    EXPECT_EQ(slurp(out.file("P1234-DEF-1.txt")), s.studyUid);
}

TEST_F(Hl7WritersTest, LinkFilesShortAndLongForm) {
    const std::string golden = std::string(TEST_SOURCE_DIR) + "/data/emr/";
    StudyRecord s = exampleStudy();
    writeStudy(1, s);
    EXPECT_EQ(slurp(out.file("P1234.txt")), s.studyUid);
    EXPECT_EQ(slurp(out.file(s.studyUid)), LINK);
    EXPECT_EQ(slurp(out.file("P1234.info")), slurp(golden + "link-short.info"));

    // Listed already (even as the last entry): untouched, time included.
    spit(out.file("P1234.txt"), "1.2.3|" + s.studyUid + "\n");
    timespec old[2] = {{1000000000, 0}, {1000000000, 0}};
    utimensat(AT_FDCWD, out.file("P1234.txt").c_str(), old, 0);
    setText(HL7_inputDir, cache.path());
    writeStudy(1, s);
    struct stat st {};
    stat(out.file("P1234.txt").c_str(), &st);
    EXPECT_EQ(st.st_mtime, 1000000000);
    EXPECT_EQ(slurp(out.file("P1234-ACC1.txt")), slurp(golden + "link-long.txt"));
    EXPECT_EQ(slurp(out.file("P1234-ACC1-1.txt")), s.studyUid);

    // A UID that only begins like a listed one is another study.
    s.studyUid = "1.2";
    writeStudy(1, s);
    EXPECT_EQ(slurp(out.file("P1234.txt")), "1.2.3|1.3.6.1.4.1.64523.7.1|1.2");
}

TEST_F(Hl7WritersTest, NetworkValuesNameFilesOnlyInsideTheDirectory) {
    EXPECT_EQ(safeFileName("a\\b\nc") + safeFileName("") + safeFileName("ok-1.2"), "a_b_c_ok-1.2");
    EXPECT_EQ(safeFileName(std::string(300, 'x')).size(), Limits::EMR_FILE_NAME_MOST);
    StudyRecord s = exampleStudy();
    s.patientId = "../escaped", s.studyUid = "/tmp/../x", s.controlId = "../../ctl";
    writeStudy(1, s);
    writeStudy(3, s);
    EXPECT_EQ(entriesOf(out.path()),
              (std::vector<std::string>{"_.._.._ctl.ht", "_.._escaped.info", "_.._escaped.txt", "_tmp_.._x"}));
}

// The report converter gets the cached PDF and the output directory; its
// failure is logged.
TEST_F(Hl7WritersTest, AttachmentsThroughReportConverter) {
    EMR_PDF = true;
    setText(PROCESS_DIR, data.path());
    spit(data.file("reportcast"), "#!/bin/sh\necho \"$@\" > \"$0.args\"\nexit 3\n");
    chmod(data.file("reportcast").c_str(), 0755);
    StudyRecord s = exampleStudy();
    spit(cache.file(s.studyUid + ".pdf"), "%PDF");
    writeStudy(3, s);
    EXPECT_EQ(slurp(cache.file(s.studyUid + ".pdf.txt")), slurp(out.file("171000000012345.ht")));
    EXPECT_EQ(slurp(data.file("reportcast.args")), "-v --sundel --data-dir " + data.path() + " --process-dir " +
                                                     data.path() + " --cache-dir " + cache.path() + " " +
                                                     cache.file(s.studyUid + ".pdf") + " " + out.path() + "\n");
    auto c = sent();
    EXPECT_EQ(c.at(c.size() - 2), "box7|LOG|msg|EMR Sundel: reportcast FAILED");
}

// A throw-away account on a real OpenSSH server on loopback receives the
// message and the study's attachment; the host key is pinned on first use.
TEST_F(Hl7WritersTest, OstiDropOverSftp) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root to add an account for the SFTP server";
    if (!exists("/usr/sbin/sshd") || !exists("/usr/bin/sshpass") || !exists("/usr/sbin/useradd"))
        GTEST_SKIP() << "openssh-server, sshpass or useradd missing";
    TempDir server;
    chmod(server.path().c_str(), 0755);
    struct Account {
        std::string user = "htdrop" + std::to_string(getpid());
        ~Account() { runProgram({"/usr/sbin/userdel", "-r", user}); }
    } account;
    ASSERT_EQ(runProgram({"/usr/sbin/useradd", "-m", "-d", server.file("home"), "-s", "/bin/sh", account.user}).status, 0);
    ASSERT_EQ(runProgram({"/bin/sh", "-c", "echo \"$0:$1\" | /usr/sbin/chpasswd", account.user, "Wm47Brax$"}).status, 0);
    ASSERT_EQ(runProgram({"/usr/bin/ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", server.file("hostkey")}).status, 0);
    mkdir("/run/sshd", 0755);
    int port = freePort();
    spit(server.file("sshd_config"), "Port " + std::to_string(port) + "\nListenAddress 127.0.0.1\nHostKey " +
                                         server.file("hostkey") + "\nPidFile none\nUsePAM no\nStrictModes no\n"
                                         "PasswordAuthentication yes\nPubkeyAuthentication no\nAllowUsers " +
                                         account.user + "\nSubsystem sftp internal-sftp\n");
    ChildProcess sshd({"/usr/sbin/sshd", "-D", "-e", "-f", server.file("sshd_config")}, server.path(),
                      server.file("sshd.out"), server.file("sshd.err"));
    auto listening = [port] { int fd = connectTo(port, "127.0.0.1", 1); return fd >= 0 && close(fd) == 0; };
    ASSERT_TRUE(waitUntil(listening, 10000)) << slurp(server.file("sshd.err"));
    StudyRecord s = exampleStudy();
    const std::string pdf = s.studyUid + ".pdf", home = server.file("home/");
    spit(out.file(pdf), "%PDF-1.4 report");

    writeStudy(8, s);
    EXPECT_NE(sent().back().find("no SFTP account set"), std::string::npos);

    spit(data.file("ostiAccount.txt"), account.user);
    spit(data.file("ostiPort.txt"), std::to_string(port));
    writeStudy(8, s);
    EXPECT_EQ(slurp(home + CTL) + slurp(home + pdf), slurp(out.file(CTL)) + "%PDF-1.4 report")
        << slurp(server.file("sshd.err"));
    EXPECT_EQ(runProgram({"/usr/bin/ssh-keygen", "-F", "[127.0.0.1]:" + std::to_string(port), "-f",
                          data.file("osti_known_hosts")}).status, 0);

    spit(data.file("ostiPort.txt"), std::to_string(freePort()));
    writeStudy(8, s);
    auto c = sent();
    EXPECT_EQ(c.at(c.size() - 2).rfind("box7|LOG|msg|OSTI Sundel:  sftp command failed when attempting to send HL7 message: "
                                    "sshpass -e sftp -oBatchMode=no -b - -P ", 0), 0u);
    EXPECT_EQ(c.back().rfind("box7|LOG|msg|OSTI Sundel:  sftp command failed for attachments: ", 0), 0u);
    for (auto& line : c) EXPECT_EQ(line.find("Wm47Brax"), std::string::npos);
}

// A drop that never answers, and whose client ignores SIGTERM, is cut off at
// the bound with the whole process group; the pass then goes on.
TEST_F(Hl7WritersTest, HungDropIsStoppedAtItsBound) {
    TempDir bin;
    const std::string grandchild = bin.file("grandchild");
    spit(bin.file("sshpass"), "#!/bin/sh\ntrap '' TERM\nsleep 1000 &\necho $! > " + grandchild + "\nwait\n");
    chmod(bin.file("sshpass").c_str(), 0755);
    std::string path = getenv("PATH");
    setenv("PATH", (bin.path() + ":" + path).c_str(), 1);
    spit(data.file("ostiAccount.txt"), "drop");
    std::string details;
    bool put = sftpPut({CTL}, &details);
    setenv("PATH", path.c_str(), 1);
    EXPECT_FALSE(put);
    EXPECT_NE(details.find(": stopped after " + std::to_string(Limits::OSTI_DROP_TIMEOUT_S) + " s"),
              std::string::npos) << details;
    std::string pid = slurp(grandchild);
    pid = pid.substr(0, pid.find('\n'));
    ASSERT_FALSE(pid.empty());
    // Gone, or a zombie waiting for whoever adopted it.
    std::string stat = slurp("/proc/" + pid + "/stat");
    bool gone = stat.empty() || stat.find(") Z ") != std::string::npos;
    EXPECT_TRUE(gone) << stat;
    if (!gone) kill(std::stoi(pid), SIGKILL);
}

TEST(Hl7GcDir, RemovesOnlyOldFilesOfTheBridge) {
    TempDir dir, outside;
    spit(outside.file("target.hl7"), "x");
    for (const char* name : {"a.hl7", "b.ht", "c.info", "P1.txt", "1.2.840.5", "u.pdf", "keep.cfg", ".hidden.hl7"})
        spit(dir.file(name), "x");
    mkdir(dir.file("sub.hl7").c_str(), 0775);
    symlink(outside.file("target.hl7").c_str(), dir.file("link.hl7").c_str());
    time_t old = time(nullptr) - (Limits::EMR_FILE_RETENTION_DAYS + 1) * 86400;
    timespec t[2] = {{old, 0}, {old, 0}};
    std::vector<std::string> all = {outside.file("target.hl7"), dir.file(".hidden.hl7")};
    for (const std::string& name : entriesOf(dir.path())) all.push_back(dir.file(name));
    for (const std::string& path : all) utimensat(AT_FDCWD, path.c_str(), t, AT_SYMLINK_NOFOLLOW);
    spit(dir.file("fresh.hl7"), "x");
    EXPECT_EQ(gcDir(dir.path().c_str()), 6);
    EXPECT_EQ(entriesOf(dir.path()), (std::vector<std::string>{"fresh.hl7", "keep.cfg", "link.hl7", "sub.hl7"}));
    EXPECT_TRUE(exists(dir.file(".hidden.hl7")));
    EXPECT_EQ(slurp(outside.file("target.hl7")), "x");
}

}  // namespace
