// The pinned-certificate and the clear command transports against the local service.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <thread>

#include "localServiceHarness.h"
#include "morvaAlarms.h"

namespace {

enum Transport { CERT, CLEAR, CLEAR_STREAM };

class Tls : public ServiceTest {
protected:
    // One command over a session of our own.
    std::string send(int& status, Transport t = CERT, const std::string& line = "box7|LOG|msg|hi", bool readAll = true) {
        SendFile s(dir(), false, false);
        s.useCertTransport = t == CERT;
        s.tripleKey = t == CLEAR_STREAM;
        s.addDest("127.0.0.1", std::to_string(svc.port()).c_str(), "4443");
        return s.sendCommand(line.c_str(), status, readAll, mem);
    }
    // Nothing returned, failure, and the report on standard error.
    void expectRefused(Transport t, const char* report) {
        int status = 0;
        std::string reply = "unset";
        std::string err = stderrOf([&] { reply = send(status, t); });
        EXPECT_EQ(reply, "");
        EXPECT_EQ(status, 1);
        EXPECT_NE(err.find(report), std::string::npos) << err;
    }
    Memory* mem = nullptr;
};

TEST_F(Tls, RepliesOverBothTransports) {
    // The service's certificate names "local-service", not 127.0.0.1.
    std::string big = "B" + std::string(5000, 'r');
    // Replies are text: a zero byte ends them and blanks around go; other bytes pass untouched.
    const std::pair<std::string, std::string> cases[] = {
        {big, big}, {" \n\t ", ""}, {std::string("ab\0cd", 5), "ab"}, {"\xff\xfe|~~\x80", "\xff\xfe|~~\x80"}};
    int status = 1;
    for (const auto& [text, expected] : cases) {
        svc.setReply("LOG", text);
        for (Transport t : {CERT, CLEAR, CLEAR_STREAM}) {
            std::string line = "box7|LOG|msg|" + std::to_string(t);
            status = 1;
            EXPECT_EQ(send(status, t, line), expected) << t;
            EXPECT_EQ(status, 0);
            EXPECT_EQ(lastCommand(), line);
        }
    }
    // Only the first read when the connection is kept for a data session.
    svc.setReply("LOG", big);
    std::string first = send(status, CERT, "box7|LOG|msg|x", false);
    EXPECT_FALSE(first.empty());
    EXPECT_LE(first.size(), 255u);
    EXPECT_EQ(big.compare(0, first.size(), first), 0);
}

TEST_F(Tls, RefusedSessionsReturnNothingAndReport) {
    svc.setFault(LocalService::Fault::ForeignCert);
    expectRefused(CERT, "Receiving:  Fatal error during TLS handshake");
    svc.setFault(LocalService::Fault::ForeignCert, false);
    svc.setFault(LocalService::Fault::NoOk);
    expectRefused(CERT, "Socket send of !COMMAND failed");
    svc.setFault(LocalService::Fault::NoOk, false);

    // A directory (which once made the library allocate without bound), and not a certificate.
    std::string ca = data.file("sundel.crt");
    remove(ca.c_str());
    ASSERT_EQ(mkdir(ca.c_str(), 0775), 0);
    expectRefused(CERT, "certificate does not parse");
    rmdir(ca.c_str());
    spit(ca, "-----BEGIN CERTIFICATE-----\nnot a cert\n-----END CERTIFICATE-----\n");
    expectRefused(CERT, "certificate does not parse");
    EXPECT_TRUE(svc.commands().empty());

    svc.stop();
    spit(ca, slurp(pkiFile("ca.crt")));
    expectRefused(CERT, "Socket send of command start failed");
    expectRefused(CLEAR, "Socket send of plaintext/encrypted command failed");
}

// A long command arrives whole though signals cut its send short; replies are
// capped, and one too long for the shared ring goes only to an arena.
TEST_F(Tls, LongCommandsAndCappedReplies) {
    // A tiny receive window keeps the send blocked for the signals to land in; the peer
    // answers only a whole command; a connect cut short is retried on a new connection.
    std::string longLine = "box7|LOG|msg|" + std::string(4 << 20, 'm');
    std::string wire = Util::encipher((longLine + "|~~").c_str());
    int peerPort = 0, listener = listenLoopback(&peerPort, 4096);
    ASSERT_GE(listener, 0);
    std::atomic<bool> done{false};
    std::thread peer([&] {
        for (pollfd l{listener, POLLIN, 0}; !done;) {
            if (poll(&l, 1, 100) <= 0) continue;
            int c = accept(listener, nullptr, nullptr);
            std::string got;
            char buf[4096];
            pollfd p{c, POLLIN, 0};
            for (ssize_t n = 1; n > 0 && got.size() < wire.size() && poll(&p, 1, 5000) > 0;)
                if ((n = recv(c, buf, sizeof buf, 0)) > 0) got.append(buf, (size_t)n);
            std::string answer = Util::encipher("got it");
            if (got == wire) ::send(c, answer.data(), answer.size(), MSG_NOSIGNAL);
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
    for (pthread_t target = sender.native_handle(); !done; usleep(200))
        pthread_kill(target, SIGUSR1);  // stray: the watchdog has not fired
    sender.join();
    peer.join();
    close(listener);
    EXPECT_EQ(reply, "got it");

    // The cap on both transports; the ring's limit is the hand-over's, the same for both.
    std::string tooLong(Limits::COMMAND_REPLY_MOST + 1, 'r'), offRing(Limits::RING_TEXT_MOST + 1, 'q');
    Memory arena;
    const struct { const std::string& text; Memory* mem; Transport transport; const char* report; } cases[] = {{tooLong, &arena, CERT, "Reply longer than allowed"},
                 {tooLong, &arena, CLEAR, "Reply longer than allowed"},
                 {offRing, nullptr, CERT, "Reply too long for the shared buffer"},
                 {offRing, &arena, CLEAR, nullptr}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.text.size()) + " over " + std::to_string(c.transport));
        svc.setReply("LOG", c.text);
        mem = c.mem;
        std::string err = stderrOf([&] { reply = send(status, c.transport); });
        EXPECT_EQ(reply, c.report ? "" : c.text);
        EXPECT_TRUE(!c.report || err.find(c.report) != std::string::npos) << err;
    }
}

}  // namespace
