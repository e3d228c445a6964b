// The two command transports: TLS pinned to the service's authority, and the
// enciphered clear form.
#include <sys/socket.h>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "linkUtil.h"
#include "morvaAlarms.h"
#include "sendFile.h"
#include "text.h"
#include "tlsSession.h"
#include "util.h"

char* SendFile::sendCommand(const char* command, int& status, bool readAll) {
    return useCertTransport ? sendCommandCert(command, status, readAll)
                            : sendCommandClear(command, status, readAll);
}

char* SendFile::sendCommandCert(const char* command, int& status, bool readAll) {
    status = 1;
    m_alarms->monitor();
    std::string message = std::string(command ? command : "") + "|~~";
    if (!socketOpen() && !connectSession()) return LinkUtil::handOver("", nullptr);

    char text[128];
    m_alarms->arm(alarmIndex, 60000, sock);
    ssize_t n = ::send(sock, "!COMMAND", 8, MSG_NOSIGNAL);
    if (n < 0) {
        snprintf(text, sizeof text, "Socket send of command start failed:  size=%d\n", (int)n);
        shutdown(text, true);
        return LinkUtil::handOver("", nullptr);
    }
    char ack[65];
    memset(ack, 0, sizeof ack);
    n = socketOpen() ? ::recv(sock, ack, 64, 0) : -1;
    if (n < 1) {
        snprintf(text, sizeof text,
                 "Acknowledgement from server for command start failed: size=%d\n", (int)n);
        shutdown(text, true);
        return LinkUtil::handOver("", nullptr);
    }
    m_alarms->disarm(alarmIndex);
    if (strcmp(ack, "OK") != 0) {
        shutdown("Socket send of !COMMAND failed", true);
        return LinkUtil::handOver("", nullptr);
    }

    std::string caPath = std::string(dataDir ? dataDir : ".") + "/sundel.crt";
    // On the heap: see keySession.
    auto session = std::make_unique<TlsSession>(this);
    TlsSession& tls = *session;
    int rc = tls.configureCert(caPath.c_str());
    if (rc < 0) {
        shutdown("certificate does not parse\n", &tls, true);
        return LinkUtil::handOver("", nullptr);
    }
    m_alarms->arm(alarmIndex, 60000, sock);
    if (tls.handshake() != 0) {
        shutdown("Fatal error during TLS handshake\n", &tls, true);
        return LinkUtil::handOver("", nullptr);
    }
    m_alarms->disarm(alarmIndex);
    m_alarms->arm(alarmIndex, 60000, sock);  // covers the write and the whole reply
    tls.writeAll(reinterpret_cast<const unsigned char*>(message.data()), message.size());
    if (verbose) fprintf(stderr, "SENT: Sent (tls/cert) %s\n", message.c_str());

    std::string reply;
    reply.reserve(512);
    int last;
    for (;;) {
        unsigned char buf[256];
        last = tls.read(buf, 255, false);
        if (last > 0) reply.append(reinterpret_cast<char*>(buf), (size_t)last);
        if (last <= 0 || !readAll) break;
    }
    m_alarms->disarm(alarmIndex);
    if (last < 0 && reply.empty()) {
        shutdown("No response received for sent command", &tls, true);
        return LinkUtil::handOver("", nullptr);
    }
    // The reply is text: it ends at its first zero byte.
    char* out = LinkUtil::handOver(trim(&reply[0]), nullptr);
    if (verbose) fprintf(stderr, "SENT: Received (tls/cert) |%.256s|\n", out);
    if (readAll)
        shutdown("Success", &tls, false);
    else
        tls.close();  // the connection stays open for the data session
    status = 0;
    return out;
}

char* SendFile::sendCommandClear(const char* command, int& status, bool readAll) {
    status = 1;
    m_alarms->monitor();
    std::string plain = std::string(command ? command : "") + "|~~";
    std::string message = tripleKey ? Util::encrypt3(plain.c_str()) : Util::encrypt(plain.c_str());
    if (!socketOpen() && !connectSession()) return LinkUtil::handOver("", nullptr);

    m_alarms->arm(alarmIndex, 60000, sock);
    ssize_t n = ::send(sock, message.data(), message.size(), MSG_NOSIGNAL);
    if (verbose) fprintf(stderr, "SENT: Sent %s=%s\n", message.c_str(), plain.c_str());
    if (n < 0) {
        shutdown("Socket send of plaintext/encrypted command failed", true);
        return LinkUtil::handOver("", nullptr);
    }
    std::string raw;
    ssize_t last;
    for (;;) {
        char buf[256];
        last = socketOpen() ? ::recv(sock, buf, 255, 0) : -1;
        if (last < 0 && errno == EINTR && socketOpen() && !m_alarms->fired(alarmIndex))
            continue;  // a stray signal
        if (last > 0) raw.append(buf, (size_t)last);
        if (last <= 0 || !readAll) break;
    }
    m_alarms->disarm(alarmIndex);
    if (last < 0 && raw.empty()) {
        shutdown("No response received for sent command", true);
        return LinkUtil::handOver("", nullptr);
    }
    std::string cipher(raw.c_str());
    char* out = LinkUtil::handOver(trim(Util::decrypt(cipher.c_str())), nullptr);
    if (verbose) fprintf(stderr, "SENT: Received %.256s=|%.256s|\n", cipher.c_str(), out);
    if (readAll) shutdown("Success", false);
    status = 0;
    return out;
}
