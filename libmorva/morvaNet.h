// Address resolution with a deadline, and small socket helpers
// (plain HTTP over TCP, one UDP datagram).
#pragma once
#include <netdb.h>

struct AddrInfo {
    // First destination that resolves; null when none did. Freed by the
    // destructor (or take it with release() and freeaddrinfo it yourself).
    struct addrinfo* result = nullptr;

    AddrInfo() = default;
    ~AddrInfo();
    AddrInfo(const AddrInfo&) = delete;
    AddrInfo& operator=(const AddrInfo&) = delete;

    // Resolves hosts[i]:ports[i] in order (IPv4 only; entries with an empty
    // host or port are skipped) and keeps the first result. A name lookup
    // runs on a helper thread and is given up after Limits::RESOLVE_MS,
    // whatever the resolver does; a dotted address is converted in place.
    // Failures are printed unless quiet.
    void init(int count, char** hosts, char** ports, bool stream, bool verbose, bool quiet);
    struct addrinfo* release();

    // Hint flags for a host: AI_NUMERICSERV, plus AI_NUMERICHOST only for a
    // digit followed by digits and dots with exactly four dots.
    static int hintFlags(const char* host);
};

class Network {
public:
    // The failure report of every network exchange: "<yyyymmddHHMMSS>  Receiving:
    // <message>: <errno text>" on standard error, flushed. With quiet and not
    // verbose the stream is rewound first, so a daemon's log keeps the newest
    // report at its head.
    static void report(const char* message, bool quiet, bool verbose);

    // Socket options of every session: SO_LINGER on with 0 s (close resets at
    // once) and TCP_NODELAY. Returns 0, or -1 when an option could not be set.
    static int setSessionOptions(int fd);

    // Body of a plain HTTP answer (text after the first blank line, leading
    // white space skipped), malloc'd; null when there is none. status gets the
    // HTTP status (a "100 Continue" is skipped). https is not supported: it
    // prints a note and returns null.
    static char* GenHTTP(const char* host, const char* port, const char* request, int& status,
                         bool verbose);
    static char* GenHTTPX(bool https, const char* host, const char* port, const char* request,
                          int& status, bool verbose);
    // One request, the whole answer until the peer closes; malloc'd, null on
    // failure. Bounded by a Limits::PLAIN_EXCHANGE_MS watchdog deadline.
    static char* GenTCP(const char* host, const char* port, const char* request, bool verbose);
    // One UDP datagram of strlen(message) bytes. 0 on success, -1 on failure.
    static int sendUMsg(const char* host, int port, const char* message);
};
