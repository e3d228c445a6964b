// The export-directory sender against the local service: what a walk takes
// and leaves, sharing requests, pictures with a patient file, failures that
// must leave every file in place, and the agent killed while it uploads.
#include <dirent.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <ctime>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "dicom.h"
#include "exportSender.h"
#include "files.h"
#include "localServiceHarness.h"
#include "patientPictures.h"
#include "settings.h"
#include "text.h"

namespace {

const std::string REAL = "/usr/lib/python3/dist-packages/pydicom/data/test_files/";

class Export : public ServiceTest {
protected:
    void SetUp() override {
        resetSettings();
        snprintf(dataDir, sizeof dataDir, "%s", dir());
        snprintf(viewpointDir, sizeof viewpointDir, "%s", out.c_str());
        mkdir(out.c_str(), 0775);
    }
    void TearDown() override { resetSettings(); }

    // A file under the export directory, settled (a minute old) unless age says otherwise.
    std::string put(const std::string& rel, const std::string& content, int age = 60) {
        std::string path = out + "/" + rel;
        for (size_t s = path.find('/', out.size() + 1); s != std::string::npos; s = path.find('/', s + 1))
            mkdir(path.substr(0, s).c_str(), 0775);
        spit(path, content);
        struct utimbuf t{time(nullptr) - age, time(nullptr) - age};
        utime(path.c_str(), &t);
        return path;
    }
    void pass() {
        int64_t timer = -1;
        EXPECT_EQ(0, vp_loop_proc(&timer));
    }
    std::string stored(const std::string& name) {
        std::string p = svc.storedFile(name);
        return exists(p) ? slurp(p) : "<none>";
    }
    static std::string sop(const std::string& path) {
        char buf[129];
        const char* uid = getSopInstance(path.c_str(), buf, sizeof buf);
        return uid ? uid : "";
    }
    bool logged(const std::string& text) {
        for (const std::string& c : svc.commands())
            if (c.find(text) != std::string::npos) return true;
        return false;
    }
    std::string failures() { return slurp(data.file("FileFailedCount.txt")); }

    std::string out = data.file("export");
};

}  // namespace

TEST_F(Export, WalkTakesWhatItShouldAndLeavesTheRest) {
    const std::string ct = slurp(REAL + "CT_small.dcm"), mr = slurp(REAL + "MR_small.dcm");
    std::string deep = "deep";
    for (int i = 0; i < 50; ++i) deep += "/d";
    struct Case {
        std::string rel, content;
        std::string storedAs;  // "" when it must stay
    } cases[] = {
        {"plain", ct, sop(REAL + "CT_small.dcm") + ".dcm"},
        {"b.dcm~._UNP_", mr, sop(REAL + "MR_small.dcm") + ".dcm"},
        {deep + "/in.dcm", ct, "in.dcm"},
        {"VP6/notes txt;$(touch x)", "report text", "notes txt;$(touch x)"},
        {"other.bin", "not an image", ""},
        {"a.DS_Store.dcm", ct, ""},
        {"empty.dcm", "", ""},
        {"x.dcm.T", ct, ""},
        {"x.dcm.scrub.123", ct, ""},
    };
    for (const Case& c : cases) put(c.rel, c.content);
    ASSERT_EQ(0, symlink((REAL + "CT_small.dcm").c_str(), (out + "/link.dcm").c_str()));
    // A receiver still writing an image all through the pass.
    std::atomic<bool> done{false};
    std::thread receiver([&] {
        FILE* f = fopen((out + "/fresh.dcm").c_str(), "w");
        for (size_t at = 0; !done; at = (at + 4096) % mr.size()) {
            fwrite(mr.data() + at, 1, std::min<size_t>(4096, mr.size() - at), f);
            fflush(f);
            usleep(20000);
        }
        fclose(f);
    });
    waitUntil([&] { return exists(out + "/fresh.dcm"); }, 5000);
    pass();
    done = true;
    receiver.join();
    EXPECT_TRUE(exists(out + "/fresh.dcm"));
    for (const Case& c : cases) {
        SCOPED_TRACE(c.rel);
        EXPECT_EQ(c.storedAs.empty(), exists(out + "/" + c.rel));
        if (!c.storedAs.empty()) {
            EXPECT_TRUE(stored(c.storedAs) == c.content);
        }
    }
    EXPECT_NE(std::string::npos, svc.storedHeader(sop(REAL + "MR_small.dcm") + ".dcm").find("|Export._UNP_|Export|"));
    EXPECT_EQ("<none>", stored("link.dcm"));
    EXPECT_EQ("<none>", stored("fresh.dcm"));
    EXPECT_FALSE(exists(out + "/x"));
    EXPECT_EQ("0", failures());

    // A name ending and the receiver's files that do not carry it.
    spit(data.file("exportSuffix.txt"), ".dcm\n");
    put("keep.img", ct);
    put("take.DCM", mr);
    pass();
    EXPECT_TRUE(exists(out + "/keep.img"));
    EXPECT_FALSE(exists(out + "/take.DCM"));
    spit(data.file("exportSuffix.txt"), "*.dcm");
    EXPECT_EQ("", exportSuffix());
}

TEST_F(Export, SharingRequestsBecomeShares) {
    const std::string ct = slurp(REAL + "CT_small.dcm");
    put("share/ct.dcm", ct);
    put("share/letter.pdf", "%PDF-1.4 letter");
    mkdir((out + "/share/sub").c_str(), 0775);
    ASSERT_EQ(0, symlink("/etc/passwd", (out + "/share/passwd").c_str()));
    put("share/req.sharing",
        "{\"sender\": {\"name\": \"Dr A\"}, \"optional_message_text\": \"see\", \"subject_header\": \"s\","
        " \"recipients\": [\"a@b\"], \"preshare\": true, \"share_report\": true,"
        " \"patient_information\": {\"study_instance_uid\": \"1.2.3\"},"
        " \"files\": [\"ct.dcm\", \"" + out + "/share/letter.pdf\", \"/etc/shadow\", \"sub\", \"passwd\","
        " \"../../../../etc/passwd\"]}");
    put("share/none.sharing", "{\"share_report\": true, \"files\": []}");
    put("share/bad.sharing", "{\"files\": [\"ct.dcm\"");
    std::string many = "{\"subject_header\": \"many\", \"files\": [\"gone0\"";
    for (int i = 1; i < 10000; ++i) many += ", \"gone" + std::to_string(i) + "\"";
    put("share/many.sharing", many + "]}");
    svc.setReply("API.sharing", "error");
    std::string err = stderrOf([&] { pass(); });
    sleep(1);
    pass();
    EXPECT_NE(std::string::npos, err.find("jsn parse failed " + out + "/share/bad.sharing")) << err;
    EXPECT_NE(std::string::npos, err.find("/etc/shadow is no regular file inside the export directory")) << err;
    EXPECT_TRUE(exists(out + "/share/bad.sharing"));
    EXPECT_FALSE(exists(out + "/share/req.sharing"));

    std::string share;
    for (const std::string& c : svc.commands())
        if (c.find("|sharing|{ \"request_type\": \"sharing\",\"sender\": {\"name\"") != std::string::npos) share = c;
    EXPECT_NE(std::string::npos, share.find("\"recipients\": [\"a@b\"],\"preshare\":true,\"study_instance_uid\": \"1.2.3\","
                                            "\"sop_instance_uids\" : [\"" + sop(REAL + "CT_small.dcm") + "\", \"1.3.6.1.4.1.64523."))
        << share;
    EXPECT_NE(std::string::npos, share.find("\", \"PUT_REPORT_SOP_HERE\" ] }")) << share;
    EXPECT_TRUE(logged("\"subject_header\": \"\",\"recipients\": [ ],\"study_instance_uid\": \"\","
                       "\"sop_instance_uids\" : [\"PUT_REPORT_SOP_HERE\" ] }"));
    EXPECT_TRUE(logged("\"subject_header\": \"many\",\"recipients\": [ ],\"study_instance_uid\": \"\",\"sop_instance_uids\" : [ ] }"));
    EXPECT_NE(std::string::npos, err.find("gone9999 is no regular file"));
    EXPECT_TRUE(stored("ct.dcm") == ct);
    EXPECT_NE(std::string::npos, svc.storedHeader("ct.dcm").find("|Export-Pre|Export-Pre|"));
    for (const std::string& c : svc.commands())
        EXPECT_EQ(std::string::npos, c.find("root:")) << "nothing outside the export directory goes up";

    // The shares stay until the service takes them.
    svc.setReply("API.sharing", "SUCCESS");
    pass();
    DIR* d = opendir((out + "/share").c_str());
    std::string left;
    while (struct dirent* e = readdir(d)) left += std::string(e->d_name) + " ";
    closedir(d);
    EXPECT_EQ(std::string::npos, left.find(".share ")) << left;
}

TEST_F(Export, FailedSharingUploadsWaitAsCopies) {
    put("s/ct.dcm", slurp(REAL + "CT_small.dcm"));
    put("s/r.sharing", "{\"files\": [\"ct.dcm\"], \"patient_information\": {}}");
    svc.setFault(LocalService::Fault::CutUpload);
    pass();
    std::string copy = out + "/" + sop(REAL + "CT_small.dcm") + ".dcm";
    ASSERT_TRUE(exists(copy));
    std::string listName;
    for (const std::string& n : {std::string("s")}) {
        DIR* d = opendir((out + "/" + n).c_str());
        while (struct dirent* e = readdir(d))
            if (endsWith(e->d_name, ".share")) listName = e->d_name;
        closedir(d);
    }
    ASSERT_NE("", listName);
    EXPECT_EQ(copy + "\n", slurp(data.file(listName)));
    svc.setFault(LocalService::Fault::CutUpload, false);
    svc.setReply("API.sharing", "success");
    struct utimbuf old{time(nullptr) - 120, time(nullptr) - 120};
    utime(copy.c_str(), &old);
    pass();  // the copy goes; the share waits while its list is young
    EXPECT_FALSE(exists(copy));
    EXPECT_TRUE(exists(out + "/s/" + listName));
    utime(data.file(listName).c_str(), &old);
    utime((out + "/s/" + listName).c_str(), &old);
    pass();  // the list is dropped
    pass();  // now the share goes
    EXPECT_FALSE(exists(data.file(listName)));
    EXPECT_FALSE(exists(out + "/s/" + listName));
}

TEST_F(Export, PicturesWithPatientFile) {
    put("p/data.kst", "lastname=O\"Brien\nfirstname=An\x01na\nID=77\nborn=02.01.1980\nsurgeon=" +
                          std::string(400, 's') + "\nprocedure=Knee\n");
    put("p/one.jpg", "jpeg one");
    put("p/TWO.JPG", "jpeg two");
    put("p/.jpg", "too short a name");
    pass();
    for (const char* gone : {"data.kst", "PINFO.JSON", "one.jpg", "TWO.JPG"})
        EXPECT_FALSE(exists(out + "/p/" + gone)) << gone;
    EXPECT_TRUE(exists(out + "/p/.jpg"));
    std::vector<std::string> headers;
    for (const std::string& c : svc.commands())
        if (c.find("\"file_suffix\":  \".jpg\"") != std::string::npos) headers.push_back(c);
    ASSERT_EQ(2u, headers.size());
    const std::string& h = headers[0];
    for (const std::string& part : std::vector<std::string>{"\"patient_name\": \"O\\\"Brien\",\n", "\"other_names\": \"An na\",\n", "\"patient_id\": \"77\",\n",
          "\"patient_dob\": \"1980-01-02\",\n", "\"study_description\": \"Knee\"\n}\n",
          "\"performing_physician\": \"" + std::string(256, 's') + "\",\n"})
        EXPECT_NE(std::string::npos, h.find(part)) << part << " in " << h;
    // Both pictures belong to one study.
    size_t at = h.find("\"study_instance_uid\": \"");
    ASSERT_NE(std::string::npos, at);
    EXPECT_NE(std::string::npos, headers[1].find(h.substr(at, h.find('\n', at) - at)));

    const std::pair<const char*, const char*> dates[] = {
        {"19800102", "1980-01-02"}, {"1980-1-2", "1980-01-02"},  {"02.01.1980", "1980-01-02"},
        {"01/02/1980", "1980-01-02"}, {"19801302", "19801302"}, {"soon", "soon"}};
    for (const auto& d : dates) EXPECT_EQ(d.second, birthDate(d.first)) << d.first;
}

TEST_F(Export, ReportsFindTheirStudy) {
    auto value = [](const std::string& file, const char* keyword) {
        std::string v = runProgram({"/usr/bin/dcmdump", "-M", "-s", "+P", keyword, file}).out;
        return v.substr(v.find('[') + 1, v.find(']') - v.find('[') - 1);
    };
    const std::string ct = REAL + "CT_small.dcm", mr = REAL + "MR_small.dcm";
    const std::string ctPatient = value(ct, "PatientID"), mrPatient = value(mr, "PatientID");
    put("exam/img.dcm", slurp(ct));
    pass();  // the images leave long before the device writes its report
    put("exam/Rep_" + ctPatient + "_1.pdf", "%PDF report");
    put("other/CONV_" + ctPatient + ".txt", "converted");
    put("exam2/img.dcm", slurp(mr));  // still beside its report
    put("exam2/Rep_" + mrPatient + ".pdf", "%PDF second");
    put("Rep_nobody.pdf", "%PDF lost");
    pass();
    EXPECT_EQ("%PDF report", stored(value(ct, "StudyInstanceUID") + "_" + ctPatient + "_1_Voluson.pdf"));
    EXPECT_EQ("converted", stored(value(ct, "StudyInstanceUID") + "_" + ctPatient + "_SundelConv.txt"));
    EXPECT_EQ("%PDF second", stored(value(mr, "StudyInstanceUID") + "_" + mrPatient + "_Voluson.pdf"));
    EXPECT_TRUE(exists(out + "/Rep_nobody.pdf"));
    EXPECT_TRUE(logged("Sundel Rep_ file not found: Rep_nobody.pdf"));
}

TEST_F(Export, FailuresLeaveEveryFileAndTheWalkGoesOn) {
    using F = LocalService::Fault;
    const std::string ct = slurp(REAL + "CT_small.dcm");
    for (F fault : {F::NoOk, F::ForeignCert, F::WrongKey, F::CutUpload, F::KeyAlert}) {
        SCOPED_TRACE(static_cast<int>(fault));
        svc.setFault(fault);
        spit(data.file("FileFailedCount.txt"), "0");
        put("one.dcm", ct);
        put("two.dcm", ct);
        pass();
        EXPECT_TRUE(exists(out + "/one.dcm") && exists(out + "/two.dcm"));
        EXPECT_EQ("2", failures());
        svc.setFault(fault, false);
    }
    pass();
    EXPECT_FALSE(exists(out + "/one.dcm") || exists(out + "/two.dcm"));

    // A full disk: a request whose uploads fail and whose copies cannot be
    // made stays as it is.
    put("s/ct.dcm", ct);
    std::string request = put("s/r.sharing", "{\"files\": [\"ct.dcm\"]}");
    svc.setFault(F::CutUpload);
    EXPECT_EQ(0, inChild([&] {
        signal(SIGXFSZ, SIG_IGN);
        struct rlimit tiny{0, 0};
        setrlimit(RLIMIT_FSIZE, &tiny);
        pass();
        return exists(request) && slurp(request).size() > 10 ? 0 : 1;
    }));
    svc.setFault(F::CutUpload, false);

    // A read-only export directory: delivered once, kept, not sent again.
    put("ro.dcm", ct);
    EXPECT_EQ(0, inChild([&] {
        runProgram({"/bin/chown", "-R", "65534:65534", dir()});
        if (setgid(65534) != 0 || setuid(65534) != 0) return 2;
        chmod(out.c_str(), 0555);
        pass();
        pass();
        return exists(out + "/ro.dcm") ? 0 : 1;
    }));
    EXPECT_TRUE(stored("ro.dcm") == ct);
    EXPECT_EQ(1u, svc.countStartingWith("box7|ro.dcm|"));
}

// Each waits out a whole link step (a minute).
TEST_F(Export, SilentServiceKeepsFiles) {
    using F = LocalService::Fault;
    for (F fault : {F::Silent, F::MuteAfterOk}) {
        svc.setFault(fault);
        spit(data.file("FileFailedCount.txt"), "0");
        put("slow.dcm", slurp(REAL + "MR_small.dcm"));
        pass();
        EXPECT_TRUE(exists(out + "/slow.dcm"));
        EXPECT_EQ("1", failures());
        svc.setFault(fault, false);
    }
}

TEST_F(Export, AgentKilledWhileUploadingLosesNothing) {
    std::vector<std::string> real;
    for (std::string sub : {"", "dicomdirtests/98892001/CT2N/", "dicomdirtests/77654033/CR1/"}) {
        DIR* d = opendir((REAL + sub).c_str());
        while (struct dirent* e = d ? readdir(d) : nullptr)
            if (isDicom((REAL + sub + e->d_name).c_str(), "")) real.push_back(REAL + sub + e->d_name);
        if (d) closedir(d);
    }
    ASSERT_GT(real.size(), 50u);
    std::vector<std::pair<std::string, std::string>> files;  // name, content
    for (int i = 0; i < 200; ++i) {
        files.push_back({std::to_string(i) + ".dcm", slurp(real[i % real.size()])});
        put(files.back().first, files.back().second);
    }
    std::string store = svc.storedFile("x");
    store = store.substr(0, store.rfind('/'));
    auto storedCount = [&] {
        int n = 0;
        DIR* d = opendir(store.c_str());
        while (struct dirent* e = d ? readdir(d) : nullptr) n += e->d_name[0] != '.';
        if (d) closedir(d);
        return n;
    };
    std::mt19937 random(std::random_device{}());
    TempDir logs;
    int kills = 0;
    for (int round = 0; round < 5; ++round) {
        ChildProcess agent({HUBTALK_BIN, "-d", dir(), "-V", out, "-p", std::to_string(freePort())}, "",
                           logs.file("out"), logs.file("err"));
        if (round == 4) {
            ASSERT_TRUE(waitUntil([&] { return getFileCount(out.c_str()) == 0; }, 120000))
                << slurp(logs.file("err"));
            break;
        }
        int before = storedCount(), step = 1 + static_cast<int>(random() % 30);
        waitUntil([&] { return storedCount() >= before + step; }, 60000);
        usleep(static_cast<useconds_t>(random() % 20000));
        for (int worker : childrenOf(agent.pid())) kill(worker, SIGKILL);
        agent.stop(SIGKILL);
        ++kills;
    }
    EXPECT_EQ(4, kills);
    for (const auto& f : files) EXPECT_TRUE(stored(f.first) == f.second) << f.first;
}
