// Blocking socket reads and writes that give up when the service stops or a
// peer stays idle too long, so no connection thread can outlive a SIGTERM.
#pragma once
#include <atomic>
#include <cstddef>
#include <sys/types.h>

namespace LocalIo {

// Set by the signal handler; every wait below looks at it.
std::atomic<bool>& stopping();

// A peer that sends nothing for this long is given up.
constexpr int kIdleLimitMs = 180000;

// Up to len bytes: > 0 the count, 0 the peer closed, < 0 failure, idle limit or stop.
ssize_t recvSome(int fd, void* buf, size_t len, int idleLimitMs = kIdleLimitMs);
// Reads until len bytes or the peer closes; returns the count read (never more
// than len, so nothing of what follows is taken from the socket).
size_t recvUpTo(int fd, void* buf, size_t len);
// True when some byte arrives within ms (or the peer closed).
bool readable(int fd, int ms);
// Whole buffer, no SIGPIPE; false on failure.
bool sendAll(int fd, const void* buf, size_t len);
// Reads and drops whatever comes until the peer closes, the idle limit or stop.
void drainUntilClosed(int fd, int idleLimitMs = kIdleLimitMs);
// The coming close drops unsent data and resets the connection.
void resetOnClose(int fd);

}  // namespace LocalIo
