#include "listener.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

#include "apiRequests.h"
#include "exception.h"
#include "files.h"
#include "locks.h"
#include "mllp.h"
#include "morvaAlarms.h"
#include "settings.h"
#include "stateFiles.h"

pthread_mutex_t a_mutex = PTHREAD_MUTEX_INITIALIZER;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
// Instrumented frames are several times larger.
const size_t LISTENER_STACK = 4 * 65536;
#else
const size_t LISTENER_STACK = 65536;
#endif

namespace {

const int MAX_ACCEPT_FAILURES = 499;

bool startThread(void* (*entry)(void*), void* arg) {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, LISTENER_STACK);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    int rc = pthread_create(&thread, &attr, entry, arg);
    pthread_attr_destroy(&attr);
    return rc == 0;
}

}  // namespace

void blankZeros(char* bytes, ssize_t n) {
    for (ssize_t i = 0; i < n; i++)
        if (bytes[i] == '\0') bytes[i] = ' ';
}

// ------------------------------------------------------------- connection

ListenerConnection::ListenerConnection(int fd, int slot) : fd(fd), slot(slot) {
    timeval tv{LISTENER_SOCKET_TIMEOUT_S, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
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

ssize_t ListenerConnection::receive(char* buf, size_t size) {
    for (;;) {
        if (fd < 0) {
            errno = EBADF;
            return -1;
        }
        // The watchdog's signal may already have come and gone.
        if (expired()) {
            errno = ETIMEDOUT;
            return -1;
        }
        ssize_t n = recv(fd, buf, size, 0);
        if (n < 0 && errno == EINTR && !expired()) continue;
        return n;
    }
}

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
    // A deadline left behind would later interrupt accept.
    disarm();
    if (fd >= 0) {
        shutdown(fd, SHUT_RDWR);
        ::close(fd);
        fd = -1;
    }
}

// ---------------------------------------------------------------- threads

void* app_proc(void*) {
    int port = PORT;
    int threads = NumTcpThreads;
    bool remote = REMOTE;

    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        perror("Cannot make socket");
        exit(1);
    }
    fcntl(fd, F_SETFD, FD_CLOEXEC);
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
    if (listen(fd, threads) < 0) {
        perror("Could not listen");
        exit(1);
    }

    // Shared by the workers for the life of the process.
    int* shared = new int(fd);
    for (int i = 0; i < threads; i++) {
        if (!startThread(thread_proc, shared)) throwFatal("Could not create thread.");
        sched_yield();
    }
    return nullptr;
}

void* thread_proc(void* arg) {
    int listenFd = *static_cast<int*>(arg);
    int slot = m_alarms->regThread(pthread_self());
    // Alarms fire only once the monitor runs; start it if nobody has yet.
    m_alarms->monitor();
    int failures = 0;
    char buf[LISTENER_BUFFER + 1];

    for (;;) {
        Util::setMutexLock(&a_mutex);
        // Close-on-exec: a companion tool started meanwhile must not hold
        // the client's connection open.
        int fd = accept4(listenFd, nullptr, nullptr, SOCK_CLOEXEC);
        pthread_mutex_unlock(&a_mutex);
        if (fd < 0) {
            if (failures > MAX_ACCEPT_FAILURES) {
                perror("Thread received too many errors");
                m_alarms->unregThread(slot);
                return nullptr;
            }
            failures++;
            continue;
        }
        if (VERBOSE)
            printf("client connected to child thread %i with pid %i\n",
                   static_cast<int>(pthread_self()), static_cast<int>(getpid()));

        try {
            ListenerConnection conn(fd, slot);
            conn.arm(LISTENER_TIMEOUT_MS);
            ssize_t n = conn.receive(buf, LISTENER_BUFFER);
            int e = errno;
            conn.disarm();
            if (n < 0) {
                conn.close();
                errno = e;
                perror("Socket receive failed");
                continue;
            }
            if (n == 0) continue;  // the peer left; the destructor closes
            buf[n] = '\0';
            if (VERBOSE) printf("Server Received:  %s\n", buf);
            if (buf[0] == 0x0B)
                handleHl7Request(conn, buf, static_cast<int>(n));
            else
                handleApiRequest(conn, buf, static_cast<int>(n));
        } catch (const MorvaExceptionTop&) {
            // Already logged; this connection is lost, the worker serves on.
        } catch (const std::exception& e) {
            // One request must not end the process.
            char line[256];
            snprintf(line, sizeof line, "Listener request failed: %.200s", e.what());
            logLine(line);
        }
    }
}

bool startListener() {
    if (PORT == 0 || NumTcpThreads < 1) return false;
    char port[16];
    snprintf(port, sizeof port, "%d", PORT);
    writeTxt(dataDir, StateFile::API_PORT, port);
    return startThread(app_proc, nullptr);
}
