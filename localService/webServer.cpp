#include "webServer.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "faults.h"
#include "serviceContext.h"
#include "socketIo.h"

namespace {

// A request's line and header fields together.
constexpr size_t kRequestHeadMost = 16384;
// Bytes read from the file per write into the session.
constexpr size_t kFilePiece = 1u << 20;

bool readRequestHead(ServerTlsSession& session, std::string& head) {
    char buf[4096];
    while (head.find("\r\n\r\n") == std::string::npos) {
        if (head.size() > kRequestHeadMost) return false;
        int n = session.read(buf, sizeof buf);
        if (n <= 0) return false;
        head.append(buf, static_cast<size_t>(n));
    }
    return true;
}

void answerEmpty(ServerTlsSession& session, const std::string& status, const std::string& fields = "") {
    session.writeAll("HTTP/1.1 " + status + "\r\n" + fields + "Content-Length: 0\r\nConnection: close\r\n\r\n");
    session.sendCloseNotify();
}

// The file in pieces; under webShort only the first half of it.
void answerFile(ServerTlsSession& session, int file, long long size, bool shortened) {
    if (!session.writeAll("HTTP/1.1 200 OK\r\nContent-Type: application/octet-stream\r\nContent-Length: " +
                          std::to_string(size) + "\r\nConnection: close\r\n\r\n"))
        return;
    long long left = shortened ? size / 2 : size;
    std::vector<char> piece(kFilePiece);
    while (left > 0) {
        ssize_t n = read(file, piece.data(), left < static_cast<long long>(piece.size()) ? left : piece.size());
        if (n <= 0 || !session.writeAll(piece.data(), static_cast<size_t>(n))) return;
        left -= n;
    }
    session.sendCloseNotify();
}

}  // namespace

void serveWebConnection(int fd, ServiceContext& context) {
    // A client that stops reading cannot hold a send for ever.
    timeval limit{LocalIo::kIdleLimitMs / 1000, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (faultOn(context.config, Fault::Silent)) {
        LocalIo::drainUntilClosed(fd);
        return;
    }
    ServerTlsSession session(fd, context.random);
    Credentials& credentials = faultOn(context.config, Fault::ForeignCert) ? context.foreignCredentials
                                                                           : context.ownCredentials;
    std::string head;
    if (!session.handshakeWithCert(credentials) || !readRequestHead(session, head)) return;
    std::string line = head.substr(0, head.find("\r\n"));
    size_t sp1 = line.find(' '), sp2 = line.rfind(' ');
    if (sp1 == std::string::npos || sp2 <= sp1) return answerEmpty(session, "400 Bad Request");
    if (line.substr(0, sp1) != "GET") return answerEmpty(session, "405 Method Not Allowed");
    std::string target = line.substr(sp1 + 1, sp2 - sp1 - 1);
    std::string relative = webRelativePath(target);
    if (relative.empty()) return answerEmpty(session, "404 Not Found");
    if (faultOn(context.config, Fault::WebRedirect))
        return answerEmpty(session, "302 Found", "Location: /" + relative + "\r\n");

    int file = open(context.config.path("web/" + relative).c_str(), O_RDONLY | O_CLOEXEC);
    struct stat st;
    if (file < 0 || fstat(file, &st) != 0 || !S_ISREG(st.st_mode)) {
        if (file >= 0) close(file);
        return answerEmpty(session, "404 Not Found");
    }
    answerFile(session, file, st.st_size, faultOn(context.config, Fault::WebShort));
    close(file);
}

std::string webRelativePath(const std::string& target) {
    std::string path = target.substr(0, target.find('?'));
    if (path.size() < 2 || path[0] != '/') return "";
    path.erase(0, 1);
    for (size_t at = 0;;) {
        size_t slash = path.find('/', at);
        if (!isPlainName(path.substr(at, slash == std::string::npos ? std::string::npos : slash - at))) return "";
        if (slash == std::string::npos) return path;
        at = slash + 1;
    }
}
