// The pinned-certificate command transport and the clear transport against
// the local service.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "localServiceHarness.h"
#include "sendFile.h"
#include "testUtil.h"

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
        return s.sendCommand(line.c_str(), status, readAll);
    }
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

}  // namespace
