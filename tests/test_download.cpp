// The download tool against the local service's file endpoint (and a plain
// HTTP answer of our own on loopback): a whole copy, or the old file and one
// line saying why.
#include <gtest/gtest.h>
#include <dirent.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <thread>

#include "localServiceProcess.h"

namespace {

const std::string kTool = std::string(HUBTALK_BIN).substr(0, std::string(HUBTALK_BIN).rfind('/')) + "/download";
const char kOld[] = "old content";

std::vector<std::string> entries(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    while (dirent* e = d ? readdir(d) : nullptr)
        if (std::string(e->d_name) != "." && std::string(e->d_name) != "..") names.push_back(e->d_name);
    if (d) closedir(d);
    return names;
}

// Every byte value, line ends and zero bytes among them.
std::string binary(size_t size) {
    std::string s(size, '\0');
    for (size_t i = 0; i < size; ++i) s[i] = static_cast<char>((i * 131) ^ (i >> 9));
    return s;
}

// Answers one connection's request with the given bytes.
std::thread answerOnce(const std::string& answer, int* port) {
    int lst = listenLoopback(port);
    return std::thread([lst, answer] {
        pollfd p{lst, POLLIN, 0};
        int fd = poll(&p, 1, 10000) == 1 ? accept4(lst, nullptr, nullptr, SOCK_CLOEXEC) : -1;
        close(lst);
        if (fd < 0) return;
        timeval limit{10, 0};
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        char buf[4096];
        std::string request;
        for (ssize_t n; request.find("\r\n\r\n") == std::string::npos && (n = recv(fd, buf, sizeof buf, 0)) > 0;)
            request.append(buf, n);
        send(fd, answer.data(), answer.size(), MSG_NOSIGNAL);
        shutdown(fd, SHUT_WR);
        while (recv(fd, buf, sizeof buf, 0) > 0) {
        }
        close(fd);
    });
}

class Download : public ::testing::Test {
protected:
    Download() {
        spit(files.file("small.bin"), binary(300000));
        spit(files.file("big.bin"), binary(6u << 20));
        svc.setWebFile("small.bin", files.file("small.bin"));
        svc.setWebFile("big.bin", files.file("big.bin"));
        spit(target, kOld);
    }
    // The tool with no data directory in its environment unless one is given.
    RunResult run(const std::vector<std::string>& args, const std::string& dataDir = "") {
        std::vector<std::string> argv{"/usr/bin/env", "-u", "HUBTALK_DATA_DIR"};
        if (!dataDir.empty()) argv.push_back("HUBTALK_DATA_DIR=" + dataDir);
        argv.push_back(kTool);
        argv.insert(argv.end(), args.begin(), args.end());
        return runProgram(argv);
    }
    void expectCopy(const RunResult& r, const std::string& source) {
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(r.err, "");
        EXPECT_TRUE(slurp(target) == slurp(source)) << source;
        struct stat st{};
        EXPECT_EQ(stat(target.c_str(), &st) == 0 ? st.st_mode & 0777 : 0, 0664u);
        EXPECT_EQ(entries(out.path()), std::vector<std::string>{"target.bin"});
    }
    // Failed with one line naming the reason; the old file untouched, no temporary left.
    void expectFailure(const RunResult& r, const std::string& reason, const std::string& what) {
        EXPECT_NE(r.status, 0) << what;
        EXPECT_EQ(r.err.rfind("download: ", 0), 0u) << what << ": " << r.err;
        EXPECT_EQ(std::count(r.err.begin(), r.err.end(), '\n'), 1) << what << ": " << r.err;
        EXPECT_NE(r.err.find(reason), std::string::npos) << what << ": " << r.err;
        EXPECT_EQ(slurp(target), kOld) << what;
        EXPECT_EQ(entries(out.path()), std::vector<std::string>{"target.bin"}) << what;
    }

    LocalService svc;
    TempDir files, out;
    const std::string target = out.file("target.bin");
    const std::string ca = pkiFile("ca.crt");
};

TEST_F(Download, CopiesWholeFilesTrustingTheGivenOrThePinnedAuthority) {
    TempDir data;
    spit(data.file("sundel.crt"), slurp(ca));
    for (const char* name : {"small.bin", "big.bin"}) {
        expectCopy(run({"--ca", ca, svc.webBase() + "/" + name, target}), files.file(name));
        spit(target, kOld);
        expectCopy(run({svc.webBase() + "/" + name, target}, data.path()), files.file(name));
        spit(target, kOld);
    }
}

TEST_F(Download, FailsLeavingTheTargetAsItWas) {
    using F = LocalService::Fault;
    const std::string url = svc.webBase() + "/small.bin";
    const struct {
        const char* what;
        std::vector<F> faults;
        std::vector<std::string> args;
        const char* reason;
    } cases[] = {
        {"missing file", {}, {"--ca", ca, svc.webBase() + "/absent.bin", target}, "404"},
        {"escape", {}, {"--ca", ca, svc.webBase() + "/../port", target}, "404"},
        {"short body", {F::WebShort}, {"--ca", ca, url, target}, "closed after 150000 of 300000 bytes"},
        {"redirect", {F::WebRedirect}, {"--ca", ca, url, target}, "redirect refused"},
        {"foreign server", {F::ForeignCert}, {"--ca", ca, url, target}, "not accepted"},
        {"wrong authority", {}, {"--ca", pkiFile("foreign-ca.crt"), url, target}, "not accepted"},
        {"name not in certificate", {}, {"--ca", ca, "https://localhost:" + std::to_string(svc.webPort()) + "/small.bin", target},
         "Common Name"},
        {"no authority", {}, {url, target}, "no certificate authority"},
        {"silent server", {F::Silent}, {"--timeout", "2", "--ca", ca, url, target}, "not done within 2 s"},
        {"clear text abroad", {}, {"http://192.0.2.1/x", target}, "refused: 192.0.2.1 is not a loopback address"},
        {"other scheme", {}, {"--ca", ca, "ftp://127.0.0.1/x", target}, "unsupported scheme"},
        {"missing argument", {}, {"--ca", ca, url}, "usage:"},
        {"no target directory", {}, {"--ca", ca, url, out.file("absent/x.bin")}, "cannot create"},
    };
    for (const auto& c : cases) {
        for (F f : c.faults) svc.setFault(f);
        expectFailure(run(c.args), c.reason, c.what);
        for (F f : c.faults) svc.setFault(f, false);
    }
}

TEST_F(Download, PlainHttpOnLoopbackOnlyWithTheExactLength) {
    const struct {
        std::string answer;
        const char* reason;  // nullptr: a copy
    } cases[] = {
        {"HTTP/1.1 200 OK\r\nContent-Length: 11\r\n\r\nnew content", nullptr},
        {"HTTP/1.1 200 OK\r\nContent-Length: 3\r\n\r\nnew content", "more than the announced 3 bytes"},
        {"HTTP/1.0 200 OK\r\n\r\nnew content", "no Content-Length"},
        {"HTTP/1.1 500 Broken\r\nContent-Length: 0\r\n\r\n", "server answered 500 Broken"},
    };
    for (const auto& c : cases) {
        spit(target, kOld);
        int port = 0;
        std::thread server = answerOnce(c.answer, &port);
        RunResult r = run({"http://127.0.0.1:" + std::to_string(port) + "/x", target});
        server.join();
        if (c.reason) {
            expectFailure(r, c.reason, c.answer);
        } else {
            spit(files.file("expected"), "new content");
            expectCopy(r, files.file("expected"));
        }
    }
}

}  // namespace
