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

// One accepted client, served start to finish by one worker. The watchdog is
// handed a duplicate of the socket: when a deadline runs out it shuts the
// connection down through it and closes only the duplicate, so the worker's
// own descriptor is never closed under it (nor reused by another thread).
struct ListenerConnection {
    int fd = -1;
    int slot = -1;     // the worker's watchdog slot
    int guard = -1;    // the duplicate the watchdog may close
    bool cut = false;  // a deadline ran out: the connection is dead

    ListenerConnection(int fd, int slot);
    ~ListenerConnection();
    ListenerConnection(const ListenerConnection&) = delete;
    ListenerConnection& operator=(const ListenerConnection&) = delete;

    // Deadline for what follows, until disarm(); false when the connection is
    // already cut.
    bool arm(unsigned int ms);
    // Ends the deadline; true when it had run out (the connection is cut).
    bool disarm();
    // One recv; -1 once the connection is cut.
    ssize_t receive(char* buf, size_t size);
    // All bytes, under its own deadline; false when they could not be sent.
    bool send(const char* data, size_t length);
    bool send(const char* text);
    // Shuts down both ways and closes; harmless when already closed.
    void close();
};
