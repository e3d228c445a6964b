// Inbound HL7 against the local service: scheduling messages that become
// worklist requests (Centricity), report messages that become a share and a
// report for the export sender (link-file mode), and messages that must not
// be lost or lead anywhere outside their directories.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <string>
#include <vector>

#include "emr/hl7Input.h"
#include "exportSender.h"
#include "listenerClient.h"
#include "localServiceHarness.h"
#include "settings.h"
#include "text.h"

namespace {

const std::string SIU =
    "MSH|^~\\&|EMR|CLINIC|HUB|SITE|20240305101500||SIU^S12|MSG001|P|2.3\r"
    "SCH|PL123|FL456|||||Follow \"up\"/scan" + std::string(21, '|') + "note28\r"
    "PID|1||12345^^^MRN||DOE^JANE^Q||198001021200|F|||1 Main St^^Town||jane@example.com\r"
    "PV1|1|O||||||1234^SMITH^JOHN\r"
    "AIP|1||77^JONES^AMY|||202403060930\r";

const std::string WORKLIST =
    "{\n\"request_type\": \"worklist_data\", \n\"worklist_response\": \n { \n"
    "\"patient_name\": \"DOE^JANE^Q\",\n\"patient_id\": \"12345^^^MRN\",\n"
    "\"patients_birth_date\": \"19800102\",\n\"patients_address\": \"1 Main St^^Town\",\n"
    "\"patient_sex\": \"F\",\n\"ge_patient_email\": \"jane@example.com\",\n"
    "\"referring_physician\": \"1234^SMITH^JOHN\",\n\"performing_physician_name\": \"77^JONES^AMY\",\n"
    "\"placer_order_number\": \"PL123\",\n\"filler_order_number\": \"FL456\",\n"
    "\"requested_procedure_comments\": \"Follow \\\"up\\\"\\/scan\",\n"
    "\"scheduled_procedure_comments\": \"note28\",\n"
    "\"scheduled_performing_physician_name\": \"77^JONES^AMY\",\n"
    "\"scheduled_procedure_start_date\": \"20240306\",\n\"scheduled_procedure_start_time\": \"0930\",\n"
    "\"End\": \"\"\n},\n\"device_id\": \"box7\"\n}\n";

const std::string PDF = "%PDF-1.4\n1 0 obj << >> endobj\ntrailer << >>\n%%EOF\n";
const std::string PRESHARE = "{\"request_type\": \"sharing\", \"preshare\": true, \"uids\": [\"PUT_REPORT_SOP_HERE\"]}";

class Inbound : public ServiceTest {
protected:
    void SetUp() override {
        resetSettings();
        snprintf(dataDir, sizeof dataDir, "%s", dir());
        snprintf(HL7_inputDir, sizeof HL7_inputDir, "%s", in.c_str());
        snprintf(HL7_dir, sizeof HL7_dir, "%s", links.c_str());
        snprintf(viewpointDir, sizeof viewpointDir, "%s", out.c_str());
        for (const std::string& d : {in, links, out}) mkdir(d.c_str(), 0775);
    }
    void TearDown() override { resetSettings(); }
    bool sawLog(const std::string& text) {
        return svc.countStartingWith("box7|LOG|msg|" + text) > 0;
    }
    std::string report(const std::string& id, const std::string& pdfPath) {
        return "MSH|^~\\&|VP|US|HUB|SITE|20240305||ORU^R01|R1|P|2.3\rPID|1|" + id +
               "|PAT1^^^MRN\rZED|1||ACC9\rTXA|1" + std::string(15, '|') + pdfPath + "\r";
    }
    std::string in = data.file("in"), links = data.file("links"), out = data.file("export");
};

}  // namespace

TEST_F(Inbound, SchedulingMessageBecomesTheWorklistRequest) {
    spit(in + "/m1.hl7", SIU);
    doHl7Input(EMR_CENTRICITY);
    EXPECT_TRUE(sawLog("doHl7Input:  processing file " + in + " / m1.hl7 (" +
                       std::to_string(SIU.size() - 1) + ") : " + SIU.substr(0, SIU.size() - 1) + "\n"));
    EXPECT_TRUE(endsWith(lastCommand().c_str(), ("/1|worklist_data|" + WORKLIST).c_str())) << lastCommand();
    EXPECT_FALSE(exists(in + "/m1.hl7"));

    const std::pair<std::string, std::string> variants[] = {
        {"PID|1|P2|12345" + std::string(10, '|') + "555-1234", "\"patient_id\": \"P2\",\n\"patient_phone\": \"555-1234\",\n\"End\""},
        {"PID|1||12345\nAIP|1|||||2024", "\"patient_id\": \"12345\",\n\"scheduled_procedure_start_date\": \"2024\",\n"},
    };
    for (const auto& [message, pairs] : variants) {
        spit(in + "/v.hl7", message);
        EXPECT_NE(getJsonCen(in.c_str(), "v.hl7").find("{ \n" + pairs), std::string::npos) << message;
    }
}

TEST_F(Inbound, MessageStaysUntilTheServiceTakesIt) {
    svc.setReply("API", "error");
    spit(in + "/m.hl7", SIU);
    doHl7Input(EMR_CENTRICITY);
    doHl7Input(EMR_CENTRICITY);
    EXPECT_EQ(svc.countStartingWith("API/"), 2u);
    EXPECT_TRUE(exists(in + "/m.hl7"));
    svc.setReply("API", "SUCCESS");
    doHl7Input(EMR_CENTRICITY);
    EXPECT_FALSE(exists(in + "/m.hl7"));
}

TEST_F(Inbound, MessagesWithoutWorklistFieldsAreDropped) {
    std::string many = "MSH|^~\\&|A|B\r";
    for (int i = 0; i < 500; ++i) many += "OBX|" + std::to_string(i) + "|TX|||" + std::string(i, 'v') + "\r";
    spit(in + "/bare.hl7", "MSH|^~\\&|A|B|C|D\r\n");
    spit(in + "/many.hl7", many);
    spit(in + "/.partial", SIU);
    mkdir((in + "/rejected").c_str(), 0775);
    doHl7Input(EMR_CENTRICITY);
    EXPECT_EQ(svc.countStartingWith("box7|LOG|msg|doHl7Input:  Invalid HL7 Checkin Message Received"), 2u);
    EXPECT_EQ(svc.countStartingWith("API/"), 0u);
    EXPECT_EQ(entriesOf(in), std::vector<std::string>{"rejected"});
    EXPECT_TRUE(exists(in + "/.partial"));

    // Other kinds only log; link-file mode keeps a report it cannot place.
    spit(in + "/many.hl7", many);
    doHl7Input(EMR_ECLINICAL);
    doHl7Input(EMR_HL7FILE);
    EXPECT_TRUE(exists(in + "/many.hl7"));
    EXPECT_TRUE(sawLog("processHl7Report:  FAILING processing file " + in + " / many.hl7 (" +
                       std::to_string(many.size()) + ") : MSH|"));
}

TEST_F(Inbound, ReportBecomesShareAndReportWithItsInformation) {
    spit(data.file("r1.pdf"), PDF);
    spit(links + "/PAT1.txt", "1.2.2|1.2.3");
    spit(links + "/PAT1-ACC9.txt", " {\n\"sop_instance_uid\": \"ADD_SOP_HERE\", \n\"share\": \"true\" \n }");
    spit(links + "/PAT1-ACC9-1.txt", "1.2.3");
    svc.setPushText("GetPreshare", PRESHARE);
    const std::string ids[][2] = {{"1.9.8.7", "1.9.8.7"}, {"../../x", "_.._.._x"}};
    for (size_t i = 0; i < 2; ++i) {
        const std::string &id = ids[i][0], &name = ids[i][1];
        spit(in + "/r.hl7", report(id, data.file("r1.pdf")));
        doHl7Input(EMR_HL7FILE);
        EXPECT_FALSE(exists(in + "/r.hl7")) << id;
        EXPECT_EQ(svc.countStartingWith("box7|GetPreshare|Uid|1.2.3"), i + 1);
        Memory mem;
        std::string sop = Util::sanitize(id.c_str(), &mem);
        EXPECT_EQ(slurp(out + "/" + name + ".share"),
                  "{\"request_type\": \"sharing\", \"xnothingx\": true, \"uids\": [\"" + sop + "\"]}");
        EXPECT_EQ(slurp(out + "/" + name + ".pdf"), PDF);
        EXPECT_EQ(slurp(out + "/" + name + ".pdf.info"),
                  " {\n\"sop_instance_uid\": \"" + sop + "\", \n\"share\": \"true\" \n }");
    }
    EXPECT_EQ(entriesOf(out).size(), 6u);
}

// From a real MLLP client through the agent's listener to the service: the
// scheduling message as a worklist request, the report as an upload.
TEST_F(Inbound, EndToEndFromTheListener) {
    ListenerProcess listener{data.path(), {in, false, out}};
    auto send = [&](const std::string& message) {
        std::string file = data.file("msg.hl7");
        std::string lines = message;
        for (char& c : lines) c = c == '\r' ? '\n' : c;
        spit(file, lines);
        RunResult r = runProgram({"/usr/bin/mllp_send", "--loose", "-f", file, "-p", std::to_string(listener.port()), "127.0.0.1"});
        EXPECT_NE(r.out.find("MSA|AA|"), std::string::npos) << r.out << r.err;
    };
    send(SIU);
    doHl7Input(EMR_CENTRICITY);
    EXPECT_EQ(svc.countStartingWith("API/box7/Clinic One/1|worklist_data|" + WORKLIST), 1u);
    EXPECT_TRUE(entriesOf(in).empty());

    spit(data.file("r1.pdf"), PDF);
    spit(links + "/PAT1.txt", "1.2.3");
    spit(links + "/PAT1-ACC9.txt", " {\n\"sop_instance_uid\": \"ADD_SOP_HERE\", \n\"share\": \"true\" \n }");
    svc.setPushText("GetPreshare", PRESHARE);
    send(report("1.9.8.7", data.file("r1.pdf")));
    doHl7Input(EMR_HL7FILE);
    ASSERT_EQ(slurp(out + "/1.9.8.7.pdf"), PDF);
    for (const auto& name : entriesOf(out)) {
        struct utimbuf old{time(nullptr) - 60, time(nullptr) - 60};
        utime((out + "/" + name).c_str(), &old);
    }
    EMR_INTF = EMR_HL7FILE;  // link-file mode: a report goes with its information text
    int64_t timer = 0;
    vp_loop_proc(&timer);
    EXPECT_FALSE(exists(out + "/1.9.8.7.pdf"));
    // Uploaded under its information text, then shared.
    auto c = svc.commands();
    EXPECT_EQ(std::count_if(c.begin(), c.end(), [](const std::string& line) {
                  return line.rfind("box7| {", 0) == 0 && line.find("\"sop_instance_uid\": \"1.9.8.7\"") != std::string::npos;
              }), 1);
    EXPECT_EQ(c.back(), "API/box7/Clinic One/1|sharing|{\"request_type\": \"sharing\", \"xnothingx\": true, \"uids\": [\"1.9.8.7\"]}");
}

TEST_F(Inbound, ReportPdfMustBeARealPdf) {
    spit(links + "/PAT1-DEF.txt", "{ ADD_SOP_HERE }");
    spit(data.file("notes.pdf"), "plain text, not a report");
    symlink("/etc/passwd", data.file("link.pdf").c_str());
    for (const std::string& path : {std::string("/etc/passwd"), data.file("notes.pdf"), data.file("link.pdf"),
                                    data.file("none.pdf"), out, std::string()}) {
        spit(in + "/r.hl7", report("1.5", path));
        doHl7Input(EMR_HL7FILE);
        EXPECT_TRUE(sawLog("processHl7Report:  FAILING Report from HL7 message is not on disk:  " + path + "\n"))
            << path;
        EXPECT_TRUE(exists(in + "/r.hl7"));
        EXPECT_TRUE(entriesOf(out).empty()) << path;
    }
}
