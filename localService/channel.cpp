#include "channel.h"

#include <sys/socket.h>

#include "socketIo.h"
#include "tlsServer.h"
#include "util.h"

namespace {

// How long a box gets to close its side once the service has ended a session.
constexpr int kCloseGraceMs = 5000;

class CertChannel : public CommandChannel {
public:
    CertChannel(int fd, std::unique_ptr<ServerTlsSession> session)
        : CommandChannel(fd), m_session(std::move(session)) {}

    bool reply(const std::string& text) override {
        return text.empty() || m_session->writeAll(text);
    }

    void finish() override {
        m_session->sendCloseNotify();
        // The box answers with its own notification and closes; waiting for
        // that spares it a reset while it still reads.
        if (LocalIo::readable(fd(), kCloseGraceMs)) m_session->expectCloseNotify();
    }

    bool handOver(bool strayEnd) override {
        // Normally no notification of our own: the box reads only the reply.
        if (strayEnd) m_session->sendCloseNotify();
        bool ok = m_session->expectCloseNotify();
        m_session.reset();
        return ok;
    }

private:
    std::unique_ptr<ServerTlsSession> m_session;
};

class ClearChannel : public CommandChannel {
public:
    explicit ClearChannel(int fd) : CommandChannel(fd) {}

    bool reply(const std::string& text) override {
        std::string wire = encipherClear(text);
        return wire.empty() || LocalIo::sendAll(fd(), wire.data(), wire.size());
    }

    void finish() override {
        shutdown(fd(), SHUT_WR);
        LocalIo::drainUntilClosed(fd(), kCloseGraceMs);
    }

    bool handOver(bool) override { return true; }
};

}  // namespace

std::unique_ptr<CommandChannel> makeCertChannel(int fd, std::unique_ptr<ServerTlsSession> session) {
    return std::make_unique<CertChannel>(fd, std::move(session));
}

std::unique_ptr<CommandChannel> makeClearChannel(int fd) { return std::make_unique<ClearChannel>(fd); }

std::string encipherClear(const std::string& text) {
    if (text.empty()) return "";
    const char* enciphered = Util::encrypt(text.c_str());
    return enciphered ? std::string(enciphered) : std::string();
}

std::string decipherClear(const std::string& text) {
    if (text.empty()) return "";
    const char* plain = Util::decrypt(text.c_str());
    return plain ? std::string(plain) : std::string();
}
