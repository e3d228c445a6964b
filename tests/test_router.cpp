// The router against the local service's queue and a real DICOM receiver:
// what arrives, what is reported, hostile values that must run nothing, and
// deliveries that fail or hang without holding up the queue.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "dicomReceiver.h"
#include "localServiceHarness.h"
#include "routeCommand.h"
#include "router.h"
#include "settings.h"
#include "util.h"

namespace {

// The receivers listen on every address: run where there is nothing else.
const bool PRIVATE_NETWORK = enterPrivateNetwork();

const std::string REAL = "/usr/lib/python3/dist-packages/pydicom/data/test_files/";
const std::string CT = REAL + "CT_small.dcm", MR = REAL + "MR_small.dcm";

std::string datasetDump(const std::string& path) {
    std::string dump = runProgram({"/usr/bin/dcmdump", "+L", path}).out;
    size_t at = dump.find("# Dicom-Data-Set"), padding = dump.find("\n(fffc,fffc)");
    if (at == std::string::npos) return "";
    dump = dump.substr(at, padding == std::string::npos ? padding : padding - at);
    while (!dump.empty() && dump.back() == '\n') dump.pop_back();
    return dump;
}

class Router : public ServiceTest {
protected:
    void SetUp() override {
        resetSettings();
        snprintf(dataDir, sizeof dataDir, "%s", dir());
        snprintf(viewpointDir, sizeof viewpointDir, "%s", exportDir.path().c_str());
        std::string bin = HUBTALK_BIN;
        snprintf(PROCESS_DIR, sizeof PROCESS_DIR, "%s", bin.substr(0, bin.rfind('/')).c_str());
        snprintf(ER_ip, sizeof ER_ip, "127.0.0.1");
        ER_port = receiver.port();
        svc.setPushFile("ct.dcm", CT);
        svc.setPushFile("mr.dcm", MR);
    }
    void TearDown() override { resetSettings(); }

    // Queues the items, runs one pass, returns the results reported during it.
    std::vector<std::string> pass(const std::vector<std::string>& items) {
        for (const auto& i : items) svc.queueReply("qDicom1", i);
        size_t before = svc.commands().size();
        int64_t timestamp = -1;
        EXPECT_EQ(route_loop_proc(&timestamp), 0);
        std::vector<std::string> results;
        auto all = svc.commands();
        for (size_t i = before; i < all.size(); ++i) {
            size_t at = all[i].find("|dDicom|id|");
            if (at != std::string::npos) results.push_back(all[i].substr(at + 11));
        }
        for (const auto& f : entriesOf(dataDir)) EXPECT_NE(f.substr(0, 3), "CR.") << "dropped file left behind";
        return results;
    }
    std::string failed(int id, const std::string& ae, const std::string& host) {
        return std::to_string(id) + "-Sundel:  router loop FAILED:  (dcmsend/measurecast) command failed for aetitle=" +
               ae + " id=" + std::to_string(id) + ", ip=" + host + ", port=" + std::to_string(ER_port) + "\n";
    }

    TempDir exportDir;
    DicomReceiver receiver;
};

TEST_F(Router, DeliversEveryItemUnchangedAndReportsIt) {
    spit(data.file("dicom.dic"), "(0009,0010) damaged\n");  // a bad dictionary does not stop deliveries
    // What an earlier process left in the middle of a delivery goes; this one's stays.
    std::string earlier = data.file("CR.1.2.a.dcm"), own = data.file("CR." + std::to_string(getpid()) + ".2.b.dcm");
    spit(earlier, "x"), spit(own, "y");
    EXPECT_EQ(removeStaleDrops(), 1);
    EXPECT_FALSE(exists(earlier));
    unlink(own.c_str());
    EXPECT_EQ(pass({"5|STORESCP|studies/ct.dcm", "6|STORESCP|studies/mr.dcm"}),
              (std::vector<std::string>{"5", "6"}));
    auto got = receiver.received();
    ASSERT_EQ(got.size(), 2u);
    std::sort(got.begin(), got.end(), [](auto& a, auto& b) { return slurp(a).size() < slurp(b).size(); });
    std::vector<std::string> sent = {MR, CT};  // the smaller first
    for (int i = 0; i < 2; ++i) {
        // The same elements, byte for byte, except the sources' trailing
        // padding (fffc,fffc), which the sender leaves out.
        EXPECT_EQ(datasetDump(got[i]), datasetDump(sent[i]));
        std::string arrived = datasetBytes(got[i]);
        EXPECT_GT(arrived.size(), 1000u);
        EXPECT_EQ(arrived, datasetBytes(sent[i]).substr(0, arrived.size()));
    }
}

TEST_F(Router, QueueEdgeCases) {
    svc.setPushFile("note.dcm", "/etc/hostname");
    struct Case {
        std::vector<std::string> items;
        std::vector<std::string> results;
        size_t received;
    } cases[] = {
        {{"7|STORESCP"}, {}, 0},                                 // two fields: no download
        {{"8|STORESCP|ct.dcm", "8|STORESCP|ct.dcm"}, {"8"}, 1},  // repeated id ends the pass
        {{"x8|STORESCP|ct.dcm"}, {}, 0},                         // no numeric id: logged, pass ends
        {{"10|STORESCP|note.dcm", "11|STORESCP|ct.dcm"},         // not DICOM: reported, pass ends
         {"10-Sundel:  router loop FAILED:  non-DICOM file received for id=10\n"}, 0},
        {{"12|STORESCP|gone.dcm"},                               // four downloads, three logged
         {"12-Sundel:  router loop FAILED:  getDicom() did not drop a local file for id=12 (count=3)\n"}, 0},
    };
    for (const auto& c : cases) {
        size_t before = receiver.received().size();
        EXPECT_EQ(pass(c.items), c.results) << c.items[0];
        EXPECT_EQ(receiver.received().size() - before, c.received) << c.items[0];
        svc.queueReply("qDicom1", "0|title|NONE");  // the rest of this case's items wait for the next pass
        pass({});
    }
    EXPECT_EQ(svc.countStartingWith("box7|LOG|msg|Sundel:  router loop FAILED:  getDicom() did not drop"), 3u);
    EXPECT_EQ(svc.countStartingWith("box7|LOG|msg|Sundel:  router loop FAILED:  queue item without a numeric id"), 1u);
}

TEST_F(Router, FailedDeliveriesAreReportedAndTheQueueGoesOn) {
    DicomReceiver refusing(true);
    int silentPort = 0;
    int silent = listenLoopback(&silentPort);  // accepts connections, never answers
    ASSERT_GE(silent, 0);
    spit(data.file("routeTimeout.txt"), "3");
    struct Case {
        const char* name;
        int port;
        std::string processDir;
    } cases[] = {
        {"refused", refusing.port(), PROCESS_DIR},
        {"not listening", freePort(), PROCESS_DIR},
        {"never answers", silentPort, PROCESS_DIR},
        {"no sender", receiver.port(), exportDir.path()},
    };
    for (const auto& c : cases) {
        ER_port = c.port;
        snprintf(PROCESS_DIR, sizeof PROCESS_DIR, "%s", c.processDir.c_str());
        EXPECT_EQ(pass({"20|PACS|ct.dcm", "21|PACS|mr.dcm"}),
                  (std::vector<std::string>{failed(20, "PACS", "127.0.0.1"), failed(21, "PACS", "127.0.0.1")}))
            << c.name;
    }
    close(silent);
    EXPECT_TRUE(receiver.received().empty());
}

// Titles, hosts and file names from the service and the destination table
// that would run a command if they reached the shell unquoted.
TEST_F(Router, HostileValuesRunNothing) {
    char cwd[4096];
    ASSERT_TRUE(getcwd(cwd, sizeof cwd));
    ASSERT_EQ(chdir(exportDir.path().c_str()), 0);  // where a command that ran would leave PWNED
    std::string pwned = exportDir.file("PWNED");
    std::string touch = "touch PWNED";
    spit(data.file("dest.QR.txt"), "EVIL1|x|127.0.0.1;" + touch + "\nEVIL2|x|$(" + touch + ")\n");
    spit(exportDir.file("cut"), slurp(CT).substr(0, 2000));
    svc.setPushFile("cut.dcm", exportDir.file("cut"));
    auto results = pass({"30|A';" + touch + ";'|ct.dcm", "31|$(" + touch + ")|ct.dcm", "32|`" + touch + "`|ct.dcm",
                         "33|EVIL1|ct.dcm", "34|EVIL2|ct.dcm", "35|" + std::string(5000, 'A') + "|ct.dcm",
                         "36|STORESCP|cut.dcm", "37|STORESCP|ct.dcm"});
    ASSERT_EQ(results.size(), 8u);
    EXPECT_EQ(results[3], failed(33, "EVIL1", "127.0.0.1;" + touch));
    EXPECT_EQ(results[5].substr(0, 90), failed(35, std::string(60, 'A'), "").substr(0, 90));  // too long to run
    EXPECT_EQ(results[6], failed(36, "STORESCP", "127.0.0.1"));                            // truncated image
    EXPECT_EQ(results[7], "37");
    EXPECT_FALSE(exists(pwned));

    // The operator's template wins over both converters; its values are
    // quoted wherever they stand.
    EMR_PDF = EMR_SR = true;
    std::string name = "$(" + touch + ")'\"; x.dcm";
    svc.setPushFile(name, CT);
    for (const char* t : {"cp {{FILENAME}} {{EXPORTDIR}}/copy", "cp \"{{FILENAME}}\" \"{{EXPORTDIR}}/copy\"",
                          "cp '{{FILENAME}}' '{{EXPORTDIR}}'/copy"}) {
        spit(data.file("DICOM_COMMAND.txt"), std::string("  ") + t + "\n");
        EXPECT_EQ(pass({"40|STORESCP|a/" + name}), (std::vector<std::string>{"40"})) << t;
        EXPECT_EQ(slurp(exportDir.file("copy")), slurp(CT)) << t;
        unlink(exportDir.file("copy").c_str());
        EXPECT_FALSE(exists(pwned)) << t;
    }
    EXPECT_EQ(chdir(cwd), 0);
}

// The measurement converter's definitions come from the download server
// through the download companion, under a name that stays in the data
// directory; a failed download is logged and the conversion tried anyway.
TEST_F(Router, MeasurementDefinitionsAreDownloadedFirst) {
    EMR_SR = true;
    snprintf(HL7_dir, sizeof HL7_dir, "%s", exportDir.path().c_str());
    spit(data.file("acct.txt"), Util::encipher("North/Clinic"));
    spit(data.file("downloadBase.txt"), svc.webBase() + "/\n");
    setenv("HUBTALK_DATA_DIR", dataDir, 1);
    spit(exportDir.file("defs"), "LVIDd\t8867-4\n");
    svc.setWebFile("varnesk_sundel/SR/North%2FClinic.tsv", exportDir.file("defs"));
    // No converter is installed here: the item fails after the download.
    EXPECT_EQ(pass({"50|STORESCP|ct.dcm"}), (std::vector<std::string>{failed(50, "STORESCP", "127.0.0.1")}));
    EXPECT_EQ(slurp(data.file("SRDef.North_Clinic.tsv")), "LVIDd\t8867-4\n");

    unlink(data.file("SRDef.North_Clinic.tsv").c_str());
    svc.setFault(LocalService::Fault::WebShort);
    EXPECT_EQ(pass({"51|STORESCP|ct.dcm"}), (std::vector<std::string>{failed(51, "STORESCP", "127.0.0.1")}));
    EXPECT_EQ(svc.countStartingWith("box7|LOG|msg|Sundel:  Downloading Measurement file FAILED:  "), 1u);
    EXPECT_FALSE(exists(data.file("SRDef.North_Clinic.tsv")));
    unsetenv("HUBTALK_DATA_DIR");
}

TEST(RouteDestination, TableRules) {
    std::string many;
    for (int i = 0; i < 10000; ++i) many += "AE" + std::to_string(i) + "|x|10.0.0." + std::to_string(i % 250) + "\n";
    struct Case {
        std::string table, ae, title, host;
    } cases[] = {
        {"pacs|x|10.0.0.9\n", "PACS", "pacs", "10.0.0.9"},    // the table's spelling, its host
        {"PACS|x\n", "PACS", "PACS", "127.0.0.1"},            // fewer than three fields
        {"", "PACS", "PACS", "127.0.0.1"},
        {"PACS|x|10.0.0.7 \r\nPACS|y|10.0.0.8\n", "PACS", "PACS", "10.0.0.7"},
        {"pacs|x|10.0.0.1\nPACS|x|10.0.0.2\n", "PACS", "PACS", "10.0.0.2"},  // exact case first
        {many, "AE9999", "AE9999", "10.0.0.249"},
        {std::string("PACS|\xff\x01|\x01h\0st", 13), "PACS", "PACS", std::string("\x01h\0st", 5)},
    };
    for (const auto& c : cases) {
        Destination d = findDestination(c.table, c.ae, "127.0.0.1");
        EXPECT_EQ(d.aeTitle + "|" + d.host, c.title + "|" + c.host) << c.table.substr(0, 40);
    }
    EXPECT_FALSE(isPlainHost(std::string("\x01h\0st", 5)));
    EXPECT_FALSE(isPlainHost("-oProxyCommand"));
    EXPECT_TRUE(isPlainHost("pacs-2.clinic.local"));
    EXPECT_EQ(accountFileName("../../etc/x"), "_._.._etc_x");
}

}  // namespace
