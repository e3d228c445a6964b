// The EMR poll: what each study of the service's reply becomes, which
// studies are passed over, and how "timeSince.txt" moves.
#include <gtest/gtest.h>

#include <ctime>
#include <string>
#include <vector>

#include "localServiceHarness.h"
#include "settings.h"
#include "emr/studyPoll.h"

namespace {

std::string study(const std::string& uploaded, const std::string& id, const std::string& extra = "") {
    return "{\"uploaded_timestamp\": " + uploaded + ", \"id\": " + id +
           ", \"study_datetime\": \"2024-03-05T07:08:09Z\", \"patient_dob\": \"1980-01-02\", \"patient_id\": \"P1\","
           " \"accession_number\": \"\", \"description\": \"US Pelvis\","
           " \"links\": {\"permalink_pdf\": \"https://x.example/permalinks/abcdefgh1.2.3.4.pdf\"},"
           " \"patient\": {\"first_name\": \"JANE\", \"last_name\": \"DOE\", \"middle_name\": null, \"patient_sex\": \"F\"},"
           " \"referring_physician\": {\"composite\": \"DR. SMITH^JOHN^MD\"}" + extra + "}";
}

class Poll : public ServiceTest {
protected:
    void SetUp() override {
        resetSettings();
        snprintf(dataDir, sizeof dataDir, "%s", dir());
    }
    void TearDown() override { resetSettings(); }
    std::vector<StudyRecord> run(double since, const std::string& reply) {
        std::vector<StudyRecord> out;
        forEachNewStudy(since, reply.c_str(), [&](const StudyRecord& s) { out.push_back(s); });
        return out;
    }
};

TEST_F(Poll, StudyRecordFields) {
    auto got = run(100, "{\"Studies\": [" + study("200.5", "\"S-9\"") + "]}");
    ASSERT_EQ(got.size(), 1u);
    const StudyRecord& s = got[0];
    EXPECT_EQ(s.dateTime + " " + s.dateTimeDashed + " " + s.birthDate, "20240305070809 2024-03-05-07-08-09 19800102");
    EXPECT_EQ(s.studyId + " " + s.patientName + " " + s.sex + " " + s.accession, "S-9 DOE^JANE F ");
    EXPECT_EQ(s.reportLink, std::string(HUBTALK_WEB_ORIGIN) + "/permalinks/abcdefgh1.2.3.4.pdf");
    EXPECT_EQ(s.studyUid, "1.2.3.4");
    EXPECT_EQ(s.physician + "|" + s.physicianLast + "|" + s.physicianFirst + "|" + s.physicianMiddle, " SMITH^JOHN^MD|SMITH|JOHN|");
    EXPECT_EQ(s.controlId.size() >= 11, true);
    EXPECT_EQ(slurp(data.file("timeSince.txt")), "200.500");

    // Lower-case array: integer ids; short dates pass unchanged.
    got = run(0, "{\"studies\": [" + study("300", "42", ", \"study_datetime\": \"2024-03-05\", \"patient_dob\": \"1980\"") + "]}");
    ASSERT_EQ(got.size(), 1u);
    EXPECT_EQ(got[0].studyId + " " + got[0].dateTime + " " + got[0].birthDate, "42 2024-03-05 1980");
}

TEST_F(Poll, StudiesPassedOverAndTimeSinceOnlyMovesForward) {
    std::string reply = "{\"Studies\": [" + study("0", "\"first\"") + ", " + study("50", "\"old\"") + ", " +
                        study("500", "\"b\"") + ", " + study("400", "\"a\"") + ", " +
                        study("600", "\"nolink\"", ", \"links\": {\"permalink_pdf\": null}") + ", " +
                        study("700", "\"badlink\"", ", \"links\": {\"permalink_pdf\": \"https://x/p/1.pdf\"}") + ", " +
                        study("800", "\"noname\"", ", \"patient\": {\"last_name\": \"\"}") + ", 7, null]}";
    std::vector<std::string> ids;
    for (const auto& s : run(100, reply)) ids.push_back(s.studyId);
    EXPECT_EQ(ids, (std::vector<std::string>{"b", "a"}));  // out of order, both handled
    EXPECT_EQ(slurp(data.file("timeSince.txt")), "500.000");
    // Files not brought to disk: the studies come again next pass.
    int handled = 0;
    forEachNewStudy(500, ("{\"Studies\": [" + study("900", "\"c\"") + "]}").c_str(), [&](const StudyRecord&) { ++handled; },
                    [] { return false; });
    EXPECT_EQ(handled, 1);
    EXPECT_EQ(slurp(data.file("timeSince.txt")), "500.000");
    EXPECT_FALSE(forEachNewStudy(0, "{\"Studies\": [", [](const StudyRecord&) {}));
    EXPECT_TRUE(run(0, "{\"Studies\": 5, \"studies\": {}}").empty());

    // A hundred thousand studies, all but the last already handled.
    std::string many = "{\"Studies\": [";
    for (int i = 0; i < 100000; ++i) many += (i ? ", " : "") + study(std::to_string(1000 + i), "\"x\"");
    EXPECT_EQ(run(100998, many + "]}").size(), 1u);
    EXPECT_EQ(slurp(data.file("timeSince.txt")), "100999.000");
}

TEST(PhysicianComposite, Parts) {
    struct Case {
        const char *composite, *last, *first, *middle;
    } cases[] = {
        {"DR. SMITH^JOHN^MD", "SMITH", "JOHN", ""},
        {"SMITH^JOHN", "SMITH", "JOHN", ""},
        {"dr.Smith, Jr.^Jo.hn^NP", "Smith Jr", "John", ""},  // dots and commas deleted
        {"DR^^SMITH^ANNA^LEE", "SMITH", "LEE", "ANNA"},
        {"^SMITH", "SMITH", "", ""},
        {"SMITH", "SMITH", "", ""},
    };
    for (const auto& c : cases) {
        StudyRecord s;
        parsePhysicianComposite(c.composite, s);
        EXPECT_EQ(s.physicianLast + "|" + s.physicianFirst + "|" + s.physicianMiddle,
                  std::string(c.last) + "|" + c.first + "|" + c.middle) << c.composite;
    }
}

// With no "timeSince.txt", kind 8 looks back seven days.
TEST_F(Poll, FirstPassLooksBackSevenDays) {
    EMR_INTF = EMR_OSTI;
    snprintf(HL7_dir, sizeof HL7_dir, "%s", data.path().c_str());
    long before = time(nullptr) - 604800;
    emr_loop_proc();
    long after = time(nullptr) - 604800;
    std::string c = svc.commands().back();
    ASSERT_EQ(c.rfind("box7|STUDIES|time-since|", 0), 0u) << c;
    long asked = atol(c.c_str() + 24);
    EXPECT_TRUE(asked >= before && asked <= after) << c;
    EXPECT_EQ(c.substr(c.size() - 4), ".000");
}

}  // namespace
