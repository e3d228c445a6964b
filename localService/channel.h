// The session a command arrived on, as the handlers see it: the certificate
// TLS session after "!COMMAND"/"OK", or the clear transport whose lines are
// enciphered with the secret encoding.
#pragma once
#include <memory>
#include <string>

class ServerTlsSession;

class CommandChannel {
public:
    virtual ~CommandChannel() = default;
    // The reply, in a single record or send: a box that keeps the connection
    // for a data session takes only its first read.
    virtual bool reply(const std::string& text) = 0;
    // An ordinary command is over: end the session, let the box close its side.
    virtual void finish() = 0;
    // A data session follows on the same socket: consume the box's end of this
    // session, and nothing after it, so the socket holds only the next
    // handshake. False when the box did something else.
    // strayEnd: end the first session with a notification of our own before
    // the key session (a fault mode: the box must drop it unread).
    virtual bool handOver(bool strayEnd) = 0;
    int fd() const { return m_fd; }

protected:
    explicit CommandChannel(int fd) : m_fd(fd) {}
    int m_fd;
};

std::unique_ptr<CommandChannel> makeCertChannel(int fd, std::unique_ptr<ServerTlsSession> session);
std::unique_ptr<CommandChannel> makeClearChannel(int fd);

// The text enciphered as the clear transport sends it, and back.
std::string encipherClear(const std::string& text);
std::string decipherClear(const std::string& text);
