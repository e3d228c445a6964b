// The local request listener: a fixed pool of worker threads accepting on one
// TCP socket. Each connection carries either one JSON request or one
// MLLP-framed HL7 message; the first byte tells which.
#pragma once
#include <pthread.h>
#include <sys/types.h>

#include <cstddef>

// Only one worker waits in accept at a time.
extern pthread_mutex_t a_mutex;

// Stack of the listener thread and of each worker.
extern const size_t LISTENER_STACK;
// Receive size; a JSON request other than a sharing document must fit in one.
const int LISTENER_BUFFER = 8192;
// Limit of each watchdog deadline on a connection.
const unsigned int LISTENER_TIMEOUT_MS = 60000;

// Thread entry, argument ignored. Opens the socket on PORT (all addresses when
// REMOTE, else 127.0.0.1 only), listens with a backlog of NumTcpThreads,
// starts NumTcpThreads workers and returns. Socket, bind and listen failures
// end the process with status 1.
void* app_proc(void* unused);

// Worker entry; the argument points to an int holding the listening socket.
// Serves connections for ever; returns only after its 501st accept failure.
void* thread_proc(void* listenSocket);

// Start-up's part: when PORT is non-zero and NumTcpThreads at least 1, writes
// the port to "APIport.txt" in the data directory and starts app_proc on a
// detached LISTENER_STACK thread. True when the thread was started.
bool startListener();

// Turns the zero bytes of received text into blanks, so that they do not cut
// it short (as in state files).
void blankZeros(char* bytes, ssize_t n);

// Receive and send time-out of a connected socket: a backstop for a
// watchdog signal that came just before the call blocked, and was lost.
const int LISTENER_SOCKET_TIMEOUT_S = 61;

// One accepted client, served start to finish by one worker. A deadline only
// signals the worker (no socket is handed to the watchdog): the interrupted
// call fails, yet the connection stays open for the answer.
struct ListenerConnection {
    int fd = -1;
    int slot = -1;       // the worker's watchdog slot
    bool armed = false;

    ListenerConnection(int fd, int slot);
    ~ListenerConnection();
    ListenerConnection(const ListenerConnection&) = delete;
    ListenerConnection& operator=(const ListenerConnection&) = delete;

    // Deadline for what follows, until disarm().
    void arm(unsigned int ms);
    void disarm();
    // True when the armed deadline has run out.
    bool expired();
    // One recv; -1 once the armed deadline has run out (a stray signal is
    // retried, the watchdog's is not).
    ssize_t receive(char* buf, size_t size);
    // All bytes, under a deadline of their own; false when they could not be sent.
    bool send(const char* data, size_t length);
    bool send(const char* text);
    // Disarms, shuts down both ways and closes; harmless when already closed.
    void close();
};
