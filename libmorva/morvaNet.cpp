#include "morvaNet.h"

#include <arpa/inet.h>
#include <csignal>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <string>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <sys/socket.h>
#include <unistd.h>

#include "bounds.h"
#include "exception.h"
#include "morvaAlarms.h"

// ------------------------------------------------------------------ AddrInfo

AddrInfo::~AddrInfo() {
    if (result) freeaddrinfo(result);
}

struct addrinfo* AddrInfo::release() {
    struct addrinfo* r = result;
    result = nullptr;
    return r;
}

int AddrInfo::hintFlags(const char* host) {
    int flags = AI_NUMERICSERV;
    if (!host || !isdigit((unsigned char)host[0])) return flags;
    int dots = 0;
    for (const char* p = host + 1; *p; ++p) {
        if (*p == '.')
            ++dots;
        else if (!isdigit((unsigned char)*p))
            return flags;
    }
    if (dots == 4) flags |= AI_NUMERICHOST;
    return flags;
}

namespace {

// One lookup on a thread of its own: the library resumes a lookup after a
// signal, so only a wait that does not depend on it can end at a deadline.
// Whoever of caller and thread comes last frees the state.
struct Lookup {
    std::mutex mutex;
    std::condition_variable finished;
    bool done = false;
    bool abandoned = false;
    std::string host, port;
    struct addrinfo hints;
    struct addrinfo* result = nullptr;
    int rc = EAI_AGAIN;
};

std::atomic<int> g_lookupsInFlight{0};

void* runLookup(void* arg) {
    auto* lookup = static_cast<std::shared_ptr<Lookup>*>(arg);
    Lookup& l = **lookup;
    struct addrinfo* found = nullptr;
    int rc = getaddrinfo(l.host.c_str(), l.port.c_str(), &l.hints, &found);
    {
        std::lock_guard<std::mutex> hold(l.mutex);
        if (l.abandoned) {
            if (found) freeaddrinfo(found);
        } else {
            l.rc = rc;
            l.result = found;
        }
        l.done = true;
    }
    l.finished.notify_all();
    delete lookup;
    g_lookupsInFlight--;
    return nullptr;
}

// A dotted IPv4 address never reaches the resolver.
bool numericAddress(const char* host) {
    struct in_addr a;
    return inet_pton(AF_INET, host, &a) == 1;
}

int boundedLookup(const char* host, const char* port, const struct addrinfo& hints,
                  struct addrinfo** found) {
    if (numericAddress(host)) return getaddrinfo(host, port, &hints, found);
    if (++g_lookupsInFlight > Limits::LOOKUPS_IN_FLIGHT_MOST) {
        g_lookupsInFlight--;  // stalled lookups already hold enough threads
        return EAI_AGAIN;
    }
    auto lookup = std::make_shared<Lookup>();
    lookup->host = host;
    lookup->port = port;
    lookup->hints = hints;
    auto* forThread = new std::shared_ptr<Lookup>(lookup);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_attr_setstacksize(&attr, Limits::LOOKUP_STACK);
    // The watchdog's signals are meant for the caller, not for the lookup.
    sigset_t all, previous;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &previous);
    pthread_t thread;
    int started = pthread_create(&thread, &attr, runLookup, forThread);
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    pthread_attr_destroy(&attr);
    if (started != 0) {
        delete forThread;
        g_lookupsInFlight--;
        return EAI_AGAIN;
    }
    std::unique_lock<std::mutex> hold(lookup->mutex);
    if (!lookup->finished.wait_for(hold, std::chrono::milliseconds(Limits::RESOLVE_MS),
                                   [&] { return lookup->done; })) {
        lookup->abandoned = true;
        return EAI_AGAIN;
    }
    *found = lookup->result;
    return lookup->rc;
}

}  // namespace

void AddrInfo::init(int count, char** hosts, char** ports, bool stream, bool /*verbose*/,
                    bool quiet) {
    if (result) {
        freeaddrinfo(result);
        result = nullptr;
    }
    for (int i = 0; i < count && hosts && ports; ++i) {
        const char* host = hosts[i];
        const char* port = ports[i];
        if (!host || !*host || !port || !*port) continue;
        struct addrinfo hints;
        memset(&hints, 0, sizeof hints);
        hints.ai_family = AF_INET;
        hints.ai_socktype = stream ? SOCK_STREAM : SOCK_DGRAM;
        hints.ai_flags = hintFlags(host);
        struct addrinfo* found = nullptr;
        int rc = boundedLookup(host, port, hints, &found);
        if (rc == 0 && found) {
            result = found;
            break;
        }
        if (found) freeaddrinfo(found);
        if (!quiet)
            fprintf(stderr, "getaddrinfo failed for domain = |%s|, port = |%s|, error=%d/%s \n",
                    host, port, rc, gai_strerror(rc));
    }
}

// ------------------------------------------------------------------ Network

void Network::report(const char* message, bool quiet, bool verbose) {
    int err = errno;
    if (quiet && !verbose) rewind(stderr);  // newest report at the head of a daemon's log
    char when[32];
    getUniversalDate(0, when, sizeof when);
    std::string line = std::string(when) + "  Receiving:  " + (message ? message : "");
    errno = err;
    perror(line.c_str());
    fflush(stderr);
}

int Network::setSessionOptions(int fd) {
    struct linger lg;
    lg.l_onoff = 1;
    lg.l_linger = 0;
    int one = 1;
    int rc = setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
    // Without it a TLS handshake waits on delayed acknowledgements.
    if (setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one) != 0) rc = -1;
    return rc == 0 ? 0 : -1;
}

namespace {

// Connected socket to host:port under the caller's alarm slot, or -1.
int connectTo(const char* host, const char* port, int slot, bool verbose) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    if (fd < 0) {
        Network::report("Socket system call failed", false, verbose);
        return -1;
    }
    Network::setSessionOptions(fd);
    char* hosts[1] = {const_cast<char*>(host)};
    char* ports[1] = {const_cast<char*>(port)};
    AddrInfo ai;
    ai.init(1, hosts, ports, true, verbose, false);
    if (!ai.result) {
        close(fd);
        Network::report("Socket connect failed", false, verbose);
        return -1;
    }
    m_alarms->arm(slot, Limits::PLAIN_EXCHANGE_MS, fd);
    int rc = connect(fd, ai.result->ai_addr, ai.result->ai_addrlen);
    m_alarms->disarm(slot);
    bool closedByWatchdog = m_alarms->socketClosed(slot);
    if (rc != 0) {
        if (verbose) fprintf(stderr, "Connect Failed:  fd=%d, %s/%s\n", fd, host, port);
        if (!closedByWatchdog) close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

char* Network::GenTCP(const char* host, const char* port, const char* request, bool verbose) {
    if (!host || !port || !request) return nullptr;
    m_alarms->monitor();
    int slot = m_alarms->regThread(pthread_self());
    int fd = connectTo(host, port, slot, verbose);
    if (fd < 0) {
        m_alarms->unregThread(slot);
        return nullptr;
    }
    std::string answer;
    bool ok = true;
    m_alarms->arm(slot, Limits::PLAIN_EXCHANGE_MS, fd);
    size_t len = strlen(request), sent = 0;
    while (sent < len) {
        ssize_t n = send(fd, request + sent, len - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            if (verbose) fprintf(stderr, "Send Failed:  fd=%d, %s/%s\n", fd, host, port);
            Network::report("Socket send failed", false, verbose);
            ok = false;
            break;
        }
        sent += (size_t)n;
    }
    while (ok) {
        char buf[2048];
        ssize_t n = recv(fd, buf, 2047, 0);
        if (n == 0) break;
        if (n < 0) {
            char text[512];
            snprintf(text, sizeof text, "Socket receive failed to host %s:%s (%.100s)", host, port,
                     strerror(errno));
            Network::report(text, false, verbose);
            ok = false;
            break;
        }
        answer.append(buf, (size_t)n);
    }
    m_alarms->disarm(slot);
    if (!m_alarms->socketClosed(slot)) {
        ::shutdown(fd, SHUT_RDWR);
        close(fd);
    }
    m_alarms->unregThread(slot);
    if (!ok && answer.empty()) return nullptr;
    return strdup(answer.c_str());
}

char* Network::GenHTTP(const char* host, const char* port, const char* request, int& status,
                       bool verbose) {
    return GenHTTPX(false, host, port, request, status, verbose);
}

char* Network::GenHTTPX(bool https, const char* host, const char* port, const char* request,
                        int& status, bool verbose) {
    if (https) {
        printf("Not compiled with https/tls support\n");
        return nullptr;
    }
    char* answer = GenTCP(host, port, request, verbose);
    if (!answer || !*answer) {
        free(answer);
        answer = GenTCP(host, port, request, verbose);
    }
    status = 200;
    if (!answer) return nullptr;
    const char* blank = strchr(answer, ' ');
    if (blank) status = atoi(blank + 1);
    const char* body = nullptr;
    const char* lf = strstr(answer, "\n\n");
    const char* crlf = strstr(answer, "\r\n\r\n");
    if (lf && (!crlf || lf < crlf))
        body = lf + 2;
    else if (crlf)
        body = crlf + 4;
    if (status == 100 && body) {
        while (*body && isspace((unsigned char)*body)) ++body;
        const char* b2 = strchr(body, ' ');
        if (b2) status = atoi(b2 + 1);
        lf = strstr(body, "\n\n");
        crlf = strstr(body, "\r\n\r\n");
        if (lf && (!crlf || lf < crlf))
            body = lf + 2;
        else if (crlf)
            body = crlf + 4;
        else
            body = nullptr;
    }
    char* out = nullptr;
    if (body) {
        while (*body && isspace((unsigned char)*body)) ++body;
        if (*body) out = strdup(body);
    }
    free(answer);
    return out;
}

int Network::sendUMsg(const char* host, int port, const char* message) {
    if (!host || !message) return -1;
    char portText[16];
    snprintf(portText, sizeof portText, "%d", port);
    char* hosts[1] = {const_cast<char*>(host)};
    char* ports[1] = {portText};
    AddrInfo ai;
    ai.init(1, hosts, ports, false, false, false);
    if (!ai.result) {
        report("getaddrinfo call failed", false, false);
        return -1;
    }
    int fd = socket(ai.result->ai_family, ai.result->ai_socktype | SOCK_CLOEXEC,
                    ai.result->ai_protocol);
    if (fd < 0) {
        report("Socket system call failed", false, false);
        return -1;
    }
    ssize_t n = sendto(fd, message, strlen(message), 0, ai.result->ai_addr, ai.result->ai_addrlen);
    close(fd);
    if (n < 0) {
        report("Socket sendTo failed", false, false);
        return -1;
    }
    return 0;
}
