// The pinned-certificate command transport and the clear transport against
// the local service.
#include <gtest/gtest.h>

#include <string>

#include "localServiceHarness.h"
#include "sendFile.h"
#include "testUtil.h"

namespace {

class Tls : public ::testing::Test {
protected:
    void SetUp() override { svc.prepareAgentDataDir(data.path(), "box7", "Clinic One"); }
    const char* dir() const { return data.path().c_str(); }

    // One command over a session of our own; the reply and what stderr got.
    std::string send(const std::string& line, int& status, bool readAll = true, bool cert = true,
                     bool triple = false, std::string* err = nullptr) {
        SendFile s(dir(), false, false);
        s.useCertTransport = cert;
        s.tripleKey = triple;
        s.addDest("127.0.0.1", std::to_string(svc.port()).c_str(), "4443");
        testing::internal::CaptureStderr();
        std::string reply = s.sendCommand(line.c_str(), status, readAll);
        std::string e = testing::internal::GetCapturedStderr();
        if (err) *err = e;
        return reply;
    }

    TempDir data;
    LocalService svc;
};

TEST_F(Tls, PinnedAuthorityAcceptedWhateverTheName) {
    // The service's certificate names "local-service", not 127.0.0.1.
    int status = 1;
    EXPECT_EQ(send("box7|LOG|msg|hi", status), "OK");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(svc.commands().back(), "box7|LOG|msg|hi");
}

TEST_F(Tls, ForeignAuthorityRefused) {
    svc.setFault(LocalService::Fault::ForeignCert);
    int status = 0;
    std::string err;
    EXPECT_EQ(send("box7|LOG|msg|hi", status, true, true, false, &err), "");
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("Receiving:  Fatal error during TLS handshake"), std::string::npos) << err;
    EXPECT_TRUE(svc.commands().empty());
}

TEST_F(Tls, UnusablePinnedCertificate) {
    int status = 0;
    std::string err;
    remove(data.file("sundel.crt").c_str());
    EXPECT_EQ(send("box7|LOG|msg|hi", status, true, true, false, &err), "");
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("certificate does not parse"), std::string::npos) << err;

    spit(data.file("sundel.crt"),
         "-----BEGIN CERTIFICATE-----\nnot a cert\n-----END CERTIFICATE-----\n");
    EXPECT_EQ(send("box7|LOG|msg|hi", status, true, true, false, &err), "");
    EXPECT_NE(err.find("certificate does not parse"), std::string::npos) << err;
    EXPECT_TRUE(svc.commands().empty());
}

TEST_F(Tls, StartMarkerRefused) {
    svc.setFault(LocalService::Fault::NoOk);
    int status = 0;
    std::string err;
    EXPECT_EQ(send("box7|LOG|msg|hi", status, true, true, false, &err), "");
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("Socket send of !COMMAND failed"), std::string::npos) << err;
}

TEST_F(Tls, ReplySizesAndBytes) {
    int status = 1;
    std::string big(5000, 'r');
    big[0] = 'B';
    svc.setReply("LOG", big);
    EXPECT_EQ(send("box7|LOG|msg|x", status), big);

    // Only the first read when the connection is kept for a data session.
    std::string first = send("box7|LOG|msg|x", status, false);
    EXPECT_EQ(status, 0);
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
}

TEST_F(Tls, ClearTransport) {
    int status = 1;
    svc.setReply("LOG", "clear reply");
    EXPECT_EQ(send("box7|LOG|msg|plain", status, true, false), "clear reply");
    EXPECT_EQ(status, 0);
    EXPECT_EQ(svc.commands().back(), "box7|LOG|msg|plain");
    status = 1;
    EXPECT_EQ(send("box7|LOG|msg|stream", status, true, false, true), "clear reply");
    EXPECT_EQ(svc.commands().back(), "box7|LOG|msg|stream");
}

TEST_F(Tls, NobodyListening) {
    svc.stop();
    int status = 0;
    std::string err;
    EXPECT_EQ(send("box7|LOG|msg|hi", status, true, true, false, &err), "");
    EXPECT_EQ(status, 1);
    EXPECT_NE(err.find("Socket send of command start failed"), std::string::npos) << err;
    EXPECT_EQ(send("box7|LOG|msg|hi", status, true, false, false, &err), "");
    EXPECT_NE(err.find("Socket send of plaintext/encrypted command failed"), std::string::npos)
        << err;
}

}  // namespace
