// Every size limit and time-out of the agent, in one place. Each module
// includes this and uses the names; nothing repeats a number.
#pragma once
#include <cstddef>

namespace Limits {

// ---- cloud link
// One blocking step of a session: a send, a handshake, a whole reply.
constexpr unsigned int LINK_STEP_MS = 60000;
// Connect to one server; resolving one name.
constexpr unsigned int CONNECT_MS = 10000;
constexpr unsigned int RESOLVE_MS = 10000;
// Lookups left running after their deadline (a stalled resolver); beyond
// this many, further lookups fail at once instead of adding threads.
constexpr int LOOKUPS_IN_FLIGHT_MOST = 8;
constexpr size_t LOOKUP_STACK = 256 * 1024;
// Connect, request and whole answer of a plain TCP/HTTP helper exchange.
constexpr unsigned int PLAIN_EXCHANGE_MS = 10000;
// A data transfer gets LINK_STEP_MS plus one millisecond per this many bytes.
constexpr unsigned int TRANSFER_BYTES_PER_MS = 10;
// Bytes moved per read or write of an upload or a pushed file.
constexpr size_t TRANSFER_CHUNK = 1048576;
// The pinned certificate authority file.
constexpr long CA_FILE_MOST = 1048576;

// ---- local listener
constexpr size_t LISTENER_FRAME_MOST = 16 * 1048576;

// ---- files
constexpr size_t COPY_BUFFER = 1048576;

}  // namespace Limits
