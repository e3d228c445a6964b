// Uploads and pushed data, over the key session that follows the command on the same connection.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "localServiceHarness.h"

namespace {

bool sameFile(const std::string& a, const std::string& b) { return runProgram({"/usr/bin/cmp", "-s", a, b}).status == 0; }

// Text without zero bytes, so that it survives as a reply.
std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = (char)(i * 131 + (i >> 10)) | 1;
    return s;
}

// Large files are sparse, with marked islands so that lost or reordered chunks show.
void makeFile(const std::string& path, off_t size) {
    if (size < (16 << 20)) return spit(path, pattern((size_t)size));
    int fd = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644);
    ASSERT_EQ(ftruncate(fd, size), 0);
    for (off_t at = 0; at < size; at += 7 << 20) {
        std::string mark = "island at " + std::to_string(at);
        ASSERT_EQ(pwrite(fd, mark.data(), mark.size(), at), (ssize_t)mark.size());
    }
    ASSERT_EQ(pwrite(fd, "end", 3, size - 3), 3);
    close(fd);
}

size_t receivedFiles(const std::string& dir) {
    size_t n = 0;
    for (const auto& e : std::filesystem::directory_iterator(dir)) n += e.path().filename().string().rfind("CR.", 0) == 0;
    return n;
}

const char* const DISPLAY_NAME = "Cl\xc3\xadnica \xc3\x98st";

class Upload : public ServiceTest {
protected:
    // The key is built from the display name, bytes beyond ASCII included.
    Upload() : ServiceTest(DISPLAY_NAME) {}
    std::string count() const { return slurp(data.file("FileFailedCount.txt")); }
    int upload(const std::string& path, const char* remote = nullptr, bool unprocessed = false, std::string* err = nullptr) {
        int rc = -1;
        std::string e = stderrOf([&] { rc = SendFile::sendWFile(path.c_str(), remote, nullptr, "A", "B", dir(), false, unprocessed); });
        if (err) *err = e;
        return rc;
    }
    std::string worklist(Memory* mem = nullptr) { return SendFile::getWorklistResponse(dir(), "k=1", false, false, mem); }

    TempDir files;
};

TEST_F(Upload, ChunkBoundariesLargeFilesAndMarkersArriveIdentical) {
    for (off_t size : {0ll, 1ll, 1048576ll, 1048577ll, 200ll << 20}) {
        std::string name = "f" + std::to_string(size) + ".bin", path = files.file(name);
        makeFile(path, size);
        ASSERT_EQ(upload(path, nullptr, size == 1), 0) << size;
        EXPECT_TRUE(sameFile(path, svc.storedFile(name))) << size;
        EXPECT_EQ(svc.storedHeader(name), "box7|" + name + "|" + std::to_string(size) + "|" +
                                              (size == 1 ? "A._UNP_" : "A") + "|B|~~|1");
        EXPECT_TRUE(exists(path));  // removal is the caller's
        remove(path.c_str());
        remove(svc.storedFile(name).c_str());
    }
    // A minimal DICOM file is named by its instance; the remote name's fields and sub-id go into the header.
    spit(files.file("img.dcm"), std::string(128, '\0') + "DICM" + std::string("\x02\x00\x03\x00UI\x08\x00" "1.2.3.4\0", 16));
    ASSERT_EQ(upload(files.file("img.dcm"), "study.dcm~QQ==~QkI=~sub"), 0);
    EXPECT_EQ(svc.storedHeader("1.2.3.4.dcm"), "box7/sub|1.2.3.4.dcm|148|A|BB|~~|1");
    ASSERT_EQ(upload(files.file("img.dcm"), "study.jpg~QQ==~QkI="), 0);
    EXPECT_EQ(svc.storedHeader("study.jpg"), "box7|study.jpg|148|A|B|~~|1");
}

TEST_F(Upload, OutcomesAndTheFailureCount) {
    using F = LocalService::Fault;
    std::string x = files.file("x.bin");
    spit(x, pattern(3 << 20));
    spit(data.file("FileFailedCount.txt"), "5");
    // Each failure adds one to the count, a success clears it. An alert on a held connection ends
    // the upload at once, not at the deadline; the first session's end left in the socket is dropped.
    const struct { F fault; int rc; const char *count, *report; } cases[] = {{F::UploadNo, 0, "0", ""},
                 {F::WrongKey, 1, "1", "Receiving:  Fatal error during TLS handshake:  key mismatch most likely ("},
                 {F::KeyAlert, 1, "2", ""},
                 {F::CutUpload, 1, "3", ""},
                 {F::StrayEnd, 0, "0", ""}};
    std::string err;
    for (const auto& c : cases) {
        SCOPED_TRACE(faultName(c.fault));
        svc.setFault(c.fault);
        double start = monotonicSeconds();
        EXPECT_EQ(upload(x, nullptr, false, &err), c.rc);
        EXPECT_LT(monotonicSeconds() - start, 20);
        EXPECT_EQ(count(), c.count);
        EXPECT_NE(err.find(c.report), std::string::npos) << err;
        EXPECT_EQ(sameFile(x, svc.storedFile("x.bin")), c.fault == F::StrayEnd);
        EXPECT_EQ(lastCommand(), "box7|x.bin|3145728|A|B|~~|1");
        if (c.fault == F::StrayEnd) {
            svc.setPushText("STUDIES", "after a stray end");
            EXPECT_EQ(std::string(SendFile::getStudiesSince(dir(), "1", false, false)), "after a stray end");
        }
        svc.setFault(c.fault, false);
    }

    // A name with "|" breaks the header; the service refuses it.
    spit(files.file("a|b~c"), "data");
    EXPECT_EQ(upload(files.file("a|b~c")), 1);
    EXPECT_EQ(count(), "1");
    spit(data.file("displayName.txt"), "");
    EXPECT_EQ(upload(x, nullptr, false, &err), 1);
    EXPECT_NE(err.find("Unconfigured host ... failing"), std::string::npos) << err;
    EXPECT_EQ(count(), "2");
    EXPECT_EQ(upload(files.file("missing.bin")), 1);
    EXPECT_EQ(count(), "2") << "a missing file is no failed upload";
}

TEST_F(Upload, PushedText) {
    std::string text = "1.2.3|Smith^Anna|\xc3\xa9t\xc3\xa9\n" + pattern(3000);
    svc.setPushText("STUDIES", text);
    EXPECT_EQ(std::string(SendFile::getStudiesSince(dir(), "20240101", false, false)), text);
    EXPECT_EQ(lastCommand(), "box7|STUDIES|time-since|20240101");

    // An enciphered display name gives the same key. Beyond the ring only into an arena; beyond the cap not at all.
    spit(data.file("displayName.txt"), Util::encrypt3(DISPLAY_NAME));
    Memory mem;
    std::string wide = pattern(Limits::RING_TEXT_MOST + 1000);
    svc.setPushText("WORKLIST", wide);
    EXPECT_EQ(worklist(&mem), wide);
    EXPECT_EQ(worklist(), "");
    svc.setPushText("WORKLIST", std::string(Limits::PUSHED_TEXT_MOST + 1, 'w'));
    EXPECT_EQ(worklist(&mem), "");

    // No data announced: nothing to receive, no second handshake.
    svc.setPushText("WORKLIST", "");
    for (const char* reply : {"OK|0", "OK", "OK|-4"}) {
        svc.setReply("WORKLIST", reply);
        EXPECT_EQ(worklist(), "") << reply;
    }
}

TEST_F(Upload, PushedFilesStayInTheDataDirectoryOrNowhere) {
    std::string source = files.file("src.dcm");
    spit(source, pattern(3 << 20));
    svc.setPushFile("img.dcm", source);
    std::string got = SendFile::getDicom(dir(), "studies/../../img.dcm", false, false);
    EXPECT_EQ(got.substr(0, data.path().size() + 4), data.path() + "/CR.");
    EXPECT_EQ(got.find('/', data.path().size() + 1), std::string::npos) << got;
    EXPECT_TRUE(sameFile(source, got));
    // More sent than announced: the file and the text hold only what was announced.
    svc.setFault(LocalService::Fault::OverPush);
    std::string over = SendFile::getDicom(dir(), "img.dcm", false, false);
    EXPECT_TRUE(sameFile(source, over));
    remove(over.c_str());
    svc.setPushText("STUDIES", "exact");
    EXPECT_EQ(std::string(SendFile::getStudiesSince(dir(), "1", false, false)), "exact");
    svc.setFault(LocalService::Fault::OverPush, false);

    // An empty last field: the file is named after the one before.
    svc.setPushFile("uri", source);
    got = SendFile::getDicom(dir(), "", false, false);
    EXPECT_EQ(got.substr(std::max<size_t>(got.size(), 4) - 4), ".uri");
    ASSERT_EQ(receivedFiles(data.path()), 2u);

    for (auto [fault, report] : {std::pair{LocalService::Fault::CutPush, "Incomplete Data Received"},
                                 {LocalService::Fault::WrongKey, "key mismatch most likely"}}) {
        svc.setFault(fault);
        std::string err = stderrOf([&] { got = SendFile::getDicom(dir(), "a/img.dcm", false, false); });
        EXPECT_EQ(got, "");
        EXPECT_NE(err.find(report), std::string::npos) << err;
        EXPECT_EQ(receivedFiles(data.path()), 2u);
        svc.setFault(fault, false);
    }
}

}  // namespace
