// Provider short codes and test codes: the file layouts, lookups, bad files,
// and the reload before each study with its reports to the service.
#include <gtest/gtest.h>
#include <utime.h>

#include <ctime>
#include <string>
#include <vector>

#include "emr/codeTables.h"
#include "localServiceHarness.h"
#include "settings.h"

namespace {

struct Layout {
    int fields, code, key, first, second, name;
};
const Layout THREE{3, 2, 0, 1, -1, -1}, FIVE{5, 3, 4, -1, -1, 2}, SEVEN{7, 5, 1, -1, -1, 3},
    JOINED{4, 3, 0, 1, 2, -1};

int load(const TempDir& d, const std::string& content, const Layout& l) {
    spit(d.file("codes"), content);
    return loadCodes(d.file("codes").c_str(), l.fields, l.code, l.key, l.first, l.second, l.name, ',');
}

void setModified(const std::string& path, time_t when) {
    struct utimbuf t{when, when};
    utime(path.c_str(), &t);
}

}  // namespace

TEST(CodeTables, LayoutsAndLookups) {
    struct Lookup {
        const char *first, *middle, *last, *code;
    };
    struct Case {
        const char* what;
        std::string file;
        Layout layout;
        std::vector<Lookup> lookups;
    };
    const std::string big(1 << 20, 'x');
    const Case cases[] = {
        {"repeated last names and name cuts", "Smith,John,S1\nsmith, Jane ,S2\nSMITH,Robert A,S3\n",
         THREE,
         {{"Jane", "", "Smith", "S2"}, {"robert", "", "smith", "S3"}, {"JOHN", "", " smith ", "S1"},
          {"Mary", "", "Smith", ""}, {"Jane", "", "Smith-Jones", "S2"}, {"Jane", "", "Smyth", ""}}},
        {"middle name picks the fuller record", "lee,ann b,L1\nlee,ann c,L2\n", THREE,
         {{"Ann", "C", "Lee", "L2"}, {"Ann", "", "Lee", "L1"}, {"", "c", "lee", "L2"}}},
        {"quoted stretch is one field", "a,b,\"Jones, Mary\",M7,Jones\nx,y,Kim Sue,K7,kim\n", FIVE,
         {{"mary", "", "jones", "M7"}, {"Sue", "", "Kim", "K7"}}},
        {"TAB from line 5 on", "a,A,1\nb,B,2\nc,C,3\nd,D,4\ne\tE\t5\nf,F,6\ng\tG\t7\n", THREE,
         {{"A", "", "a", "1"}, {"E", "", "e", "5"}, {"F", "", "f", ""}, {"G", "", "g", "7"}}},
        {"blank line ends the file", "a,A,1\n   \nb,B,2\n", THREE, {{"A", "", "a", "1"}, {"B", "", "b", ""}}},
        {"seven fields", "1,Doe,3,john q,5,D9,7\n1,Roe,3,jim,5,R9\n", SEVEN,
         {{"John", "", "Doe", "D9"}, {"Jim", "", "Roe", ""}}},
        {"two name columns joined", "ng,Tom,Lee,N1\n", JOINED, {{"tom lee", "", "ng", "N1"}}},
        {"binary and 1 MB lines", "a,A,1\n" + big + "\n\x01\xff,\x80," + std::string(1, '\0') + "x\n" + big +
                                      ",B,2\nc,C,3\n",
         THREE, {{"A", "", "a", "1"}, {"C", "", "c", "3"}, {"B", "", big.c_str(), ""}}},
    };
    for (const Case& c : cases) {
        TempDir d;
        ASSERT_EQ(0, load(d, c.file, c.layout)) << c.what;
        for (const Lookup& l : c.lookups)
            EXPECT_EQ(getShortCode(l.first, l.middle, l.last), l.code) << c.what << ": " << l.first;
    }
}

TEST(CodeTables, BadFilesLeaveThePreviousTable) {
    TempDir d;
    ASSERT_EQ(0, load(d, "keep,Kim B,1\n", THREE));
    for (const Layout& l : {THREE, FIVE, SEVEN}) EXPECT_EQ(-2, load(d, "a,b,c,d\na,A,1\n", l));
    EXPECT_EQ(-2, load(d, "\na,A,1\n", THREE));
    std::string err = stderrOf([&] {
        EXPECT_EQ(-1, loadCodes(d.file("none").c_str(), 3, 2, 0, 1, -1, -1, ','));
        EXPECT_EQ(-1, loadTests(d.file("none").c_str()));
    });
    EXPECT_EQ(err, "CodeFile (" + d.file("none") + ") cannot be found\nTestCodeFile (" + d.file("none") +
                       ") cannot be found\n");
    std::string matched;
    EXPECT_EQ(getShortCode("KIM", "", "keep", &matched), "1");
    EXPECT_EQ(matched, "kim b");
}

TEST(CodeTables, TestCodes) {
    TempDir d;
    spit(d.file("tests"), "\"US1\" ^ \"US Pelvis < 12 Weeks\"\nCT2^ct head\nCT3^CT Head\nnocaret\n\nX^after\n");
    ASSERT_EQ(0, loadTests(d.file("tests").c_str()));
    const std::pair<const char*, const char*> lookups[] = {
        {"US Pelvis \\u003c 12 weeks", "US1"}, {" ct  HEAD ", "CT3"}, {"after", ""}, {"", ""}, {"nocaret", ""}};
    for (const auto& [description, code] : lookups) EXPECT_EQ(getTestCode(description), code) << description;
    spit(d.file("bad"), "no caret\nA^b\n");
    EXPECT_EQ(-2, loadTests(d.file("bad").c_str()));
    EXPECT_EQ(getTestCode("ct head"), "CT3");
}

class Refresh : public ServiceTest {
protected:
    void SetUp() override {
        resetSettings();
        snprintf(dataDir, sizeof dataDir, "%s", dir());
        snprintf(ShortCodeFile, sizeof ShortCodeFile, "%s", data.file("short.csv").c_str());
        snprintf(TestCodeFile, sizeof TestCodeFile, "%s", data.file("tests.txt").c_str());
    }
    void TearDown() override { resetSettings(); }
};

TEST_F(Refresh, ReloadsChangedFilesAndReportsBadOnes) {
    auto loggedOnce = [&](const std::string& text, const char* path) {
        return svc.countStartingWith("box7|LOG|msg|" + text + "  " + path) == 1;
    };
    refreshShortCodes(false);
    refreshTestCodes();
    EXPECT_TRUE(loggedOnce("Missing shortCode File here:", ShortCodeFile));
    EXPECT_TRUE(loggedOnce("Missing testCode File here:", TestCodeFile));

    spit(ShortCodeFile, "a,b,c,d\n");
    spit(TestCodeFile, "no caret\n");
    refreshShortCodes(true);
    refreshTestCodes();
    EXPECT_TRUE(loggedOnce("shortCode File has wrong number of fields:", ShortCodeFile));
    EXPECT_TRUE(loggedOnce("testCode File has wrong number of fields:", TestCodeFile));
    refreshShortCodes(false);
    EXPECT_TRUE(loggedOnce("ShortCode File has wrong number of fields:", ShortCodeFile));

    // eClinical reads the 3-field layout when the 5-field one does not fit.
    spit(ShortCodeFile, "doe,jane,D1\n");
    spit(TestCodeFile, "T1^echo\n");
    refreshShortCodes(true);
    refreshTestCodes();
    EXPECT_EQ(getShortCode("jane", "", "doe"), "D1");
    EXPECT_EQ(getTestCode("echo"), "T1");

    // Unchanged and fresh: kept. Modified after the load: read again.
    spit(ShortCodeFile, "doe,jane,D2\n");
    setModified(ShortCodeFile, time(nullptr) - 100);
    refreshShortCodes(false);
    EXPECT_EQ(getShortCode("jane", "", "doe"), "D1");
    setModified(ShortCodeFile, time(nullptr) + 5);
    refreshShortCodes(false);
    EXPECT_EQ(getShortCode("jane", "", "doe"), "D2");
}
