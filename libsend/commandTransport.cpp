// The two command transports: TLS pinned to the service's authority, and the
// enciphered clear form.
#include <sys/socket.h>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include "bounds.h"
#include "linkUtil.h"
#include "morvaAlarms.h"
#include "sendFile.h"
#include "stateFiles.h"
#include "text.h"
#include "tlsSession.h"
#include "util.h"

char* SendFile::sendCommand(const char* command, int& status, bool readAll, Memory* mem) {
    std::string reply = commandReply(command, status, readAll);
    return LinkUtil::handOver(reply.c_str(), mem);
}

std::string SendFile::commandReply(const char* command, int& status, bool readAll) {
    return useCertTransport ? sendCommandCert(command, status, readAll)
                            : sendCommandClear(command, status, readAll);
}

std::string SendFile::sendCommandCert(const char* command, int& status, bool readAll) {
    status = 1;
    m_alarms->monitor();
    std::string message = std::string(command ? command : "") + "|~~";
    if (!socketOpen() && !connectSession()) return "";

    char text[128];
    m_alarms->arm(alarmIndex, Limits::LINK_STEP_MS, sock);
    if (!sendAll("!COMMAND", 8)) {
        snprintf(text, sizeof text, "Socket send of command start failed:  size=%d\n", -1);
        shutdown(text, true);
        return "";
    }
    char ack[65];
    memset(ack, 0, sizeof ack);
    ssize_t n = socketOpen() ? ::recv(sock, ack, 64, 0) : -1;
    if (n < 1) {
        snprintf(text, sizeof text,
                 "Acknowledgement from server for command start failed: size=%d\n", (int)n);
        shutdown(text, true);
        return "";
    }
    m_alarms->disarm(alarmIndex);
    if (strcmp(ack, "OK") != 0) {
        shutdown("Socket send of !COMMAND failed", true);
        return "";
    }

    std::string caPath = std::string(dataDir ? dataDir : ".") + "/" + StateFile::PINNED_CA.name;
    // On the heap: see keySession.
    auto session = std::make_unique<TlsSession>(this);
    TlsSession& tls = *session;
    int rc = tls.configureCert(caPath.c_str());
    if (rc < 0) {
        shutdown("certificate does not parse\n", &tls, true);
        return "";
    }
    m_alarms->arm(alarmIndex, Limits::LINK_STEP_MS, sock);
    if (tls.handshake() != 0) {
        shutdown("Fatal error during TLS handshake\n", &tls, true);
        return "";
    }
    m_alarms->disarm(alarmIndex);
    m_alarms->arm(alarmIndex, Limits::LINK_STEP_MS, sock);  // covers the write and the whole reply
    tls.writeAll(reinterpret_cast<const unsigned char*>(message.data()), message.size());
    if (verbose) fprintf(stderr, "SENT: Sent (tls/cert) %s\n", message.c_str());

    std::string reply;
    reply.reserve(512);
    int last;
    for (;;) {
        unsigned char buf[4096];
        last = tls.read(buf, readAll ? sizeof buf : 255, false);
        if (last > 0) reply.append(reinterpret_cast<char*>(buf), (size_t)last);
        if (last <= 0 || !readAll || reply.size() > Limits::COMMAND_REPLY_MOST) break;
    }
    m_alarms->disarm(alarmIndex);
    if (reply.size() > Limits::COMMAND_REPLY_MOST) {
        shutdown("Reply longer than allowed", &tls, true);
        return "";
    }
    if (last < 0 && reply.empty()) {
        shutdown("No response received for sent command", &tls, true);
        return "";
    }
    // The reply is text: it ends at its first zero byte.
    reply = trimmed(reply);
    if (verbose) fprintf(stderr, "SENT: Received (tls/cert) |%.256s|\n", reply.c_str());
    if (readAll)
        shutdown("Success", &tls, false);
    else
        tls.close();  // the connection stays open for the data session
    status = 0;
    return reply;
}

std::string SendFile::sendCommandClear(const char* command, int& status, bool readAll) {
    status = 1;
    m_alarms->monitor();
    std::string plain = std::string(command ? command : "") + "|~~";
    std::string message = tripleKey ? Util::encipher3(plain.c_str()) : Util::encipher(plain.c_str());
    if (!socketOpen() && !connectSession()) return "";

    m_alarms->arm(alarmIndex, Limits::LINK_STEP_MS, sock);
    bool sent = sendAll(message.data(), message.size());
    if (verbose) fprintf(stderr, "SENT: Sent %s=%s\n", message.c_str(), plain.c_str());
    if (!sent) {
        shutdown("Socket send of plaintext/encrypted command failed", true);
        return "";
    }
    std::string raw;
    ssize_t last;
    for (;;) {
        char buf[4096];
        last = socketOpen() ? ::recv(sock, buf, readAll ? sizeof buf : 255, 0) : -1;
        if (last < 0 && errno == EINTR && socketOpen() && !m_alarms->fired(alarmIndex))
            continue;  // a stray signal
        if (last > 0) raw.append(buf, (size_t)last);
        if (last <= 0 || !readAll || raw.size() > Limits::COMMAND_REPLY_MOST) break;
    }
    m_alarms->disarm(alarmIndex);
    if (raw.size() > Limits::COMMAND_REPLY_MOST) {
        shutdown("Reply longer than allowed", true);
        return "";
    }
    if (last < 0 && raw.empty()) {
        shutdown("No response received for sent command", true);
        return "";
    }
    std::string cipher(raw.c_str());
    std::string reply = trimmed(Util::decipher(cipher.c_str()));
    if (verbose) fprintf(stderr, "SENT: Received %.256s=|%.256s|\n", cipher.c_str(), reply.c_str());
    if (readAll) shutdown("Success", false);
    status = 0;
    return reply;
}
