#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "files.h"
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

// Only a regular file is read; anything else, a FIFO without a writer or a
// device too, reads as empty at once.
TEST(ReadTxt, WhatCannotBeReadIsEmptyAndZeroBytesAreBlanked) {
    TempDir d;
    mkdir(d.file("sub").c_str(), 0775);
    ASSERT_EQ(mkfifo(d.file("fifo").c_str(), 0664), 0);
    ASSERT_EQ(mknod(d.file("sock").c_str(), S_IFSOCK | 0664, 0), 0);
    const std::pair<std::string, const char*> unreadable[] = {
        {d.path(), "missing.txt"}, {d.path(), "sub"}, {d.path(), "sock"}, {d.path(), "fifo"}, {"/dev/null", ""}};
    for (const auto& [dir, name] : unreadable)
        EXPECT_EQ(inChild([&] { return readTxt(dir.c_str(), name) == EMPTY_TEXT ? 0 : 1; }, 5000), 0) << name;
    spit(d.file("zero.txt"), std::string("a\0b", 3));
    EXPECT_EQ(readAndFree(d.file("zero.txt").c_str(), ""), "a b");  // empty name: the path alone
    spit(d.file("value.txt"), "  v \n");
    EXPECT_STREQ(readTrimmed(d.path().c_str(), "value.txt"), "v");
}

// Every way of writing a file: a whole new file with mode 0664, or nothing
// and the old file as it was, when the write fails, stops short (a full disk,
// as a file-size limit) or meets a directory; temporaries never follow or
// reuse a name planted beside the file, and none is left behind.
TEST(WriteTxt, WritersReplaceWholeOrLeaveTheOldFile) {
    TempDir d;
    const std::string victim = d.file("victim"), absent = d.file("absent"), sub = d.file("sub"), big(8990, 'x');
    spit(victim, "victim");
    chmod(victim.c_str(), 0600);
    mkdir(sub.c_str(), 0775);
    const struct {
        const char* name;
        bool hidden;    // its temporary starts with "."
        bool replaces;  // else a taken name is refused with EEXIST
        std::function<int(const std::string& dir, const std::string& text)> write;  // 0: written
    } writers[] = {
        {"w.txt", false, true, [](auto& in, auto& t) { return writeTxt(in.c_str(), "w.txt", t.c_str()) ? 0 : -1; }},
        {"c.txt", false, true, [&](auto& in, auto& t) {
             if (slurp(d.file("source")) != t) spit(d.file("source"), t);
             return cpFile(d.file("source").c_str(), (in + "/c.txt").c_str()) ? -1 : 0; }},
        {"n.hl7", true, false, [](auto& in, auto& t) { return createDataSynced(in.c_str(), "n.hl7", t.data(), t.size()); }},
    };
    std::vector<std::string> planted;
    for (const auto& w : writers) {
        SCOPED_TRACE(w.name);
        const std::string path = d.file(w.name), first = "first";
        EXPECT_NE(w.write(d.file("nodir"), "x"), 0);
        // A fresh thread: its first temporaries are numbered from 0.
        std::thread([&] {
            std::string prefix = d.file((w.hidden ? "." : "") + std::string(w.name)) + ".SV." + std::to_string(getpid());
            std::string own = prefix + "." + std::to_string(syscall(SYS_gettid)) + ".";
            ASSERT_EQ(symlink(victim.c_str(), prefix.c_str()), 0);
            ASSERT_EQ(symlink(victim.c_str(), (own + "0").c_str()), 0);
            ASSERT_EQ(symlink(absent.c_str(), (own + "1").c_str()), 0);
            spit(own + "2", "planted");
            planted.push_back(own + "2");
            EXPECT_EQ(w.write(d.path(), first), 0);
        }).join();
        EXPECT_EQ(slurp(path), first);
        EXPECT_EQ(modeOf(path), 0664);
        EXPECT_EQ(w.write(d.path(), "second"), w.replaces ? 0 : EEXIST);
        const std::string before = slurp(path);
        EXPECT_EQ(before, w.replaces ? "second" : first);
        spit(d.file("source"), big);
        EXPECT_EQ(inChild([&] {
            rlimit limit{4096, 4096};
            signal(SIGXFSZ, SIG_IGN);
            return setrlimit(RLIMIT_FSIZE, &limit) == 0 && w.write(d.path(), big) != 0 && w.write(sub, big) != 0 &&
                   w.write(sub, "fits") == 0;
        }), 1);
        EXPECT_EQ(slurp(path), before);
        EXPECT_EQ(slurp(sub + "/" + w.name), "fits");
        // A directory in the way is neither replaced nor entered.
        unlink((sub + "/" + w.name).c_str());
        ASSERT_EQ(mkdir((sub + "/" + w.name).c_str(), 0775), 0);
        EXPECT_NE(w.write(sub, "lost"), 0);
        EXPECT_EQ(getFileCount((sub + "/" + w.name).c_str()), 0);
    }
    EXPECT_EQ(slurp(victim), "victim");
    EXPECT_EQ(modeOf(victim), 0600);
    for (const std::string& p : planted) EXPECT_EQ(slurp(p), "planted") << p;
    EXPECT_EQ(getFileCount(sub.c_str()), 0);
    // The files, victim, source and the planted names.
    EXPECT_EQ(getFileCount(d.path().c_str()), static_cast<int>(std::size(writers) * 5 + 2));
}

TEST(WriteTxt, ConcurrentWritersNeverLetAReaderFindItMissingOrMixed) {
    TempDir d;
    const char* dir = d.path().c_str();
    const std::string a(3000, 'a'), b(5000, 'b');
    ASSERT_TRUE(writeTxt(dir, "s.txt", a.c_str()));
    std::atomic<bool> stop{false};
    std::atomic<int> bad{0}, reads{0};
    std::thread reader([&] {
        for (std::string s; !stop; ++reads) s = readAndFree(dir, "s.txt"), bad += s != a && s != b;
    });
    std::vector<std::thread> writers;
    for (int t = 0; t < 3; ++t)
        writers.emplace_back([&] {
            for (int i = 0; i < 500; ++i) bad += !writeTxt(dir, "s.txt", (i % 2 ? a : b).c_str());
        });
    for (std::thread& t : writers) t.join();
    stop = true;
    reader.join();
    EXPECT_EQ(bad, 0);
    EXPECT_GT(reads, 0);
    EXPECT_EQ(getFileCount(dir), 1);
}

TEST(FileOps, CopiesAndMovesNeverHarmTheDestinationAndQuoteForTheShell) {
    TempDir d;
    // Several copy buffers' worth; a file is never copied onto itself.
    std::string content(3 * 1048576 + 17, '\0');
    for (size_t i = 0; i < content.size(); ++i) content[i] = static_cast<char>(i * 131 % 251);
    spit(d.file("src.bin"), content);
    EXPECT_EQ(cpFile(d.path().c_str(), "src.bin", d.path().c_str(), "dst.bin"), 0);
    EXPECT_TRUE(slurp(d.file("dst.bin")) == content);
    EXPECT_EQ(cpFile(d.file("src.bin").c_str(), d.file("src.bin").c_str()), 1);
    EXPECT_TRUE(slurp(d.file("src.bin")) == content);
    spit(d.file("dst.bin"), "keep");
    mkdir(d.file("adir").c_str(), 0775);
    for (const char* source : {"adir", "none"}) {
        EXPECT_EQ(cpFile(d.file(source).c_str(), d.file("dst.bin").c_str()), 1) << source;
        EXPECT_EQ(slurp(d.file("dst.bin")), "keep") << source;
    }
    // A directory in the way of a move is refused, never entered.
    EXPECT_NE(mvFile(d.file("dst.bin").c_str(), d.file("adir").c_str()), 0);
    EXPECT_EQ(slurp(d.file("dst.bin")), "keep");
    EXPECT_EQ(getFileCount(d.file("adir").c_str()), 0);
    EXPECT_NE(mvFile(d.file("none").c_str(), d.file("c").c_str()), 0);
    // From another file system the shell moves it, names quoted.
    std::string other = "/dev/shm/-hubtalk " + std::to_string(getpid()) + " 'q' $HOME";
    spit(other, "D");
    if (exists(other)) {
        EXPECT_EQ(mvFile(other.c_str(), d.file("-d 'q' $HOME").c_str()), 0);
        EXPECT_EQ(slurp(d.file("-d 'q' $HOME")), "D");
        EXPECT_FALSE(exists(other));
        unlink(other.c_str());
    }
}
