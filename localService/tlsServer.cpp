#include "tlsServer.h"

#include <mbedtls/error.h>
#include <mbedtls/net_sockets.h>

#include <cstring>

#include "socketIo.h"

Credentials::Credentials() {
    mbedtls_x509_crt_init(&cert);
    mbedtls_pk_init(&key);
}

Credentials::~Credentials() {
    mbedtls_x509_crt_free(&cert);
    mbedtls_pk_free(&key);
}

static std::string tlsError(int code) {
    char buf[160];
    mbedtls_strerror(code, buf, sizeof buf);
    return buf;
}

std::string Credentials::load(const std::string& certPath, const std::string& keyPath) {
    int r = mbedtls_x509_crt_parse_file(&cert, certPath.c_str());
    if (r != 0) return "certificate " + certPath + ": " + tlsError(r);
    r = mbedtls_pk_parse_keyfile(&key, keyPath.c_str(), nullptr);
    if (r != 0) return "key " + keyPath + ": " + tlsError(r);
    return "";
}

RandomSource::RandomSource() {
    mbedtls_entropy_init(&m_entropy);
    mbedtls_ctr_drbg_init(&m_drbg);
    m_ready = mbedtls_ctr_drbg_seed(&m_drbg, mbedtls_entropy_func, &m_entropy, nullptr, 0) == 0;
}

RandomSource::~RandomSource() {
    mbedtls_ctr_drbg_free(&m_drbg);
    mbedtls_entropy_free(&m_entropy);
}

namespace {
// Most bytes taken from the socket by one read ahead.
constexpr size_t kReadAheadMost = 256 * 1024;
}  // namespace

// Socket callbacks that honour the service's stop flag and idle limit.
int ServerTlsSession::bioSend(void* ctx, const unsigned char* buf, size_t len) {
    int fd = static_cast<ServerTlsSession*>(ctx)->m_fd;
    return LocalIo::sendAll(fd, buf, len) ? static_cast<int>(len) : MBEDTLS_ERR_NET_SEND_FAILED;
}

int ServerTlsSession::bioRecv(void* ctx, unsigned char* buf, size_t len) {
    ServerTlsSession& s = *static_cast<ServerTlsSession*>(ctx);
    if (s.m_aheadPos == s.m_aheadEnd && s.m_aheadAllowed > len) {
        size_t room = s.m_aheadAllowed < s.m_ahead.size() ? static_cast<size_t>(s.m_aheadAllowed)
                                                         : s.m_ahead.size();
        ssize_t n = LocalIo::recvSome(s.m_fd, s.m_ahead.data(), room);
        if (n <= 0) return n == 0 ? 0 : MBEDTLS_ERR_NET_RECV_FAILED;
        s.m_aheadPos = 0;
        s.m_aheadEnd = static_cast<size_t>(n);
        s.m_aheadAllowed -= static_cast<unsigned long long>(n);
    }
    if (s.m_aheadPos < s.m_aheadEnd) {
        size_t n = s.m_aheadEnd - s.m_aheadPos < len ? s.m_aheadEnd - s.m_aheadPos : len;
        memcpy(buf, s.m_ahead.data() + s.m_aheadPos, n);
        s.m_aheadPos += n;
        return static_cast<int>(n);
    }
    ssize_t n = LocalIo::recvSome(s.m_fd, buf, len);
    if (n < 0) return MBEDTLS_ERR_NET_RECV_FAILED;
    s.m_aheadAllowed -= static_cast<unsigned long long>(n) < s.m_aheadAllowed
                            ? static_cast<unsigned long long>(n)
                            : s.m_aheadAllowed;
    return static_cast<int>(n);
}

void ServerTlsSession::readAhead(unsigned long long bytes) {
    m_aheadAllowed = bytes;
    size_t room = bytes < kReadAheadMost ? static_cast<size_t>(bytes) : kReadAheadMost;
    if (m_ahead.size() < room) m_ahead.resize(room);
}

ServerTlsSession::ServerTlsSession(int fd, RandomSource& random) : m_fd(fd) {
    mbedtls_ssl_init(&m_ssl);
    mbedtls_ssl_config_init(&m_conf);
    mbedtls_ssl_config_defaults(&m_conf, MBEDTLS_SSL_IS_SERVER, MBEDTLS_SSL_TRANSPORT_STREAM,
                                MBEDTLS_SSL_PRESET_DEFAULT);
    mbedtls_ssl_conf_rng(&m_conf, mbedtls_ctr_drbg_random, random.drbg());
}

ServerTlsSession::~ServerTlsSession() {
    mbedtls_ssl_free(&m_ssl);
    mbedtls_ssl_config_free(&m_conf);
}

bool ServerTlsSession::handshake() {
    if (mbedtls_ssl_setup(&m_ssl, &m_conf) != 0) return false;
    mbedtls_ssl_set_bio(&m_ssl, this, bioSend, bioRecv, nullptr);
    for (;;) {
        int r = mbedtls_ssl_handshake(&m_ssl);
        if (r == 0) return true;
        if (r != MBEDTLS_ERR_SSL_WANT_READ && r != MBEDTLS_ERR_SSL_WANT_WRITE) return false;
    }
}

bool ServerTlsSession::handshakeWithCert(Credentials& credentials) {
    if (mbedtls_ssl_conf_own_cert(&m_conf, &credentials.cert, &credentials.key) != 0) return false;
    return handshake();
}

bool ServerTlsSession::handshakeWithKey(const std::string& key) {
    static const char identity[] = "Nothing";
    if (key.empty() ||
        mbedtls_ssl_conf_psk(&m_conf, reinterpret_cast<const unsigned char*>(key.data()), key.size(),
                             reinterpret_cast<const unsigned char*>(identity),
                             sizeof identity - 1) != 0)
        return false;
    return handshake();
}

int ServerTlsSession::read(void* buf, size_t len) {
    for (;;) {
        int r = mbedtls_ssl_read(&m_ssl, static_cast<unsigned char*>(buf), len);
        if (r == MBEDTLS_ERR_SSL_WANT_READ || r == MBEDTLS_ERR_SSL_WANT_WRITE) continue;
        if (r == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY) return 0;
        return r;
    }
}

bool ServerTlsSession::writeAll(const void* buf, size_t len) {
    const unsigned char* p = static_cast<const unsigned char*>(buf);
    while (len > 0) {
        int r = mbedtls_ssl_write(&m_ssl, p, len);
        if (r == MBEDTLS_ERR_SSL_WANT_READ || r == MBEDTLS_ERR_SSL_WANT_WRITE) continue;
        if (r <= 0) return false;
        p += r;
        len -= static_cast<size_t>(r);
    }
    return true;
}

bool ServerTlsSession::expectCloseNotify() {
    unsigned char one[1];
    for (;;) {
        int r = mbedtls_ssl_read(&m_ssl, one, sizeof one);
        if (r == MBEDTLS_ERR_SSL_WANT_READ || r == MBEDTLS_ERR_SSL_WANT_WRITE) continue;
        return r == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY;
    }
}

void ServerTlsSession::sendCloseNotify() {
    int r;
    do {
        r = mbedtls_ssl_close_notify(&m_ssl);
    } while (r == MBEDTLS_ERR_SSL_WANT_WRITE);
}
