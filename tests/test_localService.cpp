// Drives the bundled local service directly with a small TLS client that
// follows the box's side of the protocol step by step.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/net_sockets.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "localServiceHarness.h"
#include "util.h"

namespace {

// One TCP connection to the service and, one after the other, the TLS
// sessions the box runs on it.
class BoxLink {
public:
    explicit BoxLink(int port) {
        m_net.fd = socket(AF_INET, SOCK_STREAM, 0);
        timeval tv{10, 0};
        setsockopt(m_net.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(static_cast<uint16_t>(port));
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        m_connected = connect(m_net.fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
        mbedtls_entropy_init(&m_entropy);
        mbedtls_ctr_drbg_init(&m_drbg);
        mbedtls_ctr_drbg_seed(&m_drbg, mbedtls_entropy_func, &m_entropy, nullptr, 0);
        mbedtls_x509_crt_init(&m_ca);
    }
    ~BoxLink() {
        freeSession();
        mbedtls_x509_crt_free(&m_ca);
        mbedtls_ctr_drbg_free(&m_drbg);
        mbedtls_entropy_free(&m_entropy);
        mbedtls_net_free(&m_net);
    }

    bool connected() const { return m_connected; }
    void setReceiveTimeout(int seconds) {
        timeval tv{seconds, 0};
        setsockopt(m_net.fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    }

    bool sendRaw(const std::string& bytes) {
        return send(m_net.fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    // Everything the service sends in clear until it closes.
    std::string readRawAll() {
        std::string text;
        char buf[256];
        ssize_t n;
        while ((n = recv(m_net.fd, buf, sizeof buf, 0)) > 0) text.append(buf, static_cast<size_t>(n));
        return text;
    }
    std::string startMarker() {
        if (!sendRaw("!COMMAND")) return "";
        char buf[64] = {};
        ssize_t n = recv(m_net.fd, buf, sizeof buf, 0);
        return n > 0 ? std::string(buf, static_cast<size_t>(n)) : "";
    }

    // Certificate session pinned to the given authority; returns the handshake result.
    int certSession(const std::string& caPath) {
        newSession();
        if (mbedtls_x509_crt_parse_file(&m_ca, caPath.c_str()) != 0) return -1;
        mbedtls_ssl_conf_authmode(&m_conf, MBEDTLS_SSL_VERIFY_REQUIRED);
        mbedtls_ssl_conf_ca_chain(&m_conf, &m_ca, nullptr);
        return handshake();
    }
    int keySession(const std::string& key) {
        newSession();
        mbedtls_ssl_conf_psk(&m_conf, reinterpret_cast<const unsigned char*>(key.data()), key.size(),
                             reinterpret_cast<const unsigned char*>("Nothing"), 7);
        return handshake();
    }
    bool write(const std::string& text) {
        size_t done = 0;
        while (done < text.size()) {
            int n = mbedtls_ssl_write(&m_ssl, reinterpret_cast<const unsigned char*>(text.data()) + done,
                                      text.size() - done);
            if (n <= 0) return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }
    // One read, as the box does before it switches sessions.
    std::string readOnce() {
        unsigned char buf[256];
        int n = mbedtls_ssl_read(&m_ssl, buf, sizeof buf);
        return n > 0 ? std::string(reinterpret_cast<char*>(buf), static_cast<size_t>(n)) : "";
    }
    std::string readAll(size_t limit = 1 << 20) {
        std::string text;
        unsigned char buf[4096];
        int n;
        while (text.size() < limit && (n = mbedtls_ssl_read(&m_ssl, buf, sizeof buf)) > 0)
            text.append(reinterpret_cast<char*>(buf), static_cast<size_t>(n));
        return text;
    }
    // Sends the close notification and drops the session, keeping the socket.
    void endSession() {
        if (m_session) mbedtls_ssl_close_notify(&m_ssl);
        freeSession();
    }

    std::string command(const std::string& caPath, const std::string& line) {
        if (startMarker() != "OK" || certSession(caPath) != 0 || !write(line + "|~~")) return "<failed>";
        return readAll();
    }

private:
    void newSession() {
        freeSession();
        mbedtls_ssl_init(&m_ssl);
        mbedtls_ssl_config_init(&m_conf);
        mbedtls_ssl_config_defaults(&m_conf, MBEDTLS_SSL_IS_CLIENT, MBEDTLS_SSL_TRANSPORT_STREAM,
                                    MBEDTLS_SSL_PRESET_DEFAULT);
        mbedtls_ssl_conf_rng(&m_conf, mbedtls_ctr_drbg_random, &m_drbg);
        m_session = true;
    }
    int handshake() {
        if (mbedtls_ssl_setup(&m_ssl, &m_conf) != 0) return -1;
        mbedtls_ssl_set_bio(&m_ssl, &m_net, mbedtls_net_send, mbedtls_net_recv, nullptr);
        int r;
        do {
            r = mbedtls_ssl_handshake(&m_ssl);
        } while (r == MBEDTLS_ERR_SSL_WANT_READ || r == MBEDTLS_ERR_SSL_WANT_WRITE);
        return r;
    }
    void freeSession() {
        if (!m_session) return;
        mbedtls_ssl_free(&m_ssl);
        mbedtls_ssl_config_free(&m_conf);
        m_session = false;
    }

    mbedtls_net_context m_net{};
    bool m_connected = false;
    bool m_session = false;
    mbedtls_ssl_context m_ssl;
    mbedtls_ssl_config m_conf;
    mbedtls_x509_crt m_ca;
    mbedtls_entropy_context m_entropy;
    mbedtls_ctr_drbg_context m_drbg;
};

std::string devCa() { return pkiFile("ca.crt"); }

std::string boxKey(const std::string& id, const std::string& displayName) {
    return Util::encrypt((id + "_" + displayName).c_str());
}

}  // namespace

TEST(LocalService, AnswersVerbsFromConfigurationAndLogsEveryCommandInOrder) {
    LocalService service;
    service.addBox("box7", "Clinic Seven");
    service.setReply("qDicom", "2|title|standing");
    service.queueReply("qDicom", "1|title|queued");

    auto ask = [&](const std::string& line) {
        BoxLink link(service.port());
        return link.command(devCa(), line);
    };
    EXPECT_EQ(ask("box7|qDicom|destination|PACS"), "1|title|queued");
    EXPECT_EQ(ask("box7|qDicom|destination|PACS"), "2|title|standing");
    EXPECT_EQ(ask("heartbeat|version=1-2-3&fqdn=box7&os=OS X"), "display_name=Clinic Seven");
    EXPECT_EQ(ask("ips/box7"), "127.0.0.1");
    EXPECT_EQ(ask("box7|LOG|msg|two\nlines"), "OK");
    EXPECT_EQ(ask("box7|NOSUCHVERB|k|v"), "error");
    service.setReply("API.sharing", "{\"shared\":1}");
    EXPECT_EQ(ask("API/box7/Clinic Seven/1|sharing|{\"request_type\":\"sharing\"}"), "{\"shared\":1}");

    std::vector<std::string> expected = {
        "box7|qDicom|destination|PACS", "box7|qDicom|destination|PACS",
        "heartbeat|version=1-2-3&fqdn=box7&os=OS X", "ips/box7", "box7|LOG|msg|two\nlines",
        "box7|NOSUCHVERB|k|v", "API/box7/Clinic Seven/1|sharing|{\"request_type\":\"sharing\"}"};
    EXPECT_EQ(service.commands(), expected);
}

TEST(LocalService, CertificateChainsToTheDevAuthorityUnlessTheForeignFaultIsOn) {
    LocalService service;
    {
        BoxLink link(service.port());
        ASSERT_EQ(link.startMarker(), "OK");
        EXPECT_EQ(link.certSession(pkiFile("foreign-ca.crt")), MBEDTLS_ERR_X509_CERT_VERIFY_FAILED);
    }
    service.setFault(LocalService::Fault::ForeignCert);
    {
        BoxLink link(service.port());
        ASSERT_EQ(link.startMarker(), "OK");
        EXPECT_EQ(link.certSession(devCa()), MBEDTLS_ERR_X509_CERT_VERIFY_FAILED);
    }
    service.setFault(LocalService::Fault::ForeignCert, false);
    BoxLink link(service.port());
    EXPECT_EQ(link.command(devCa(), "box1|LOG|msg|back"), "OK");
}

TEST(LocalService, NoOkAndSilentFaultsRefuseTheStartMarker) {
    LocalService service;
    service.setFault(LocalService::Fault::NoOk);
    {
        BoxLink link(service.port());
        ASSERT_TRUE(link.connected());
        ASSERT_TRUE(link.sendRaw("!COMMAND"));
        EXPECT_EQ(link.readRawAll(), "NO");
    }
    service.setFault(LocalService::Fault::NoOk, false);
    service.setFault(LocalService::Fault::Silent);
    {
        BoxLink link(service.port());
        ASSERT_TRUE(link.connected());
        ASSERT_TRUE(link.sendRaw("!COMMAND"));
        link.setReceiveTimeout(2);
        EXPECT_EQ(link.readRawAll(), "");
    }
    EXPECT_TRUE(service.commands().empty());
}

TEST(LocalService, UploadSwitchesToTheKeySessionAndStoresTheFileInsideItsStore) {
    LocalService service;
    service.addBox("box7", "Clinic Seven");
    std::string body(70000, 'x');
    body[0] = 'A';
    body.back() = 'Z';
    std::string header = "box7/sub|../escape.dcm|" + std::to_string(body.size()) + "|fa|fb|~~|1";

    BoxLink link(service.port());
    ASSERT_EQ(link.startMarker(), "OK");
    ASSERT_EQ(link.certSession(devCa()), 0);
    ASSERT_TRUE(link.write(header + "|~~"));
    EXPECT_EQ(link.readOnce(), "OK");
    link.endSession();
    ASSERT_EQ(link.keySession(boxKey("box7/sub", "Clinic Seven")), 0);
    ASSERT_TRUE(link.write(body));
    EXPECT_EQ(link.readOnce(), "OK");

    EXPECT_EQ(slurp(service.storedFile(".._escape.dcm")), body);
    EXPECT_EQ(service.storedHeader(".._escape.dcm"), header);
    EXPECT_FALSE(exists(service.configDir() + "/escape.dcm"));
    EXPECT_EQ(service.commands(), std::vector<std::string>{header});
}

TEST(LocalService, UploadFaultsDeclineRejectTheKeyOrCutTheTransfer) {
    LocalService service;
    service.addBox("box7", "Clinic Seven");
    const std::string header = "box7|f.dcm|1000|a|b|~~|1|~~";
    const std::string key = boxKey("box7", "Clinic Seven");

    service.setFault(LocalService::Fault::UploadNo);
    {
        BoxLink link(service.port());
        ASSERT_EQ(link.startMarker(), "OK");
        ASSERT_EQ(link.certSession(devCa()), 0);
        ASSERT_TRUE(link.write(header));
        EXPECT_EQ(link.readOnce(), "NO");
    }
    service.setFault(LocalService::Fault::UploadNo, false);
    service.setFault(LocalService::Fault::WrongKey);
    {
        BoxLink link(service.port());
        ASSERT_EQ(link.startMarker(), "OK");
        ASSERT_EQ(link.certSession(devCa()), 0);
        ASSERT_TRUE(link.write(header));
        EXPECT_EQ(link.readOnce(), "OK");
        link.endSession();
        EXPECT_NE(link.keySession(key), 0);
    }
    service.setFault(LocalService::Fault::WrongKey, false);
    service.setFault(LocalService::Fault::CutUpload);
    {
        BoxLink link(service.port());
        ASSERT_EQ(link.startMarker(), "OK");
        ASSERT_EQ(link.certSession(devCa()), 0);
        ASSERT_TRUE(link.write(header));
        EXPECT_EQ(link.readOnce(), "OK");
        link.endSession();
        ASSERT_EQ(link.keySession(key), 0);
        link.write(std::string(1000, 'y'));
        EXPECT_EQ(link.readOnce(), "");
    }
    EXPECT_FALSE(exists(service.storedFile("f.dcm")));
}

TEST(LocalService, PushesTextAndFilesAnnouncedBySize) {
    LocalService service;
    service.addBox("box7", "Clinic Seven");
    service.setPushText("STUDIES", "hello");
    TempDir src;
    std::string image(3 << 20, '\x5a');
    spit(src.file("img.dcm"), image);
    service.setPushFile("img.dcm", src.file("img.dcm"));
    const std::string key = boxKey("box7", "Clinic Seven");

    auto receive = [&](const std::string& line, size_t expected, std::string& announced) {
        BoxLink link(service.port());
        if (link.startMarker() != "OK" || link.certSession(devCa()) != 0 || !link.write(line + "|~~"))
            return std::string("<failed>");
        announced = link.readOnce();
        link.endSession();
        if (link.keySession(key) != 0) return std::string("<no key session>");
        return link.readAll(expected);
    };
    std::string announced;
    EXPECT_EQ(receive("box7|STUDIES|time-since|20240101", 5, announced), "hello");
    EXPECT_EQ(announced, "OK|5");
    EXPECT_EQ(receive("box7|DICOM|uri|studies/1/img.dcm", image.size(), announced), image);
    EXPECT_EQ(announced, "OK|" + std::to_string(image.size()));

    service.setFault(LocalService::Fault::CutPush);
    std::string cut = receive("box7|DICOM|uri|studies/1/img.dcm", image.size(), announced);
    EXPECT_LT(cut.size(), image.size());

    // Nothing to push: a plain reply and no second session.
    BoxLink link(service.port());
    EXPECT_EQ(link.command(devCa(), "box7|WORKLIST|keys|x"), "error");
}

TEST(LocalService, ClearTransportCarriesEncipheredLines) {
    LocalService service;
    service.setReply("CROP", "10,20,30,40");
    BoxLink link(service.port());
    std::string wire = Util::encrypt("box7|CROP|a|b|~~");
    ASSERT_TRUE(link.sendRaw(wire));
    std::string reply = link.readRawAll();
    EXPECT_EQ(std::string(Util::decrypt(reply.c_str())), "10,20,30,40");
    EXPECT_EQ(service.commands(), std::vector<std::string>{"box7|CROP|a|b"});
}

TEST(LocalService, RefusesNonLoopbackAddressesAndStopsCleanlyOnSigterm) {
    TempDir config;
    RunResult r = runProgram({LOCAL_SERVICE_BIN, "--config", config.path(), "--address", "0.0.0.0",
                              "--port", "0"});
    EXPECT_NE(r.status, 0);
    EXPECT_NE(r.err.find("loopback"), std::string::npos);

    LocalService service;
    BoxLink idle(service.port());  // a connection still open at the stop
    ASSERT_TRUE(idle.connected());
    EXPECT_EQ(service.stop(), 0);
}
