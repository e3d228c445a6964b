// The pinned-certificate command transport and the clear transport against
// the local service.
#include <gtest/gtest.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <string>
#include <thread>

#include "bounds.h"
#include "localServiceHarness.h"
#include "memory.h"
#include "morvaAlarms.h"
#include "sendFile.h"
#include "testUtil.h"
#include "util.h"

namespace {

class Tls : public ServiceTest {
protected:
    // One command over a session of our own.
    std::string send(const std::string& line, int& status, bool readAll = true, bool cert = true,
                     bool triple = false) {
        SendFile s(dir(), false, false);
        s.useCertTransport = cert;
        s.tripleKey = triple;
        s.addDest("127.0.0.1", std::to_string(svc.port()).c_str(), "4443");
        return s.sendCommand(line.c_str(), status, readAll, mem);
    }
    Memory* mem = nullptr;
    void expectRefused(bool cert, const char* report) {
        int status = 0;
        std::string reply = "unset";
        std::string err = stderrOf([&] { reply = send("box7|LOG|msg|hi", status, true, cert); });
        EXPECT_EQ(reply, "");
        EXPECT_EQ(status, 1);
        EXPECT_NE(err.find(report), std::string::npos) << err;
    }
};

TEST_F(Tls, RepliesOverBothTransports) {
    // The service's certificate names "local-service", not 127.0.0.1.
    int status = 1;
    std::string big(5000, 'r');
    big[0] = 'B';
    svc.setReply("LOG", big);
    EXPECT_EQ(send("box7|LOG|msg|hi", status), big);
    EXPECT_EQ(status, 0);
    EXPECT_EQ(lastCommand(), "box7|LOG|msg|hi");

    // Only the first read when the connection is kept for a data session.
    std::string first = send("box7|LOG|msg|x", status, false);
    EXPECT_FALSE(first.empty());
    EXPECT_LE(first.size(), 255u);
    EXPECT_EQ(big.compare(0, first.size(), first), 0);

    svc.setReply("LOG", " \n\t ");
    status = 1;
    EXPECT_EQ(send("box7|LOG|msg|x", status), "");
    EXPECT_EQ(status, 0);
    // Replies are text: a zero byte ends them; other bytes pass untouched.
    svc.setReply("LOG", std::string("ab\0cd", 5));
    EXPECT_EQ(send("box7|LOG|msg|x", status), "ab");
    svc.setReply("LOG", "\xff\xfe|~~\x80");
    EXPECT_EQ(send("box7|LOG|msg|x", status), "\xff\xfe|~~\x80");

    svc.setReply("LOG", "clear reply");
    for (bool triple : {false, true}) {
        std::string line = triple ? "box7|LOG|msg|stream" : "box7|LOG|msg|block";
        status = 1;
        EXPECT_EQ(send(line, status, true, false, triple), "clear reply");
        EXPECT_EQ(status, 0);
        EXPECT_EQ(lastCommand(), line);
    }
}

TEST_F(Tls, RefusedSessionsReturnNothingAndReport) {
    svc.setFault(LocalService::Fault::ForeignCert);
    expectRefused(true, "Receiving:  Fatal error during TLS handshake");
    svc.setFault(LocalService::Fault::ForeignCert, false);
    svc.setFault(LocalService::Fault::NoOk);
    expectRefused(true, "Socket send of !COMMAND failed");
    svc.setFault(LocalService::Fault::NoOk, false);

    remove(data.file("sundel.crt").c_str());
    expectRefused(true, "certificate does not parse");
    // A directory in its place once made the library allocate without bound.
    ASSERT_EQ(mkdir(data.file("sundel.crt").c_str(), 0775), 0);
    expectRefused(true, "certificate does not parse");
    rmdir(data.file("sundel.crt").c_str());
    spit(data.file("sundel.crt"), "-----BEGIN CERTIFICATE-----\nnot a cert\n-----END CERTIFICATE-----\n");
    expectRefused(true, "certificate does not parse");
    EXPECT_TRUE(svc.commands().empty());

    svc.stop();
    spit(data.file("sundel.crt"), slurp(pkiFile("ca.crt")));
    expectRefused(true, "Socket send of command start failed");
    expectRefused(false, "Socket send of plaintext/encrypted command failed");
}

// A long command reaches the service whole even when signals cut its send
// short; replies are capped, and what is too long for the shared ring is
// handed only to an arena.
TEST_F(Tls, LongCommandsAndCappedReplies) {
    // A peer with a tiny receive window keeps the send blocked, so the
    // signals land in it; the peer answers only a command that came whole.
    std::string longLine = "box7|LOG|msg|" + std::string(4 << 20, 'm');
    std::string wire = Util::encipher((longLine + "|~~").c_str());
    int peerPort = 0;
    int listener = listenLoopback(&peerPort, 4096);
    ASSERT_GE(listener, 0);
    std::atomic<bool> done{false};
    // A connect cut short by a signal is retried on a new connection.
    std::thread peer([&] {
        pollfd l{listener, POLLIN, 0};
        while (!done) {
            if (poll(&l, 1, 100) <= 0) continue;
            int c = accept(listener, nullptr, nullptr);
            std::string got;
            char buf[4096];
            pollfd p{c, POLLIN, 0};
            while (got.size() < wire.size() && poll(&p, 1, 5000) > 0) {
                ssize_t n = recv(c, buf, sizeof buf, 0);
                if (n <= 0) break;
                got.append(buf, (size_t)n);
            }
            if (got == wire) {
                std::string answer = Util::encipher("got it");
                ::send(c, answer.data(), answer.size(), MSG_NOSIGNAL);
            }
            close(c);
        }
    });
    int status = 1;
    std::string reply;
    CatchAlarm::install();
    std::thread sender([&] {
        SendFile s(dir(), false, false);
        s.useCertTransport = false;
        s.addDest("127.0.0.1", std::to_string(peerPort).c_str(), "4443");
        reply = s.sendCommand(longLine.c_str(), status, true);
        done = true;
    });
    pthread_t target = sender.native_handle();
    while (!done) {
        pthread_kill(target, SIGUSR1);  // stray: the watchdog has not fired
        usleep(200);
    }
    sender.join();
    peer.join();
    close(listener);
    EXPECT_EQ(reply, "got it");

    std::string tooLong(Limits::COMMAND_REPLY_MOST + 1, 'r');
    std::string offRing(Limits::RING_TEXT_MOST + 1, 'q');
    Memory arena;
    struct Case {
        const std::string& text;
        Memory* mem;
        const char* report;
    } cases[] = {{tooLong, &arena, "Reply longer than allowed"},
                 {offRing, nullptr, "Reply too long for the shared buffer"},
                 {offRing, &arena, nullptr}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.text.size()) + (c.mem ? " into an arena" : " onto the ring"));
        svc.setReply("LOG", c.text);
        mem = c.mem;
        for (bool cert : {true, false}) {
            std::string err = stderrOf([&] { reply = send("box7|LOG|msg|x", status, true, cert); });
            if (c.report) {
                EXPECT_EQ(reply, "");
                EXPECT_NE(err.find(c.report), std::string::npos) << err;
            } else {
                EXPECT_EQ(reply, c.text);
            }
        }
    }
}

}  // namespace
