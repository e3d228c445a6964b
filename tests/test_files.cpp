#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "files.h"
#include "memory.h"
#include "testUtil.h"

namespace {
std::string readAndFree(const char* dir, const char* name) {
    char* t = readTxt(dir, name);
    std::string s(t);
    if (t != EMPTY_TEXT) free(t);
    return s;
}

int modeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<int>(st.st_mode & 07777) : -1;
}
}  // namespace

TEST(ReadTxt, MissingUnreadableZeroBytesAndDirectories) {
    TempDir d;
    const char* dir = d.path().c_str();
    EXPECT_EQ(readTxt(dir, "missing.txt"), EMPTY_TEXT);
    mkdir(d.file("sub").c_str(), 0775);
    EXPECT_EQ(readTxt(dir, "sub"), EMPTY_TEXT);

    // A socket cannot be opened, whoever asks.
    int s = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    snprintf(addr.sun_path, sizeof addr.sun_path, "%s", d.file("sock").c_str());
    ASSERT_EQ(bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);
    EXPECT_EQ(readTxt(dir, "sock"), EMPTY_TEXT);
    close(s);
    spit(d.file("secret.txt"), "x");
    chmod(d.file("secret.txt").c_str(), 0);  // binds all but root
    EXPECT_TRUE(geteuid() == 0 || readTxt(dir, "secret.txt") == EMPTY_TEXT);

    spit(d.file("empty.txt"), "");
    char* empty = readTxt(dir, "empty.txt");
    EXPECT_NE(empty, EMPTY_TEXT);
    EXPECT_STREQ(empty, "");
    free(empty);
    spit(d.file("zero.txt"), std::string("a\0b", 3));
    EXPECT_EQ(readAndFree(d.file("zero.txt").c_str(), ""), "a b");  // empty name: full path
    spit(d.file("value.txt"), "  v \n");
    EXPECT_STREQ(readTrimmed(dir, "value.txt"), "v");
}

TEST(WriteTxt, ReplacesAtomicallyWithMode0664AndLeavesNoTemporary) {
    TempDir d;
    const char* dir = d.path().c_str();
    ASSERT_TRUE(writeTxt(dir, "a.txt", "first"));
    ASSERT_TRUE(writeTxt(dir, "a.txt", "second"));
    EXPECT_EQ(slurp(d.file("a.txt")), "second");
    EXPECT_EQ(modeOf(d.file("a.txt")), 0664);
    ASSERT_TRUE(writeData(dir, "b.bin", "x\0y", 3));
    EXPECT_EQ(slurp(d.file("b.bin")), std::string("x\0y", 3));
    EXPECT_EQ(getFileCount(dir), 2);
    EXPECT_FALSE(writeTxt((d.path() + "/nodir").c_str(), "a.txt", "x"));

    // A directory in the way defeats rename, unlink and "mv -f" alike.
    std::string target = d.file("blocked");
    std::string temp = "blocked.SV." + std::to_string(getpid());
    ASSERT_EQ(mkdir(target.c_str(), 0775), 0);
    ASSERT_EQ(mkdir((target + "/" + temp).c_str(), 0775), 0);
    spit(target + "/" + temp + "/keep", "k");
    EXPECT_TRUE(writeTxt(dir, "blocked", "lost"));
    EXPECT_FALSE(exists(d.file(temp)));
    EXPECT_TRUE(exists(target + "/" + temp + "/keep"));
}

TEST(WriteTxt, ConcurrentReaderSeesOnlyWholeContents) {
    TempDir d;
    const char* dir = d.path().c_str();
    const std::string a(3000, 'a'), b(5000, 'b');
    ASSERT_TRUE(writeTxt(dir, "s.txt", a.c_str()));
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0}, reads{0};
    std::thread reader([&] {
        for (; !stop; ++reads) {
            std::string s = readAndFree(dir, "s.txt");
            if (s != a && s != b) ++bad;
        }
    });
    for (int i = 0; i < 300; ++i) writeTxt(dir, "s.txt", (i % 2 ? a : b).c_str());
    stop = true;
    reader.join();
    EXPECT_EQ(bad, 0);
    EXPECT_GT(reads, 0);
}

TEST(CpFile, CopiesAndFallsBackToTheShellForReadOnlySources) {
    TempDir d;
    std::string content(3 * 1048576 + 17, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 131 % 251);
    spit(d.file("src.bin"), content);
    chmod(d.file("src.bin").c_str(), 0600);
    EXPECT_EQ(cpFile(d.path().c_str(), "src.bin", d.path().c_str(), "dst.bin"), 0);
    EXPECT_TRUE(slurp(d.file("dst.bin")) == content);
    EXPECT_EQ(modeOf(d.file("dst.bin")), 0664);
    EXPECT_EQ(cpFile(d.file("src.bin").c_str(), d.file("src.bin").c_str()), 1);
    EXPECT_EQ(slurp(d.file("src.bin")).size(), content.size());
    spit(d.file("empty"), "");
    EXPECT_EQ(cpFile(d.file("empty").c_str(), d.file("dst.bin").c_str()), 0);
    EXPECT_EQ(slurp(d.file("dst.bin")), "");
    mkdir(d.file("adir").c_str(), 0775);
    EXPECT_EQ(cpFile(d.file("adir").c_str(), d.file("copy2").c_str()), 1);
    EXPECT_FALSE(exists(d.file("copy2")));

    // A source that cannot be opened for writing (for root: immutable); the
    // shell copy keeps its read-only mode where the direct copy would not.
    std::string ro = d.file("ro name's $x.txt");
    spit(ro, "read only");
    chmod(ro.c_str(), 0444);
    char* q = shellQuote(ro.c_str());
    std::string quoted(q);
    free(q);
    if (geteuid() == 0 && system(("chattr +i " + quoted + " 2>/dev/null").c_str()) != 0) {
        GTEST_SKIP() << "root without chattr cannot make a read-only source";
    }
    int rc = cpFile(ro.c_str(), d.file("copy.txt").c_str());
    if (geteuid() == 0) {
        EXPECT_EQ(system(("chattr -i " + quoted).c_str()), 0);
    }
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(slurp(d.file("copy.txt")), "read only");
    EXPECT_EQ(modeOf(d.file("copy.txt")) & 0222, 0);
}

TEST(FileOps, MoveAppendTestsAndLocks) {
    TempDir d;
    const char* dir = d.path().c_str();
    spit(d.file("a"), "A");
    spit(d.file("b"), "B");
    EXPECT_EQ(mvFile(dir, "a", dir, "b"), 0);
    EXPECT_EQ(slurp(d.file("b")), "A");
    EXPECT_FALSE(fileExists(dir, "a"));
    EXPECT_NE(mvFile(d.file("none").c_str(), d.file("c").c_str()), 0);

    EXPECT_TRUE(appendLogNoSync(dir, "log", "12", 2));
    EXPECT_TRUE(appendLogNoSync(dir, "log", "34", 2));
    EXPECT_EQ(appendFile(d.file("b").c_str(), d.file("log").c_str()), 0);
    EXPECT_EQ(appendFile(d.file("none").c_str(), d.file("log").c_str()), 1);
    writeLine("line", d.file("log").c_str());
    EXPECT_EQ(slurp(d.file("log")), "1234Aline\n");
    EXPECT_FALSE(appendLogNoSync((d.path() + "/gone").c_str(), "log", "x", 1));
    EXPECT_EQ(rmFile(dir, "log"), 0);

    spit(d.file("empty"), "");
    mkdir(d.file("sub").c_str(), 0775);
    EXPECT_TRUE(fileExists(dir, "empty"));
    EXPECT_FALSE(nonZeroFile(dir, "empty"));
    EXPECT_TRUE(nonZeroFile(dir, "b"));
    EXPECT_TRUE(fileExists(dir, "sub"));
    EXPECT_FALSE(fileExists(dir, "log"));
    EXPECT_EQ(getFileSize(dir, "b"), 1);
    EXPECT_EQ(getFileCount(dir), 2);
    EXPECT_EQ(getFileCount(d.file("none").c_str()), 0);

    EXPECT_FALSE(isLocked(d.file("b").c_str()));
    int fd = open(d.file("b").c_str(), O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(flock(fd, LOCK_EX), 0);
    EXPECT_TRUE(isLocked(d.file("b").c_str()));
    close(fd);
    EXPECT_FALSE(isLocked(d.file("b").c_str()));
}

TEST(ListDir, SortedNamesInTheArenaAndThroughTheShell) {
    TempDir d;
    for (const char* n : {"b", "a", "Z", "a b", "c'd"}) spit(d.file(n), "x");
    std::string odd = d.file("dir $HOME 'q'");
    mkdir(odd.c_str(), 0775);
    spit(odd + "/two", "2");
    spit(odd + "/one", "1");
    Memory m;
    int count = 0;
    char** names = Util::listDir(d.path().c_str(), &count, &m);
    ASSERT_EQ(count, 6);
    const char* expected[] = {"Z", "a", "a b", "b", "c'd", "dir $HOME 'q'"};
    for (int i = 0; i < 6; ++i) EXPECT_STREQ(names[i], expected[i]);
    names = Util::listDirC(odd.c_str(), &count, &m);
    ASSERT_EQ(count, 2);
    EXPECT_STREQ(names[0], "one");
    EXPECT_STREQ(names[1], "two");
    for (auto list : {Util::listDir, Util::listDirC}) {
        EXPECT_EQ(list(d.file("none").c_str(), &count, &m), nullptr);
        EXPECT_EQ(count, 0);
    }
}
