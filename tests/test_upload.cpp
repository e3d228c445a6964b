// File uploads and data pushed by the service, over the key session that
// follows the pinned-certificate command on the same connection.
#include <gtest/gtest.h>

#include <dirent.h>
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <string>
#include <vector>

#include "localServiceHarness.h"
#include "sendFile.h"
#include "testUtil.h"
#include "util.h"

namespace {

// Streams both files and compares them; true when equal.
bool sameFile(const std::string& a, const std::string& b) {
    FILE* fa = fopen(a.c_str(), "rb");
    FILE* fb = fopen(b.c_str(), "rb");
    bool same = fa && fb;
    std::vector<char> ba(1 << 20), bb(1 << 20);
    while (same) {
        size_t na = fread(ba.data(), 1, ba.size(), fa);
        size_t nb = fread(bb.data(), 1, bb.size(), fb);
        same = na == nb && std::equal(ba.begin(), ba.begin() + (long)na, bb.begin());
        if (na == 0) break;
    }
    if (fa) fclose(fa);
    if (fb) fclose(fb);
    return same;
}

std::string pattern(size_t n) {
    std::string s(n, '\0');
    for (size_t i = 0; i < n; ++i) s[i] = (char)(i * 131 + (i >> 10));
    return s;
}

std::vector<std::string> receivedFiles(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d))
            if (std::string(e->d_name).rfind("CR.", 0) == 0) names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

class Upload : public ::testing::Test {
protected:
    // The key is built from the display name, bytes beyond ASCII included.
    void SetUp() override {
        svc.prepareAgentDataDir(data.path(), "box7", "Cl\xc3\xadnica \xc3\x98st");
    }
    const char* dir() const { return data.path().c_str(); }
    std::string count() const { return slurp(data.file("FileFailedCount.txt")); }

    int upload(const std::string& path, const char* remote = nullptr, bool unprocessed = false,
               std::string* err = nullptr) {
        testing::internal::CaptureStderr();
        int rc =
            SendFile::sendWFile(path.c_str(), remote, nullptr, "A", "B", dir(), false, unprocessed);
        std::string e = testing::internal::GetCapturedStderr();
        if (err) *err = e;
        return rc;
    }

    TempDir data;
    TempDir files;
    LocalService svc;
};

TEST_F(Upload, ChunkBoundariesArriveIdentical) {
    for (size_t size : {0ul, 1ul, 1048576ul, 1048577ul}) {
        std::string name = "f" + std::to_string(size) + ".bin";
        spit(files.file(name), pattern(size));
        ASSERT_EQ(upload(files.file(name), nullptr, size == 1), 0) << size;
        EXPECT_EQ(count(), "0");
        EXPECT_TRUE(sameFile(files.file(name), svc.storedFile(name))) << size;
        std::string fieldA = size == 1 ? "A._UNP_" : "A";
        EXPECT_EQ(svc.storedHeader(name),
                  "box7|" + name + "|" + std::to_string(size) + "|" + fieldA + "|B|~~|1");
        EXPECT_TRUE(exists(files.file(name)));  // removal is the caller's
    }
}

TEST_F(Upload, LargeFile) {
    const off_t size = 200ll << 20;
    std::string path = files.file("big.bin");
    int fd = open(path.c_str(), O_CREAT | O_WRONLY, 0644);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(ftruncate(fd, size), 0);
    // Sparse, with marked islands so that lost or reordered chunks show.
    for (off_t at = 0; at < size; at += 7 << 20) {
        std::string mark = "island at " + std::to_string(at);
        ASSERT_EQ(pwrite(fd, mark.data(), mark.size(), at), (ssize_t)mark.size());
    }
    ASSERT_EQ(pwrite(fd, "end", 3, size - 3), 3);
    close(fd);
    EXPECT_EQ(upload(path), 0);
    EXPECT_TRUE(sameFile(path, svc.storedFile("big.bin")));
    remove(svc.storedFile("big.bin").c_str());
    remove(path.c_str());
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

TEST_F(Upload, DeclinedIsSuccessWithoutBytes) {
    svc.setFault(LocalService::Fault::UploadNo);
    spit(data.file("FileFailedCount.txt"), "5");
    spit(files.file("x.bin"), pattern(1000));
    EXPECT_EQ(upload(files.file("x.bin")), 0);
    EXPECT_EQ(count(), "0");
    EXPECT_FALSE(exists(svc.storedFile("x.bin")));
    EXPECT_EQ(svc.commands().back(), "box7|x.bin|1000|A|B|~~|1");
}

TEST_F(Upload, FailuresAreCountedAndKeepTheFile) {
    spit(files.file("x.bin"), pattern(3 << 20));
    std::string err;
    svc.setFault(LocalService::Fault::WrongKey);
    EXPECT_EQ(upload(files.file("x.bin"), nullptr, false, &err), 1);
    EXPECT_NE(err.find("Receiving:  Fatal error during TLS handshake:  key mismatch most likely ("),
              std::string::npos)
        << err;
    EXPECT_EQ(count(), "1");
    svc.setFault(LocalService::Fault::WrongKey, false);

    svc.setFault(LocalService::Fault::CutUpload);
    EXPECT_EQ(upload(files.file("x.bin"), nullptr, false, &err), 1);
    EXPECT_EQ(count(), "2");
    EXPECT_TRUE(exists(files.file("x.bin")));
    EXPECT_FALSE(exists(svc.storedFile("x.bin")));
    svc.setFault(LocalService::Fault::CutUpload, false);

    // A name with "|" breaks the header; the service refuses it.
    spit(files.file("a|b~c"), "data");
    EXPECT_EQ(upload(files.file("a|b~c")), 1);
    EXPECT_EQ(count(), "3");

    spit(data.file("displayName.txt"), "");
    EXPECT_EQ(upload(files.file("x.bin"), nullptr, false, &err), 1);
    EXPECT_NE(err.find("Unconfigured host ... failing"), std::string::npos) << err;
    EXPECT_EQ(count(), "4");

    EXPECT_EQ(upload(files.file("missing.bin")), 1);
    EXPECT_EQ(upload(files.file("x.bin")), 1);  // still unconfigured
    EXPECT_EQ(count(), "5");
}

TEST_F(Upload, PushedText) {
    std::string text = "1.2.3|Smith^Anna|\xc3\xa9t\xc3\xa9\n" + pattern(3000);
    text.erase(std::remove(text.begin(), text.end(), '\0'), text.end());
    svc.setPushText("STUDIES", text);
    EXPECT_EQ(std::string(SendFile::getStudiesSince(dir(), "20240101", false, false)), text);
    EXPECT_EQ(svc.commands().back(), "box7|STUDIES|time-since|20240101");

    // A display name stored enciphered gives the same key.
    spit(data.file("displayName.txt"), Util::encrypt3("Cl\xc3\xadnica \xc3\x98st"));
    Memory mem;
    svc.setPushText("WORKLIST", "wl");
    EXPECT_EQ(std::string(SendFile::getWorklistResponse(dir(), "k=1", false, false, &mem)), "wl");

    // No data announced: nothing to receive, no second handshake.
    svc.setPushText("WORKLIST", "");
    svc.setReply("WORKLIST", "OK|0");
    EXPECT_EQ(std::string(SendFile::getWorklistResponse(dir(), "k=1", false, false)), "");
    svc.setReply("WORKLIST", "OK");
    EXPECT_EQ(std::string(SendFile::getWorklistResponse(dir(), "k=1", false, false)), "");
    svc.setReply("WORKLIST", "OK|-4");
    EXPECT_EQ(std::string(SendFile::getWorklistResponse(dir(), "k=1", false, false)), "");
}

TEST_F(Upload, PushedFilesStayInTheDataDirectory) {
    std::string source = files.file("src.dcm");
    spit(source, pattern(1500000));
    svc.setPushFile("img.dcm", source);
    std::string got = SendFile::getDicom(dir(), "studies/../../img.dcm", false, false);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.substr(0, data.path().size() + 4), data.path() + "/CR.");
    EXPECT_EQ(got.find('/', data.path().size() + 1), std::string::npos) << got;
    EXPECT_TRUE(sameFile(source, got));

    // An empty last field: the file is named after the one before.
    svc.setPushFile("uri", source);
    got = SendFile::getDicom(dir(), "", false, false);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(got.substr(got.size() - 4), ".uri");
    EXPECT_EQ(receivedFiles(data.path()).size(), 2u);
}

TEST_F(Upload, BrokenPushLeavesNothing) {
    std::string source = files.file("src.dcm");
    spit(source, pattern(3 << 20));
    svc.setPushFile("img.dcm", source);
    svc.setFault(LocalService::Fault::CutPush);
    testing::internal::CaptureStderr();
    EXPECT_EQ(std::string(SendFile::getDicom(dir(), "a/img.dcm", false, false)), "");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Incomplete Data Received"), std::string::npos) << err;
    EXPECT_TRUE(receivedFiles(data.path()).empty());
    svc.setFault(LocalService::Fault::CutPush, false);

    svc.setFault(LocalService::Fault::WrongKey);
    testing::internal::CaptureStderr();
    EXPECT_EQ(std::string(SendFile::getDicom(dir(), "a/img.dcm", false, false)), "");
    err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("key mismatch most likely"), std::string::npos) << err;
    EXPECT_TRUE(receivedFiles(data.path()).empty());
}

}  // namespace
