#include "tlsSession.h"

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cstdlib>
#include <string>

#include <mbedtls/net_sockets.h>

#include "boxSend.h"
#include "bounds.h"
#include "files.h"
#include "morvaAlarms.h"

namespace {

int mapError(const Box* box, bool reading) {
    int err = errno;
    if (err == EINTR) {
        // The net layer would retry an EINTR for ever; only a stray signal
        // (alarm still armed and socket still ours) deserves a retry.
        if (m_alarms->fired(box->alarmIndex))
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

// Reads exactly len bytes: len, 0 when the peer ended the stream first, or a
// negative error once the watchdog has fired.
int readExact(TlsSession* t, unsigned char* buf, size_t len) {
    size_t got = 0;
    while (got < len) {
        if (!t->box->socketOpen()) return MBEDTLS_ERR_NET_RECV_FAILED;
        ssize_t n = ::recv(t->box->sock, buf + got, len - got, 0);
        if (n == 0) return 0;
        if (n < 0) {
            int rc = mapError(t->box, true);
            if (rc == MBEDTLS_ERR_SSL_WANT_READ) continue;
            return rc;
        }
        got += (size_t)n;
    }
    return (int)len;
}

// Drops whole records that precede the server's first handshake record: they
// belong to the session that ran before on this connection. The handshake
// record's header is kept for the library. So is a plain alert (two bytes:
// the earlier session's alerts are enciphered and longer), the server's
// refusal of this session, which must end the handshake at once.
int skipOld(TlsSession* t) {
    for (;;) {
        unsigned char hdr[5];
        int rc = readExact(t, hdr, sizeof hdr);
        if (rc <= 0) return rc;
        size_t left = ((size_t)hdr[3] << 8) | hdr[4];
        bool refusal = hdr[0] == MBEDTLS_SSL_MSG_ALERT && left == 2;
        if (hdr[0] == MBEDTLS_SSL_MSG_HANDSHAKE || refusal) {
            memcpy(t->pending, hdr, sizeof hdr);
            t->pendingLength = sizeof hdr;
            if (refusal) {
                rc = readExact(t, t->pending + sizeof hdr, 2);
                if (rc <= 0) return rc;
                t->pendingLength += 2;
            }
            t->pendingOffset = 0;
            t->skipOldRecords = false;
            return 1;
        }
        unsigned char sink[4096];
        while (left > 0) {
            size_t piece = left < sizeof sink ? left : sizeof sink;
            rc = readExact(t, sink, piece);
            if (rc <= 0) return rc;
            left -= piece;
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
    if (t->pendingOffset < t->pendingLength) {
        size_t n = t->pendingLength - t->pendingOffset;
        if (n > len) n = len;
        memcpy(buf, t->pending + t->pendingOffset, n);
        t->pendingOffset += n;
        return (int)n;
    }
    ssize_t n = ::recv(t->box->sock, buf, len, 0);
    if (n < 0) return mapError(t->box, true);
    return (int)n;
}

// The pinned authority is one certificate. It is read here, through the
// state-file reader (close-on-exec), not by the library: that would read
// whatever the path names whole (a directory made it allocate without bound).
// The text with its terminating zero, or "".
std::string readCaFile(const char* path) {
    struct stat st;
    if (!path || stat(path, &st) != 0 || !S_ISREG(st.st_mode) || st.st_size > Limits::CA_FILE_MOST)
        return "";
    std::string pem = readText(path, "", Limits::CA_FILE_MOST);
    return pem.empty() ? pem : pem + '\0';
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
    std::string pem = readCaFile(caPath);
    if (pem.empty()) return MBEDTLS_ERR_X509_FILE_IO_ERROR;
    rc = mbedtls_x509_crt_parse(&ca, reinterpret_cast<const unsigned char*>(pem.data()), pem.size());
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

int TlsSession::read(unsigned char* buf, size_t len, bool closeNotifyEnds) {
    int rc;
    do {
        rc = mbedtls_ssl_read(&ssl, buf, len);
    } while (again(rc));
    if (rc == MBEDTLS_ERR_SSL_CONN_EOF) return 0;
    if (rc == MBEDTLS_ERR_SSL_PEER_CLOSE_NOTIFY && closeNotifyEnds) return 0;
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
