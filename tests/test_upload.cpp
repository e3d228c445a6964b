// File uploads and data pushed by the service, over the key session that
// follows the pinned-certificate command on the same connection.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "bounds.h"
#include "localServiceHarness.h"
#include "process.h"
#include "sendFile.h"
#include "testUtil.h"
#include "util.h"

namespace {

// Streams both files and compares them; true when equal.
bool sameFile(const std::string& a, const std::string& b) {
    std::ifstream fa(a, std::ios::binary), fb(b, std::ios::binary);
    std::vector<char> ba(1 << 20), bb(1 << 20);
    while (fa && fb) {
        fa.read(ba.data(), (std::streamsize)ba.size());
        fb.read(bb.data(), (std::streamsize)bb.size());
        if (fa.gcount() != fb.gcount() || !std::equal(ba.begin(), ba.begin() + fa.gcount(), bb.begin()))
            return false;
    }
    return fa.eof() && fb.eof();
}

std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = (char)(i * 131 + (i >> 10));
    return s;
}

// Large files are sparse, with marked islands so that lost or reordered chunks show.
void makeFile(const std::string& path, off_t size) {
    if (size < (16 << 20)) return spit(path, pattern((size_t)size));
    int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
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
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) n += std::string(e->d_name).rfind("CR.", 0) == 0;
        closedir(d);
    }
    return n;
}

const char* const DISPLAY_NAME = "Cl\xc3\xadnica \xc3\x98st";

class Upload : public ServiceTest {
protected:
    // The key is built from the display name, bytes beyond ASCII included.
    Upload() : ServiceTest(DISPLAY_NAME) {}
    std::string count() const { return slurp(data.file("FileFailedCount.txt")); }
    int upload(const std::string& path, const char* remote = nullptr, bool unprocessed = false,
               std::string* err = nullptr) {
        int rc = -1;
        std::string e = stderrOf([&] {
            rc = SendFile::sendWFile(path.c_str(), remote, nullptr, "A", "B", dir(), false, unprocessed);
        });
        if (err) *err = e;
        return rc;
    }

    TempDir files;
};

TEST_F(Upload, ChunkBoundariesAndLargeFilesArriveIdentical) {
    for (off_t size : {0ll, 1ll, 1048576ll, 1048577ll, 200ll << 20}) {
        std::string name = "f" + std::to_string(size) + ".bin", path = files.file(name);
        makeFile(path, size);
        ASSERT_EQ(upload(path, nullptr, size == 1), 0) << size;
        EXPECT_EQ(count(), "0");
        EXPECT_TRUE(sameFile(path, svc.storedFile(name))) << size;
        EXPECT_EQ(svc.storedHeader(name), "box7|" + name + "|" + std::to_string(size) + "|" +
                                              (size == 1 ? "A._UNP_" : "A") + "|B|~~|1");
        EXPECT_TRUE(exists(path));  // removal is the caller's
        remove(path.c_str());
        remove(svc.storedFile(name).c_str());
    }
}

TEST_F(Upload, MarkersCarryFieldsAndSubId) {
    // A minimal DICOM file: preamble, "DICM", (0002,0003) UI.
    std::string dicom(128, '\0');
    dicom += "DICM";
    dicom += std::string("\x02\x00\x03\x00UI\x08\x00", 8) + std::string("1.2.3.4\0", 8);
    spit(files.file("img.dcm"), dicom);
    ASSERT_EQ(upload(files.file("img.dcm"), "study.dcm~QQ==~QkI=~sub"), 0);
    EXPECT_EQ(svc.storedHeader("1.2.3.4.dcm"), "box7/sub|1.2.3.4.dcm|148|A|BB|~~|1");
    // Two parts: only the name changes.
    ASSERT_EQ(upload(files.file("img.dcm"), "study.jpg~QQ==~QkI="), 0);
    EXPECT_EQ(svc.storedHeader("study.jpg"), "box7|study.jpg|148|A|B|~~|1");
}

TEST_F(Upload, OutcomesAndTheFailureCount) {
    spit(files.file("x.bin"), pattern(3 << 20));
    spit(data.file("FileFailedCount.txt"), "5");
    svc.setFault(LocalService::Fault::UploadNo);
    EXPECT_EQ(upload(files.file("x.bin")), 0);
    EXPECT_EQ(count(), "0");
    EXPECT_FALSE(exists(svc.storedFile("x.bin")));
    EXPECT_EQ(lastCommand(), "box7|x.bin|3145728|A|B|~~|1");
    svc.setFault(LocalService::Fault::UploadNo, false);

    std::string err;
    svc.setFault(LocalService::Fault::WrongKey);
    EXPECT_EQ(upload(files.file("x.bin"), nullptr, false, &err), 1);
    EXPECT_NE(err.find("Receiving:  Fatal error during TLS handshake:  key mismatch most likely ("),
              std::string::npos)
        << err;
    EXPECT_EQ(count(), "1");
    svc.setFault(LocalService::Fault::WrongKey, false);

    // Refused with an alert on a connection the service holds open: over at
    // once, not when the minute's deadline ends it.
    svc.setFault(LocalService::Fault::KeyAlert);
    double start = monotonicSeconds();
    EXPECT_EQ(upload(files.file("x.bin")), 1);
    EXPECT_LT(monotonicSeconds() - start, 20);
    EXPECT_EQ(count(), "2");
    svc.setFault(LocalService::Fault::KeyAlert, false);
    spit(data.file("FileFailedCount.txt"), "1");

    svc.setFault(LocalService::Fault::CutUpload);
    EXPECT_EQ(upload(files.file("x.bin")), 1);
    EXPECT_EQ(count(), "2");
    EXPECT_TRUE(exists(files.file("x.bin")));
    EXPECT_FALSE(exists(svc.storedFile("x.bin")));
    svc.setFault(LocalService::Fault::CutUpload, false);

    // The first session's own end left in the socket is dropped unread.
    svc.setFault(LocalService::Fault::StrayEnd);
    EXPECT_EQ(upload(files.file("x.bin")), 0);
    EXPECT_EQ(count(), "0");
    EXPECT_TRUE(sameFile(files.file("x.bin"), svc.storedFile("x.bin")));
    svc.setPushText("STUDIES", "after a stray end");
    EXPECT_EQ(std::string(SendFile::getStudiesSince(dir(), "1", false, false)), "after a stray end");
    svc.setFault(LocalService::Fault::StrayEnd, false);
    remove(svc.storedFile("x.bin").c_str());
    spit(data.file("FileFailedCount.txt"), "2");

    // A name with "|" breaks the header; the service refuses it.
    spit(files.file("a|b~c"), "data");
    EXPECT_EQ(upload(files.file("a|b~c")), 1);
    EXPECT_EQ(count(), "3");

    spit(data.file("displayName.txt"), "");
    EXPECT_EQ(upload(files.file("x.bin"), nullptr, false, &err), 1);
    EXPECT_NE(err.find("Unconfigured host ... failing"), std::string::npos) << err;
    EXPECT_EQ(count(), "4");
    EXPECT_EQ(upload(files.file("missing.bin")), 1);
    EXPECT_EQ(count(), "4") << "a missing file is no failed upload";
}

TEST_F(Upload, PushedText) {
    std::string text = "1.2.3|Smith^Anna|\xc3\xa9t\xc3\xa9\n" + pattern(3000);
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    svc.setPushText("STUDIES", text);
    EXPECT_EQ(std::string(SendFile::getStudiesSince(dir(), "20240101", false, false)), text);
    EXPECT_EQ(lastCommand(), "box7|STUDIES|time-since|20240101");

    // A display name stored enciphered gives the same key.
    spit(data.file("displayName.txt"), Util::encrypt3(DISPLAY_NAME));
    Memory mem;
    svc.setPushText("WORKLIST", "wl");
    EXPECT_EQ(std::string(SendFile::getWorklistResponse(dir(), "k=1", false, false, &mem)), "wl");

    // Beyond the shared ring only into an arena; beyond the cap not at all.
    std::string wide = pattern(Limits::RING_TEXT_MOST + 1000);
    wide.erase(std::remove(wide.begin(), wide.end(), '\0'), wide.end());
    svc.setPushText("WORKLIST", wide);
    EXPECT_EQ(std::string(SendFile::getWorklistResponse(dir(), "k=1", false, false, &mem)), wide);
    EXPECT_EQ(std::string(SendFile::getWorklistResponse(dir(), "k=1", false, false)), "");
    svc.setPushText("WORKLIST", std::string(Limits::PUSHED_TEXT_MOST + 1, 'w'));
    EXPECT_EQ(std::string(SendFile::getWorklistResponse(dir(), "k=1", false, false, &mem)), "");

    // No data announced: nothing to receive, no second handshake.
    svc.setPushText("WORKLIST", "");
    for (const char* reply : {"OK|0", "OK", "OK|-4"}) {
        svc.setReply("WORKLIST", reply);
        EXPECT_EQ(std::string(SendFile::getWorklistResponse(dir(), "k=1", false, false)), "") << reply;
    }
}

TEST_F(Upload, PushedFilesStayInTheDataDirectoryOrNowhere) {
    std::string source = files.file("src.dcm");
    spit(source, pattern(3 << 20));
    svc.setPushFile("img.dcm", source);
    std::string got = SendFile::getDicom(dir(), "studies/../../img.dcm", false, false);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.substr(0, data.path().size() + 4), data.path() + "/CR.");
    EXPECT_EQ(got.find('/', data.path().size() + 1), std::string::npos) << got;
    EXPECT_TRUE(sameFile(source, got));
    // A service that sends more than it announced: the file holds the announced bytes.
    svc.setFault(LocalService::Fault::OverPush);
    std::string over = SendFile::getDicom(dir(), "img.dcm", false, false);
    svc.setFault(LocalService::Fault::OverPush, false);
    ASSERT_FALSE(over.empty());
    EXPECT_TRUE(sameFile(source, over));
    remove(over.c_str());
    svc.setPushText("STUDIES", "exact");
    svc.setFault(LocalService::Fault::OverPush);
    std::string text = SendFile::getStudiesSince(dir(), "1", false, false);
    svc.setFault(LocalService::Fault::OverPush, false);
    EXPECT_EQ(text, "exact");

    // An empty last field: the file is named after the one before.
    svc.setPushFile("uri", source);
    got = SendFile::getDicom(dir(), "", false, false);
    ASSERT_GE(got.size(), 4u);
    EXPECT_EQ(got.substr(got.size() - 4), ".uri");
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
