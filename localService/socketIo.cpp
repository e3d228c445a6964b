#include "socketIo.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace LocalIo {

std::atomic<bool>& stopping() {
    static std::atomic<bool> flag{false};
    return flag;
}

static int pollIn(int fd, int ms) {
    pollfd p{fd, POLLIN, 0};
    int r = poll(&p, 1, ms);
    if (r < 0 && errno == EINTR) return 0;
    return r;
}

ssize_t recvSome(int fd, void* buf, size_t len, int idleLimitMs) {
    // Waiting is only asked for when nothing is queued: during a transfer the
    // bytes are usually there already, and a poll per read costs a system call.
    std::chrono::steady_clock::time_point deadline;
    bool waited = false;
    for (;;) {
        if (stopping()) return -1;
        ssize_t n = recv(fd, buf, len, MSG_DONTWAIT);
        if (n >= 0) return n;
        if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return -1;
        auto now = std::chrono::steady_clock::now();
        if (!waited) deadline = now + std::chrono::milliseconds(idleLimitMs);
        else if (now >= deadline) return -1;
        waited = true;
        if (pollIn(fd, 200) < 0) return -1;
    }
}

size_t recvUpTo(int fd, void* buf, size_t len) {
    size_t got = 0;
    while (got < len) {
        ssize_t n = recvSome(fd, static_cast<char*>(buf) + got, len - got);
        if (n <= 0) break;
        got += static_cast<size_t>(n);
    }
    return got;
}

bool readable(int fd, int ms) { return pollIn(fd, ms) > 0; }

bool sendAll(int fd, const void* buf, size_t len) {
    const char* p = static_cast<const char*>(buf);
    while (len > 0) {
        if (stopping()) return false;
        ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        p += n;
        len -= static_cast<size_t>(n);
    }
    return true;
}

void drainUntilClosed(int fd, int idleLimitMs) {
    char buf[4096];
    while (recvSome(fd, buf, sizeof buf, idleLimitMs) > 0) {
    }
}

void resetOnClose(int fd) {
    linger l{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &l, sizeof l);
}

}  // namespace LocalIo
