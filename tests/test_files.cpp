#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

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

pid_t startChild(const std::function<int()>& body) {
    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    return pid;
}

// The child's exit status, or -1 when it did not end within a minute.
int waitChild(pid_t pid) {
    int status = 0;
    if (!waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, 60000)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        return -1;
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
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

    // A directory in the way is neither replaced nor entered.
    ASSERT_EQ(mkdir(d.file("blocked").c_str(), 0775), 0);
    spit(d.file("blocked/keep"), "k");
    EXPECT_FALSE(writeTxt(dir, "blocked", "lost"));
    EXPECT_EQ(getFileCount(dir), 2);
    EXPECT_EQ(getFileCount(d.file("blocked").c_str()), 1);

    // A new file never replaces one.
    EXPECT_EQ(createDataSynced(dir, "n.hl7", "first", 5), 0);
    EXPECT_EQ(createDataSynced(dir, "n.hl7", "second", 6), EEXIST);
    EXPECT_EQ(slurp(d.file("n.hl7")), "first");
    EXPECT_EQ(modeOf(d.file("n.hl7")), 0664);
    EXPECT_EQ(createDataSynced((d.path() + "/nodir").c_str(), "n.hl7", "x", 1), ENOENT);
    EXPECT_EQ(getFileCount(dir), 3);
}

TEST(WriteTxt, AWriteThatDoesNotCompleteLeavesTheOldFile) {
    TempDir d;
    const char* dir = d.path().c_str();
    spit(d.file("msg.hl7"), "old");
    const std::string big(8990, 'x');
    // A full disk, as a file-size limit: writes stop short with EFBIG.
    int failed = waitChild(startChild([&] {
        rlimit limit{4096, 4096};
        signal(SIGXFSZ, SIG_IGN);
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 99;
        return (writeTxt(dir, "msg.hl7", big.c_str()) ? 1 : 0) |
               (writeDataSynced(dir, "msg.hl7", big.data(), big.size()) ? 2 : 0) |
               (createDataSynced(dir, "new.hl7", big.data(), big.size()) != EFBIG ? 4 : 0) |
               (writeTxt(dir, "small.txt", "fits") ? 0 : 8);
    }));
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(slurp(d.file("msg.hl7")), "old");
    EXPECT_EQ(slurp(d.file("small.txt")), "fits");
    EXPECT_EQ(getFileCount(dir), 2);
}

TEST(WriteTxt, TemporariesNeverFollowOrReuseAPlantedName) {
    TempDir d;
    const char* dir = d.path().c_str();
    const std::string victim = d.file("victim"), absent = d.file("absent");
    spit(victim, "victim");
    chmod(victim.c_str(), 0600);
    spit(d.file("source"), "text");
    struct Writer {
        const char* name;
        bool hidden;  // its temporary starts with "."
        std::function<bool()> write;
    };
    const Writer writers[] = {
        {"w.txt", false, [&] { return writeTxt(dir, "w.txt", "text"); }},
        {"d.bin", false, [&] { return writeDataSynced(dir, "d.bin", "text", 4); }},
        {"c.txt", false, [&] { return cpFile(d.file("source").c_str(), d.file("c.txt").c_str()) == 0; }},
        {"n.hl7", true, [&] { return createDataSynced(dir, "n.hl7", "text", 4) == 0; }},
    };
    std::vector<std::string> planted;
    for (const Writer& w : writers) {
        // A fresh thread: its first temporaries are numbered from 0.
        std::thread([&] {
            std::string prefix = d.file((w.hidden ? "." : "") + std::string(w.name)) + ".SV." + std::to_string(getpid());
            std::string own = prefix + "." + std::to_string(syscall(SYS_gettid)) + ".";
            ASSERT_EQ(symlink(victim.c_str(), prefix.c_str()), 0);
            ASSERT_EQ(symlink(victim.c_str(), (own + "0").c_str()), 0);
            ASSERT_EQ(symlink(absent.c_str(), (own + "1").c_str()), 0);
            spit(own + "2", "planted");
            planted.push_back(own + "2");
            EXPECT_TRUE(w.write()) << w.name;
        }).join();
        EXPECT_EQ(slurp(d.file(w.name)), "text") << w.name;
        EXPECT_EQ(modeOf(d.file(w.name)), 0664) << w.name;
    }
    EXPECT_EQ(slurp(victim), "victim");
    EXPECT_EQ(modeOf(victim), 0600);
    EXPECT_FALSE(exists(absent));
    for (const std::string& p : planted) EXPECT_EQ(slurp(p), "planted") << p;
}

TEST(WriteTxt, ConcurrentWritersNeverLetAReaderFindItMissingOrMixed) {
    TempDir d;
    const char* dir = d.path().c_str();
    const std::string a(3000, 'a'), b(5000, 'b');
    ASSERT_TRUE(writeTxt(dir, "s.txt", a.c_str()));
    const int writes = 500;
    auto writer = [&] {
        int failed = 0;
        for (int i = 0; i < writes; ++i) failed += !writeTxt(dir, "s.txt", (i % 2 ? a : b).c_str());
        return failed;
    };
    // Processes first: none forks while this one has threads.
    std::vector<pid_t> processes = {startChild(writer), startChild(writer)};
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0}, reads{0}, failed{0};
    std::thread reader([&] {
        for (; !stop; ++reads) {
            std::string s = readAndFree(dir, "s.txt");
            if (s != a && s != b) ++bad;
        }
    });
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) threads.emplace_back([&] { failed += writer(); });
    for (std::thread& t : threads) t.join();
    for (pid_t p : processes) EXPECT_EQ(waitChild(p), 0);
    stop = true;
    reader.join();
    EXPECT_EQ(failed, 0);
    EXPECT_EQ(bad, 0);
    EXPECT_GT(reads, 0);
    EXPECT_EQ(getFileCount(dir), 1);
}

TEST(CpFile, CopiesReadOnlySourcesAndNeverHarmsTheDestination) {
    TempDir d;
    std::string content(3 * 1048576 + 17, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 131 % 251);
    spit(d.file("src.bin"), content);
    chmod(d.file("src.bin").c_str(), 0444);
    EXPECT_EQ(cpFile(d.path().c_str(), "src.bin", d.path().c_str(), "dst.bin"), 0);
    EXPECT_TRUE(slurp(d.file("dst.bin")) == content);
    EXPECT_EQ(modeOf(d.file("dst.bin")), 0664);
    EXPECT_EQ(cpFile(d.file("src.bin").c_str(), d.file("src.bin").c_str()), 1);
    EXPECT_EQ(slurp(d.file("src.bin")).size(), content.size());
    spit(d.file("empty"), "");
    EXPECT_EQ(cpFile(d.file("empty").c_str(), d.file("dst.bin").c_str()), 0);
    EXPECT_EQ(slurp(d.file("dst.bin")), "");

    // A copy that fails leaves the destination as it was.
    spit(d.file("dst.bin"), "keep");
    mkdir(d.file("adir").c_str(), 0775);
    for (const char* source : {"adir", "none"}) {
        EXPECT_EQ(cpFile(d.file(source).c_str(), d.file("dst.bin").c_str()), 1) << source;
        EXPECT_EQ(slurp(d.file("dst.bin")), "keep") << source;
    }
    EXPECT_EQ(cpFile(d.file("adir").c_str(), d.file("copy2").c_str()), 1);
    EXPECT_EQ(getFileCount(d.path().c_str()), 3);
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
    // A directory in the way is refused, never entered.
    mkdir(d.file("full").c_str(), 0775);
    EXPECT_NE(mvFile(d.file("b").c_str(), d.file("full").c_str()), 0);
    EXPECT_EQ(slurp(d.file("b")), "A");
    EXPECT_EQ(getFileCount(d.file("full").c_str()), 0);
    // From another file system the shell moves it, names quoted.
    std::string other = "/dev/shm/-hubtalk " + std::to_string(getpid()) + " 'q' $HOME";
    spit(other, "D");
    if (exists(other)) {
        EXPECT_EQ(mvFile(other.c_str(), d.file("-d 'q' $HOME").c_str()), 0);
        EXPECT_EQ(slurp(d.file("-d 'q' $HOME")), "D");
        EXPECT_FALSE(exists(other));
        unlink(other.c_str());
        rmFile(dir, "-d 'q' $HOME");
    }

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

TEST(ListDir, SortedNamesInTheArena) {
    TempDir d;
    for (const char* n : {"b", "a", "Z", "a b", "c'd"}) spit(d.file(n), "x");
    mkdir(d.file("dir $HOME 'q'").c_str(), 0775);
    Memory m;
    int count = 0;
    char** names = Util::listDir(d.path().c_str(), &count, &m);
    ASSERT_EQ(count, 6);
    const char* expected[] = {"Z", "a", "a b", "b", "c'd", "dir $HOME 'q'"};
    for (int i = 0; i < 6; ++i) EXPECT_STREQ(names[i], expected[i]);
    EXPECT_EQ(Util::listDir(d.file("none").c_str(), &count, &m), nullptr);
    EXPECT_EQ(count, 0);
}
