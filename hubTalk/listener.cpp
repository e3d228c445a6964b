#include "listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <exception>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "apiRequests.h"
#include "bounds.h"
#include "exception.h"
#include "files.h"
#include "jsn.h"
#include "mllp.h"
#include "morvaAlarms.h"
#include "process.h"
#include "settings.h"
#include "stateFiles.h"
#include "threads.h"

using namespace Limits;

namespace {

long long nowMs() { return static_cast<long long>(monotonicSeconds() * 1000); }

void closeConnection(int fd) {
    shutdown(fd, SHUT_RDWR);
    ::close(fd);
}

void dropped(const char* why) {
    if (QUIET) return;
    char line[128];
    snprintf(line, sizeof line, "Listener connection dropped: %s", why);
    logLine(line);
}

// A request read whole (or as far as its client got), on its way to a worker.
struct Request {
    int fd = -1;
    std::string text;  // zero bytes blanked
    bool hl7 = false;
    bool complete = false;  // HL7: the end byte came
};

// Hands requests from one thread to a pool. Full means refused, never a wait.
class RequestQueue {
public:
    explicit RequestQueue(size_t most) : m_most(most) {}

    bool put(Request&& r) {
        {
            std::lock_guard<std::mutex> hold(m_lock);
            if (m_waiting.size() >= m_most) return false;
            m_waiting.push_back(std::move(r));
        }
        m_ready.notify_one();
        return true;
    }

    // False when nothing came within ms.
    bool take(Request& r, unsigned int ms) {
        std::unique_lock<std::mutex> hold(m_lock);
        if (!m_ready.wait_for(hold, std::chrono::milliseconds(ms), [this] { return !m_waiting.empty(); }))
            return false;
        r = std::move(m_waiting.front());
        m_waiting.pop_front();
        return true;
    }

private:
    std::mutex m_lock;
    std::condition_variable m_ready;
    std::deque<Request> m_waiting;
    size_t m_most;
};

// Never destroyed: exit() must not wait on a condition that workers wait on.
RequestQueue& g_answers = *new RequestQueue(LISTENER_ANSWERS_WAITING_MOST);
RequestQueue& g_relays = *new RequestQueue(LISTENER_RELAYS_WAITING_MOST);

// Serves one request on the calling worker; relayed ones are passed on.
void serve(Request& r, int slot) {
    try {
        ListenerConnection conn(r.fd, slot);
        char* text = &r.text[0];
        int n = static_cast<int>(r.text.size());
        if (r.hl7) {
            handleHl7Request(conn, text, n, r.complete);
        } else if (!answerApiRequest(conn, text, n)) {
            r.fd = conn.release();
            if (g_relays.put(std::move(r))) return;
            ListenerConnection busy(r.fd, slot);
            busy.send("error");
            dropped("every relay busy");
        }
    } catch (const MorvaExceptionTop&) {
        // Already logged; this connection is lost, the worker serves on.
    } catch (const std::exception& e) {
        // One request must not end the process.
        char line[256];
        snprintf(line, sizeof line, "Listener request failed: %.200s", e.what());
        logLine(line);
    }
}

void* relay_proc(void*) {
    int slot = m_alarms->regThread(pthread_self());
    m_alarms->monitor();
    for (;;) {
        Request r;
        if (!g_relays.take(r, LISTENER_IDLE_MS)) continue;
        try {
            ListenerConnection conn(r.fd, slot);
            relayApiRequest(conn, &r.text[0], static_cast<int>(r.text.size()));
        } catch (const MorvaExceptionTop&) {
        } catch (const std::exception& e) {
            char line[256];
            snprintf(line, sizeof line, "Listener relay failed: %.200s", e.what());
            logLine(line);
        }
    }
}

// ---------------------------------------------------------------- reception

// A connection whose request is still coming.
struct Reading {
    Request request;
    long long deadline = 0;
    bool started = false;  // its first bytes came
    JsnBalance balance;    // a sharing document so far
};

class Reception {
public:
    explicit Reception(int listenFd) : m_listenFd(listenFd) {}

    void run() {
        for (;;) {
            long long now = nowMs();
            expire(now);
            if (m_listenFd < 0 && m_readings.empty()) return;

            std::vector<pollfd> fds;
            bool accepting = m_listenFd >= 0 && now >= m_acceptAgainAt;
            if (accepting) fds.push_back({m_listenFd, POLLIN, 0});
            for (const Reading& r : m_readings) fds.push_back({r.request.fd, POLLIN, 0});
            long long wake = now + LISTENER_IDLE_MS;
            if (m_listenFd >= 0 && !accepting) wake = std::min(wake, m_acceptAgainAt);
            for (const Reading& r : m_readings) wake = std::min(wake, r.deadline);
            int rc = poll(fds.data(), fds.size(), static_cast<int>(std::max(0LL, wake - now)));
            if (rc <= 0) continue;

            // Read before accepting: the readings' order matches fds.
            size_t first = accepting ? 1 : 0;
            std::vector<int> ready;
            for (size_t i = first; i < fds.size(); i++)
                if (fds[i].revents) ready.push_back(fds[i].fd);
            for (int fd : ready) readFrom(fd);
            if (accepting && fds[0].revents) acceptAll();
        }
    }

private:
    void acceptAll() {
        for (int i = 0; i < LISTENER_CONNECTIONS_MOST; i++) {
            int fd = accept4(m_listenFd, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
            if (fd >= 0) {
                admit(fd);
                continue;
            }
            int e = errno;
            if (e == EAGAIN || e == EWOULDBLOCK) return;
            // A client that went away or was refused: not the socket's fault.
            if (e == EINTR || e == ECONNABORTED || e == EPROTO || e == EPERM) continue;
            if (e == EMFILE || e == ENFILE || e == ENOBUFS || e == ENOMEM) {
                // Other connections are still served meanwhile.
                m_acceptAgainAt = nowMs() + ACCEPT_SHORTAGE_PAUSE_MS;
                return;
            }
            if (++m_failures < LISTENER_ACCEPT_FAILURES_MOST) continue;
            perror("Thread received too many errors");
            // Nobody is told of a port that no longer answers.
            rmFile(dataDir, StateFile::API_PORT);
            ::close(m_listenFd);
            m_listenFd = -1;
            return;
        }
    }

    void admit(int fd) {
        if (VERBOSE)
            printf("client connected to child thread %i with pid %i\n", static_cast<int>(pthread_self()),
                   static_cast<int>(getpid()));
        if (m_readings.size() >= static_cast<size_t>(LISTENER_CONNECTIONS_MOST)) {
            drop(0);
            dropped("too many at once");
        }
        Reading r;
        r.request.fd = fd;
        r.deadline = nowMs() + LISTENER_TIMEOUT_MS;
        m_readings.push_back(std::move(r));
    }

    size_t indexOf(int fd) const {
        for (size_t i = 0; i < m_readings.size(); i++)
            if (m_readings[i].request.fd == fd) return i;
        return m_readings.size();
    }

    void drop(size_t i) {
        closeConnection(m_readings[i].request.fd);
        m_held -= m_readings[i].request.text.size();
        m_readings.erase(m_readings.begin() + static_cast<long>(i));
    }

    // Passes the request on as it stands.
    void finish(size_t i) {
        Request r = std::move(m_readings[i].request);
        m_held -= r.text.size();
        m_readings.erase(m_readings.begin() + static_cast<long>(i));
        // Workers send blocking, under the watchdog.
        fcntl(r.fd, F_SETFL, fcntl(r.fd, F_GETFL) & ~O_NONBLOCK);
        int fd = r.fd;
        if (!g_answers.put(std::move(r))) {
            closeConnection(fd);
            dropped("every worker busy");
        }
    }

    void expire(long long now) {
        for (size_t i = 0; i < m_readings.size();) {
            if (m_readings[i].deadline > now) {
                i++;
            } else if (m_readings[i].started) {
                finish(i);
            } else {
                errno = ETIMEDOUT;
                perror("Socket receive failed");
                drop(i);
            }
        }
    }

    void readFrom(int fd) {
        size_t i = indexOf(fd);
        if (i == m_readings.size()) return;
        Reading& r = m_readings[i];
        ssize_t n = recv(fd, m_buf, LISTENER_BUFFER, 0);
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
        if (n <= 0) {
            if (r.started) {
                finish(i);
                return;
            }
            if (n < 0) perror("Socket receive failed");
            drop(i);
            return;
        }
        blankZeros(m_buf, n);
        r.request.text.append(m_buf, static_cast<size_t>(n));
        m_held += static_cast<size_t>(n);
        bool endByte = memchr(m_buf, MLLP_END, static_cast<size_t>(n)) != nullptr;
        if (!r.started) {
            r.started = true;
            m_buf[n] = '\0';
            if (VERBOSE) printf("Server Received:  %s\n", m_buf);
            r.request.hl7 = m_buf[0] == MLLP_START;
            r.deadline = nowMs() + LISTENER_TIMEOUT_MS;
            // Only a sharing document may come in more than one receive.
            if (!r.request.hl7 && !strstr(m_buf, "\"sharing\"")) {
                finish(i);
                return;
            }
        }
        if (r.request.hl7) {
            r.request.complete = endByte;
        } else {
            r.balance.add(m_buf, static_cast<size_t>(n));
        }
        bool whole = r.request.hl7 ? endByte : r.balance.mayParse() || r.balance.hopeless();
        if (whole || r.request.text.size() >= LISTENER_FRAME_MOST) {
            finish(i);
            return;
        }
        // The oldest give way, this one last.
        while (m_held > LISTENER_HELD_MOST && m_readings.size() > 1) {
            drop(0);
            dropped("too many bytes held");
        }
    }

    int m_listenFd;
    std::vector<Reading> m_readings;  // in the order accepted
    size_t m_held = 0;
    int m_failures = 0;
    long long m_acceptAgainAt = 0;
    char m_buf[LISTENER_BUFFER + 1];
};

void* reception_proc(void* listenSocket) {
    int fd = *static_cast<int*>(listenSocket);
    delete static_cast<int*>(listenSocket);
    auto reception = std::make_unique<Reception>(fd);
    reception->run();
    return nullptr;
}

}  // namespace

void blankZeros(char* bytes, ssize_t n) {
    for (ssize_t i = 0; i < n; i++)
        if (bytes[i] == '\0') bytes[i] = ' ';
}

// ------------------------------------------------------------- connection

ListenerConnection::ListenerConnection(int fd, int slot) : fd(fd), slot(slot) {
    timeval tv{LISTENER_SOCKET_TIMEOUT_S, 0};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
}

ListenerConnection::~ListenerConnection() { close(); }

void ListenerConnection::arm(unsigned int ms) {
    m_alarms->arm(slot, ms, -1);
    armed = true;
}

void ListenerConnection::disarm() {
    if (!armed) return;
    m_alarms->disarm(slot);
    armed = false;
}

bool ListenerConnection::expired() { return armed && m_alarms->fired(slot); }

bool ListenerConnection::send(const char* data, size_t length) {
    if (fd < 0) return false;
    arm(LISTENER_TIMEOUT_MS);
    size_t done = 0;
    while (done < length && !expired()) {
        ssize_t n = ::send(fd, data + done, length - done, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;  // expired() tells whose signal it was
        if (n <= 0) break;
        done += static_cast<size_t>(n);
    }
    disarm();
    return done == length;
}

bool ListenerConnection::send(const char* text) { return send(text, strlen(text)); }

void ListenerConnection::close() {
    // A deadline left behind would later interrupt the worker's next wait.
    disarm();
    if (fd >= 0) {
        closeConnection(fd);
        fd = -1;
    }
}

int ListenerConnection::release() {
    disarm();
    int out = fd;
    fd = -1;
    return out;
}

// ---------------------------------------------------------------- threads

void* app_proc(void*) {
    int port = PORT;
    int threads = NumTcpThreads;
    bool remote = REMOTE;

    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        perror("Cannot make socket");
        exit(1);
    }
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);

    struct sockaddr_in addr;
    memset(&addr, 0, sizeof addr);
    addr.sin_family = AF_INET;
    addr.sin_port = htons(static_cast<uint16_t>(port));
    addr.sin_addr.s_addr = remote ? htonl(INADDR_ANY) : inet_addr("127.0.0.1");
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof addr) < 0) {
        perror("Could not bind to TCP port - must be another server still running");
        exit(1);
    }
    if (listen(fd, std::max(threads, LISTENER_BACKLOG)) < 0) {
        perror("Could not listen");
        exit(1);
    }

    for (int i = 0; i < threads; i++) {
        if (!startThread(thread_proc, nullptr, LISTENER_STACK)) throwFatal("Could not create thread.");
        sched_yield();
    }
    for (int i = 0; i < LISTENER_RELAY_THREADS; i++)
        if (!startThread(relay_proc, nullptr, LISTENER_STACK)) throwFatal("Could not create thread.");
    if (!startThread(reception_proc, new int(fd), LISTENER_STACK)) throwFatal("Could not create thread.");
    return nullptr;
}

void* thread_proc(void*) {
    int slot = m_alarms->regThread(pthread_self());
    // Alarms fire only once the monitor runs; start it if nobody has yet.
    m_alarms->monitor();
    for (;;) {
        Request r;
        if (g_answers.take(r, LISTENER_IDLE_MS)) serve(r, slot);
    }
}

bool startListener() {
    if (PORT == 0 || NumTcpThreads < 1) return false;
    char port[16];
    snprintf(port, sizeof port, "%d", PORT);
    writeTxt(dataDir, StateFile::API_PORT, port);
    return startThread(app_proc, nullptr, LISTENER_STACK);
}
