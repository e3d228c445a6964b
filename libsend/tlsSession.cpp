#include "tlsSession.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>

#include <mbedtls/net_sockets.h>

#include "boxSend.h"
#include "morvaAlarms.h"

namespace {

// The watchdog ran out on this thread: its signal interrupted us, or it has
// closed (or is closing) the recorded socket.
bool alarmFired(const Box* box) {
    AlarmRec* rec = m_alarms->record(box->alarmIndex);
    return !rec || rec->expiry.seconds == 0 || rec->socket == -2;
}

int mapError(const Box* box, bool reading) {
    int err = errno;
    if (err == EINTR) {
        // The net layer would retry an EINTR for ever; only a stray signal
        // (alarm still armed and socket still ours) deserves a retry.
        if (alarmFired(box))
            return reading ? MBEDTLS_ERR_NET_RECV_FAILED : MBEDTLS_ERR_NET_SEND_FAILED;
        return reading ? MBEDTLS_ERR_SSL_WANT_READ : MBEDTLS_ERR_SSL_WANT_WRITE;
    }
    if (err == EAGAIN || err == EWOULDBLOCK)
        return reading ? MBEDTLS_ERR_SSL_WANT_READ : MBEDTLS_ERR_SSL_WANT_WRITE;
    if (err == EPIPE || err == ECONNRESET) return MBEDTLS_ERR_NET_CONN_RESET;
    return reading ? MBEDTLS_ERR_NET_RECV_FAILED : MBEDTLS_ERR_NET_SEND_FAILED;
}

int bioSend(void* ctx, const unsigned char* buf, size_t len) {
    TlsSession* t = static_cast<TlsSession*>(ctx);
    if (!t->box->socketOpen()) return MBEDTLS_ERR_NET_SEND_FAILED;
    ssize_t n = ::send(t->box->sock, buf, len, MSG_NOSIGNAL);
    if (n < 0) return mapError(t->box, false);
    return (int)n;
}

// Drops whole records that precede the server's first handshake record: they
// belong to the session that ran before on this connection.
int skipOld(TlsSession* t) {
    int fd = t->box->sock;
    for (;;) {
        unsigned char hdr[5];
        ssize_t n = ::recv(fd, hdr, sizeof hdr, MSG_PEEK | MSG_WAITALL);
        if (n <= 0) return n == 0 ? 0 : mapError(t->box, true);
        if (n < (ssize_t)sizeof hdr) {
            if (!t->box->socketOpen()) return MBEDTLS_ERR_NET_RECV_FAILED;
            continue;  // interrupted peek: look again
        }
        if (hdr[0] == MBEDTLS_SSL_MSG_HANDSHAKE) {
            t->skipOldRecords = false;
            return 1;
        }
        size_t left = sizeof hdr + (((size_t)hdr[3] << 8) | hdr[4]);
        unsigned char sink[4096];
        while (left > 0) {
            if (!t->box->socketOpen()) return MBEDTLS_ERR_NET_RECV_FAILED;
            ssize_t m = ::recv(fd, sink, left < sizeof sink ? left : sizeof sink, 0);
            if (m == 0) return 0;
            if (m < 0) {
                int rc = mapError(t->box, true);
                if (rc == MBEDTLS_ERR_SSL_WANT_READ) continue;
                return rc;
            }
            left -= (size_t)m;
        }
    }
}

int bioRecv(void* ctx, unsigned char* buf, size_t len) {
    TlsSession* t = static_cast<TlsSession*>(ctx);
    if (!t->box->socketOpen()) return MBEDTLS_ERR_NET_RECV_FAILED;
    if (t->skipOldRecords) {
        int rc = skipOld(t);
        if (rc <= 0) return rc;
    }
    ssize_t n = ::recv(t->box->sock, buf, len, 0);
    if (n < 0) return mapError(t->box, true);
    return (int)n;
}

bool again(int rc) {
    return rc == MBEDTLS_ERR_SSL_WANT_READ || rc == MBEDTLS_ERR_SSL_WANT_WRITE;
}

}  // namespace

TlsSession::TlsSession(Box* b) : box(b) {
    mbedtls_ssl_init(&ssl);
    mbedtls_ssl_config_init(&conf);
    mbedtls_x509_crt_init(&ca);
    mbedtls_ctr_drbg_init(&drbg);
    mbedtls_entropy_init(&entropy);
}

TlsSession::~TlsSession() {
    release();
}

void TlsSession::release() {
    if (!live) return;
    live = false;
    mbedtls_ssl_free(&ssl);
    mbedtls_ssl_config_free(&conf);
    mbedtls_x509_crt_free(&ca);
    mbedtls_ctr_drbg_free(&drbg);
    mbedtls_entropy_free(&entropy);
}

static int commonSetup(TlsSession* t) {
    int rc = mbedtls_ssl_config_defaults(&t->conf, MBEDTLS_SSL_IS_CLIENT,
                                         MBEDTLS_SSL_TRANSPORT_STREAM, MBEDTLS_SSL_PRESET_DEFAULT);
    if (rc != 0) return rc;
    rc = mbedtls_ctr_drbg_seed(&t->drbg, mbedtls_entropy_func, &t->entropy, nullptr, 0);
    if (rc != 0) return rc;
    mbedtls_ssl_conf_rng(&t->conf, mbedtls_ctr_drbg_random, &t->drbg);
    return 0;
}

int TlsSession::configureCert(const char* caPath) {
    int rc = commonSetup(this);
    if (rc != 0) return rc;
    rc = mbedtls_x509_crt_parse_file(&ca, caPath);
    if (rc < 0) return rc;
    mbedtls_ssl_conf_authmode(&conf, MBEDTLS_SSL_VERIFY_REQUIRED);
    mbedtls_ssl_conf_ca_chain(&conf, &ca, nullptr);
    rc = mbedtls_ssl_setup(&ssl, &conf);
    if (rc != 0) return rc;
    // The chain alone is checked, whatever host name the certificate names;
    // saying so explicitly keeps that true across library releases.
    rc = mbedtls_ssl_set_hostname(&ssl, nullptr);
    if (rc != 0) return rc;
    mbedtls_ssl_set_bio(&ssl, this, bioSend, bioRecv, nullptr);
    return 0;
}

int TlsSession::configurePsk(const char* key) {
    int rc = commonSetup(this);
    if (rc != 0) return rc;
    static const unsigned char identity[] = "Nothing";
    rc = mbedtls_ssl_conf_psk(&conf, reinterpret_cast<const unsigned char*>(key), strlen(key),
                              identity, 7);
    if (rc != 0) return rc;
    rc = mbedtls_ssl_setup(&ssl, &conf);
    if (rc != 0) return rc;
    skipOldRecords = true;
    mbedtls_ssl_set_bio(&ssl, this, bioSend, bioRecv, nullptr);
    return 0;
}

int TlsSession::handshake() {
    int rc;
    while ((rc = mbedtls_ssl_handshake(&ssl)) != 0)
        if (!again(rc)) return rc;
    return 0;
}

int TlsSession::writeAll(const unsigned char* buf, size_t len) {
    size_t done = 0;
    while (done < len) {
        int rc = mbedtls_ssl_write(&ssl, buf + done, len - done);
        if (again(rc)) continue;
        if (rc <= 0) return rc < 0 ? rc : MBEDTLS_ERR_NET_SEND_FAILED;
        done += (size_t)rc;
    }
    return (int)done;
}

int TlsSession::read(unsigned char* buf, size_t len) {
    int rc;
    do {
        rc = mbedtls_ssl_read(&ssl, buf, len);
    } while (again(rc));
    if (rc == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY || rc == MBEDTLS_ERR_SSL_CONN_EOF) return 0;
    return rc;
}

void TlsSession::close() {
    if (!live) return;
    if (box->socketOpen()) {
        int rc;
        do {
            rc = mbedtls_ssl_close_notify(&ssl);
        } while (rc == MBEDTLS_ERR_SSL_WANT_WRITE);
    }
    release();
}
