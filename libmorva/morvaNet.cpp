#include "morvaNet.h"

#include <arpa/inet.h>
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
#include <sys/socket.h>
#include <unistd.h>

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

void AddrInfo::init(int count, char** hosts, char** ports, bool stream, bool /*verbose*/,
                    bool quiet) {
    if (result) {
        freeaddrinfo(result);
        result = nullptr;
    }
    int slot = m_alarms->regThread(pthread_self());
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
        m_alarms->arm(slot, 10000, -1);
        int rc = getaddrinfo(host, port, &hints, &found);
        m_alarms->disarm(slot);
        if (rc == 0 && found) {
            result = found;
            break;
        }
        if (found) freeaddrinfo(found);
        if (!quiet)
            fprintf(stderr, "getaddrinfo failed for domain = |%s|, port = |%s|, error=%d/%s \n",
                    host, port, rc, gai_strerror(rc));
    }
    m_alarms->unregThread(slot);
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
    int fd = socket(AF_INET, SOCK_STREAM, IPPROTO_TCP);
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
    m_alarms->arm(slot, 10000, fd);
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
    m_alarms->arm(slot, 10000, fd);
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
    int fd = socket(ai.result->ai_family, ai.result->ai_socktype, ai.result->ai_protocol);
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
