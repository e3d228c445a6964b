#include "connection.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cstring>
#include <memory>
#include <string>

#include "channel.h"
#include "faults.h"
#include "pushSender.h"
#include "request.h"
#include "serviceContext.h"
#include "socketIo.h"
#include "uploadReceiver.h"
#include "verbs.h"

namespace {

constexpr char kStartMarker[] = "!COMMAND";
constexpr size_t kMarkerLength = sizeof kStartMarker - 1;
// Sharing documents are large; anything past this is not a command.
constexpr size_t kMaxCommand = 16u << 20;
// The clear transport has no terminator of its own: after a line that
// deciphers whole, more bytes within this pause would still belong to it.
constexpr int kClearSettleMs = 50;

bool readCertCommand(ServerTlsSession& session, std::string& line) {
    std::string received;
    char buf[16384];
    while (received.size() < kMaxCommand) {
        int n = session.read(buf, sizeof buf);
        if (n <= 0) return false;
        received.append(buf, static_cast<size_t>(n));
        if (completeCommand(received, line)) return true;
    }
    return false;
}

bool readClearCommand(int fd, std::string received, std::string& line) {
    char buf[16384];
    for (;;) {
        if (completeCommand(decipherClear(received), line) && !LocalIo::readable(fd, kClearSettleMs))
            return true;
        if (received.size() >= kMaxCommand) return false;
        ssize_t n = LocalIo::recvSome(fd, buf, sizeof buf);
        if (n <= 0) return completeCommand(decipherClear(received), line);
        received.append(buf, static_cast<size_t>(n));
    }
}

void dispatch(const std::string& line, CommandChannel& channel, ServiceContext& context) {
    context.log.record(line);
    Request request = parseRequest(line);
    if (request.kind == Request::Kind::Upload) {
        receiveUpload(request, channel, context);
    } else if (request.kind == Request::Kind::Identified && isPushVerb(request.verb)) {
        pushToBox(request, channel, context);
    } else {
        channel.reply(replyFor(request, context));
        channel.finish();
    }
}

}  // namespace

void serveConnection(int fd, ServiceContext& context) {
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);

    if (faultOn(context.config, Fault::Silent)) {
        LocalIo::drainUntilClosed(fd);
        return;
    }

    char marker[kMarkerLength];
    size_t got = LocalIo::recvUpTo(fd, marker, kMarkerLength);
    if (got == 0) return;
    if (got < kMarkerLength || memcmp(marker, kStartMarker, kMarkerLength) != 0) {
        std::string line;
        if (readClearCommand(fd, std::string(marker, got), line)) {
            auto channel = makeClearChannel(fd);
            dispatch(line, *channel, context);
        }
        return;
    }

    if (faultOn(context.config, Fault::NoOk)) {
        LocalIo::sendAll(fd, "NO", 2);
        return;
    }
    if (!LocalIo::sendAll(fd, "OK", 2)) return;
    if (faultOn(context.config, Fault::MuteAfterOk)) {
        LocalIo::drainUntilClosed(fd);
        return;
    }

    auto session = std::make_unique<ServerTlsSession>(fd, context.random);
    Credentials& credentials = faultOn(context.config, Fault::ForeignCert) ? context.foreignCredentials
                                                                           : context.ownCredentials;
    if (!session->handshakeWithCert(credentials)) return;
    std::string line;
    if (!readCertCommand(*session, line)) return;
    auto channel = makeCertChannel(fd, std::move(session));
    dispatch(line, *channel, context);
}
