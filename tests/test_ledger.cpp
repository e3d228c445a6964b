// The delivery ledger: whole lines from many threads, hostile values, pruning
// by date, a ledger that cannot be written, and the lines of a real upload
// and a routed item.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <filesystem>
#include <functional>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

#include "exportSender.h"
#include "ledger.h"
#include "localServiceHarness.h"
#include "router.h"
#include "settings.h"

namespace {

const std::string CT = "/usr/lib/python3/dist-packages/pydicom/data/test_files/CT_small.dcm";

// Every line of the ledger's files, split at tabs.
std::vector<std::vector<std::string>> ledgerLines(const std::string& dir, std::string* raw = nullptr) {
    std::string all;
    for (const std::string& name : entriesOf(dir + "/ledger")) all += slurp(dir + "/ledger/" + name);
    if (raw) *raw = all;
    std::vector<std::vector<std::string>> lines;
    std::istringstream in(all);
    for (std::string line; std::getline(in, line);) {
        lines.emplace_back();
        std::istringstream cols(line);
        for (std::string c; std::getline(cols, c, '\t');) lines.back().push_back(c);
    }
    return lines;
}

std::string columns(const std::vector<std::string>& f, std::initializer_list<size_t> which) {
    std::string out;
    for (size_t i : which) out += (out.empty() ? "" : "|") + (i < f.size() ? f[i] : "<none>");
    return out;
}

void record(const std::string& dir, const std::string& item) {
    LedgerEntry e;
    e.kind = "upload";
    e.item = item;
    ledgerRecord(dir.c_str(), e);
}

class Delivered : public ServiceTest {
protected:
    void SetUp() override {
        resetSettings();
        snprintf(dataDir, sizeof dataDir, "%s", dir());
    }
    void TearDown() override { resetSettings(); }
};

}  // namespace

TEST(Ledger, LinesFromManyThreadsStayWhole) {
    TempDir data;
    const int threads = 8, each = 400;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
        pool.emplace_back([&, t] {
            for (int i = 0; i < each; ++i) record(data.path(), std::to_string(t * each + i) + std::string(1500, 'x'));
        });
    for (std::thread& t : pool) t.join();
    const std::regex stamp(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d[+-]\d\d:\d\d)");
    std::set<std::string> items;
    for (const auto& f : ledgerLines(data.path())) {
        ASSERT_EQ(8u, f.size());
        EXPECT_TRUE(std::regex_match(f[0], stamp)) << f[0];
        EXPECT_EQ("upload|-|-|ok|0.000|-", columns(f, {1, 3, 4, 5, 6, 7}));
        items.insert(f[2]);
    }
    EXPECT_EQ(size_t(threads * each), items.size());
}

// Stamps carry the zone's offset, half hours and west of UTC too, and the
// day's file is named by the local date; a zone changed meanwhile is taken up
// at the next prune.
TEST(Ledger, StampsFollowTheZone) {
    const char* before = getenv("TZ");
    std::string saved = before ? before : "";
    const struct {
        const char* zone;
        const char* offset;
    } zones[] = {{"UTC0", "+00:00"}, {"IST-05:30", "+05:30"}, {"NST+03:30", "-03:30"}, {"XST+11", "-11:00"}};
    for (const auto& z : zones) {
        TempDir data;
        setenv("TZ", z.zone, 1);
        ledgerPrune(data.path().c_str(), time(nullptr));
        record(data.path(), "x");
        auto lines = ledgerLines(data.path());
        std::vector<std::string> files = entriesOf(data.file("ledger"));
        ASSERT_EQ(1u, lines.size()) << z.zone;
        ASSERT_EQ(1u, files.size()) << z.zone;
        const std::string& stamp = lines[0][0];
        EXPECT_EQ(z.offset, stamp.substr(stamp.size() - 6)) << stamp;
        EXPECT_EQ(stamp.substr(0, 10) + ".tsv", files[0]) << z.zone;
    }
    if (before) setenv("TZ", saved.c_str(), 1); else unsetenv("TZ");
    tzset();
}

TEST(Ledger, HostileValuesStayOneLine) {
    TempDir data;
    LedgerEntry e{"upload", "a\tb\r\nc", "1.2\t3", 0, "no\nway", 1.23456, "h\t1"};
    ledgerRecord(data.path().c_str(), e);
    record(data.path(), std::string(10240, 'y'));
    std::string raw;
    auto lines = ledgerLines(data.path(), &raw);
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ("a b  c|1.2 3|0|no way|1.235|h 1", columns(lines[0], {2, 3, 4, 5, 6, 7}));
    EXPECT_EQ("8|-|ok", std::to_string(lines[1].size()) + "|" + columns(lines[1], {3, 5}));
    EXPECT_EQ(Limits::LEDGER_LINE_MOST, raw.size() - raw.find('\n') - 1);
    EXPECT_EQ('\n', raw.back());
}

TEST(Ledger, PruneRemovesOnlyOldLedgerFiles) {
    tm noon{};
    noon.tm_year = 124, noon.tm_mon = 5, noon.tm_mday = 15, noon.tm_hour = 12, noon.tm_isdst = -1;
    const time_t now = mktime(&noon);  // 2024-06-15
    const std::vector<std::string> others = {"notes.txt", "2024-01-01.tsv.gz", "2024-02-30.tsv", "1999-12-31.TSV"};
    struct Case {
        const char* days;
        std::vector<std::string> kept, removed;
    } cases[] = {
        {nullptr, {"2024-06-15.tsv", "2024-03-17.tsv"}, {"2024-03-16.tsv", "1999-12-31.tsv"}},
        {"12x", {"2024-03-17.tsv"}, {"2024-03-16.tsv"}},
        {"0", {"2024-03-17.tsv"}, {"2024-03-16.tsv"}},
        {" 10\n", {"2024-06-05.tsv"}, {"2024-06-04.tsv", "2024-03-17.tsv"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.days ? c.days : "missing");
        TempDir data;
        std::string dir = data.file("ledger");
        mkdir(dir.c_str(), 0755);
        mkdir((dir + "/2000-01-01.tsv").c_str(), 0755);
        if (c.days) spit(data.file("ledgerDays.txt"), c.days);
        for (const auto& list : {c.kept, c.removed, others})
            for (const std::string& name : list) spit(dir + "/" + name, "x");
        EXPECT_EQ(int(c.removed.size()), ledgerPrune(data.path().c_str(), now));
        EXPECT_TRUE(exists(dir + "/2000-01-01.tsv"));
        for (const auto& list : {c.kept, others})
            for (const std::string& name : list) EXPECT_TRUE(exists(dir + "/" + name)) << name;
        for (const std::string& name : c.removed) EXPECT_FALSE(exists(dir + "/" + name)) << name;
    }
}

TEST(Ledger, UnwritableLedgerIsSaidOnceAndUploadsGoOn) {
    char day[16];
    time_t now = time(nullptr);
    tm local{};
    strftime(day, sizeof day, "%Y-%m-%d.tsv", localtime_r(&now, &local));
    std::pair<const char*, std::function<void(const std::string&)>> cases[] = {
        {"a file where the directory goes", [](const std::string& d) { spit(d + "/ledger", "x"); }},
        {"a full disk", [&](const std::string& d) {
             mkdir((d + "/ledger").c_str(), 0755);
             ASSERT_EQ(0, symlink("/dev/full", (d + "/ledger/" + day).c_str()));
         }},
    };
    for (const auto& [what, spoil] : cases) {
        SCOPED_TRACE(what);
        TempDir data;
        spoil(data.path());
        std::string said = stderrOf([&] {
            for (int i = 0; i < 5; ++i) record(data.path(), "lost");
        });
        EXPECT_TRUE(std::regex_match(said, std::regex("[^\n]*Delivery ledger off: [^\n]*\n"))) << said;
        std::filesystem::remove_all(data.file("ledger"));
        said = stderrOf([&] {
            for (int i = 0; i < 3; ++i) record(data.path(), "kept");
        });
        EXPECT_TRUE(std::regex_match(said, std::regex("[^\n]*Delivery ledger on again: [^\n]*\n"))) << said;
        EXPECT_EQ(3u, ledgerLines(data.path()).size());
    }
}

TEST_F(Delivered, ExportUploadLeavesItsLine) {
    std::string out = data.file("export");
    snprintf(viewpointDir, sizeof viewpointDir, "%s", out.c_str());
    mkdir(out.c_str(), 0775);
    const std::string image = slurp(CT);
    spit(out + "/ct.dcm", image);
    struct utimbuf settled{time(nullptr) - 60, time(nullptr) - 60};
    utime((out + "/ct.dcm").c_str(), &settled);
    int64_t timer = -1;
    svc.setFault(Fault::WrongKey);
    vp_loop_proc(&timer);
    svc.setFault(Fault::WrongKey, false);
    vp_loop_proc(&timer);
    EXPECT_FALSE(exists(out + "/ct.dcm"));
    auto lines = ledgerLines(dir());
    ASSERT_EQ(2u, lines.size());
    const std::string server = "127.0.0.1:" + std::to_string(svc.port());
    EXPECT_EQ(0u, lines[0][5].find("upload failed: Fatal error during TLS handshake:  key mismatch")) << lines[0][5];
    EXPECT_EQ("8|upload|ct.dcm|1.3.6.1.4.1.5962.1.1.1.1.1.20040119072730.12322|" + std::to_string(image.size()) +
                  "|ok|" + server,
              std::to_string(lines[1].size()) + "|" + columns(lines[1], {1, 2, 3, 4, 5, 7}));
    EXPECT_EQ(server, lines[0][7]);
}

TEST_F(Delivered, RoutedItemLeavesItsLine) {
    std::string bin = HUBTALK_BIN;
    snprintf(PROCESS_DIR, sizeof PROCESS_DIR, "%s", bin.substr(0, bin.rfind('/')).c_str());
    snprintf(ER_ip, sizeof ER_ip, "127.0.0.1");
    ER_port = freePort();  // nobody listens: the delivery fails
    svc.setPushFile("ct.dcm", CT);
    svc.queueReply("qDicom1", "5|STORE|ct.dcm");
    int64_t timestamp = -1;
    route_loop_proc(&timestamp);
    auto lines = ledgerLines(dir());
    ASSERT_EQ(1u, lines.size());
    EXPECT_EQ("8|route|5|" + std::to_string(slurp(CT).size()) + "|STORE@127.0.0.1:" + std::to_string(ER_port),
              std::to_string(lines[0].size()) + "|" + columns(lines[0], {1, 2, 4, 7}));
    EXPECT_EQ(0u, lines[0][5].find("Sundel:  router loop FAILED:  (dcmsend/measurecast) command failed")) << lines[0][5];
}
