// The service's side of the two TLS layers: the certificate session that
// carries every command, and the pre-shared-key session that carries the bytes
// of an upload or a push on the same TCP connection.
#pragma once
#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/pk.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>

#include <cstddef>
#include <string>
#include <vector>

// A certificate (chain) and its private key, parsed once and shared by all
// connections.
class Credentials {
public:
    Credentials();
    ~Credentials();
    Credentials(const Credentials&) = delete;
    Credentials& operator=(const Credentials&) = delete;

    // Empty on success, else the reason.
    std::string load(const std::string& certPath, const std::string& keyPath);

    mbedtls_x509_crt cert;
    mbedtls_pk_context key;
};

// One random generator for the whole service (mbed TLS locks it per call).
class RandomSource {
public:
    RandomSource();
    ~RandomSource();
    RandomSource(const RandomSource&) = delete;
    RandomSource& operator=(const RandomSource&) = delete;
    bool ready() const { return m_ready; }
    mbedtls_ctr_drbg_context* drbg() { return &m_drbg; }

private:
    mbedtls_entropy_context m_entropy;
    mbedtls_ctr_drbg_context m_drbg;
    bool m_ready;
};

// One TLS server session over a connected socket it does not own. The
// destructor frees the session without a close notification, which is what a
// hand-over to the next session on the same socket needs.
class ServerTlsSession {
public:
    ServerTlsSession(int fd, RandomSource& random);
    ~ServerTlsSession();
    ServerTlsSession(const ServerTlsSession&) = delete;
    ServerTlsSession& operator=(const ServerTlsSession&) = delete;

    bool handshakeWithCert(Credentials& credentials);
    // The box authenticates with the identity "Nothing" and this key text.
    bool handshakeWithKey(const std::string& key);

    // > 0 bytes, 0 the peer ended the session, < 0 failure.
    int read(void* buf, size_t len);
    bool writeAll(const void* buf, size_t len);
    bool writeAll(const std::string& text) { return writeAll(text.data(), text.size()); }
    // The peer is sure to send at least this many more bytes in this session
    // (announced plaintext never takes fewer on the wire): the socket may be
    // read that far ahead of the library, in large pieces instead of a header
    // and a body per record, without taking anything of what follows.
    void readAhead(unsigned long long bytes);
    // Reads the next record and expects the peer's close notification; true
    // when it came. Nothing past that record is read from the socket.
    bool expectCloseNotify();
    void sendCloseNotify();

private:
    bool handshake();
    static int bioSend(void* ctx, const unsigned char* buf, size_t len);
    static int bioRecv(void* ctx, unsigned char* buf, size_t len);

    int m_fd;
    std::vector<unsigned char> m_ahead;
    size_t m_aheadPos = 0;
    size_t m_aheadEnd = 0;
    unsigned long long m_aheadAllowed = 0;
    mbedtls_ssl_context m_ssl;
    mbedtls_ssl_config m_conf;
};
