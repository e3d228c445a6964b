// One TLS client session over a session's already connected socket: either
// pinned to one certificate authority (commands) or keyed with the box's
// pre-shared key (data). Reads and writes give up as soon as the thread's
// watchdog has fired, so no retry loop outlives its deadline.
#pragma once
#include <cstddef>

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/ssl.h>
#include <mbedtls/x509_crt.h>

class Box;

struct TlsSession {
    explicit TlsSession(Box* box);
    ~TlsSession();
    TlsSession(const TlsSession&) = delete;
    TlsSession& operator=(const TlsSession&) = delete;

    // Required verification against the authority in caPath, no host-name
    // check. < 0 when caPath is no regular file of at most 1 MiB, the
    // certificate does not parse, or set-up failed.
    int configureCert(const char* caPath);
    // Pre-shared key (its string length), identity "Nothing". Records of an
    // earlier session still waiting in the socket are dropped unread; a
    // server's alert in their place ends the handshake.
    int configurePsk(const char* key);
    // 0 on success; repeats while asked to be called again.
    int handshake();
    // Writes everything; the count written, or a negative error.
    int writeAll(const unsigned char* buf, size_t len);
    // One read of at most len bytes (repeated only while asked to be called
    // again): > 0 count, 0 orderly end, < 0 error. A close notification is an
    // orderly end only when closeNotifyEnds is set; otherwise it stays the
    // library's negative code, so a command that got no reply is a failure.
    int read(unsigned char* buf, size_t len, bool closeNotifyEnds = true);
    // Close notification (repeated while asked to write), then frees.
    void close();
    void release();

    Box* box;
    bool skipOldRecords = false;
    // The first record header of the new session (with its body when it is
    // an alert), read while skipping the old one's records, handed to the
    // library before any further socket read.
    unsigned char pending[7];
    size_t pendingLength = 0;
    size_t pendingOffset = 0;
    bool live = true;
    mbedtls_ssl_context ssl;
    mbedtls_ssl_config conf;
    mbedtls_x509_crt ca;
    mbedtls_ctr_drbg_context drbg;
    mbedtls_entropy_context entropy;
};
