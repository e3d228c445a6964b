// The local request listener. Each connection carries either one JSON
// request or one MLLP-framed HL7 message; the first byte tells which.
//
// It stays answerable while clients are slow and the service is silent:
// - One reception thread accepts every connection and reads all of them at
//   once with poll, each until its request has come whole (the first
//   receive for JSON, the end byte of an HL7 frame, a sharing document whose
//   brackets balance). A client that sends slowly or not at all costs a
//   descriptor and its bytes, never a thread. Each connection gets
//   LISTENER_TIMEOUT_MS for its first bytes and again for the rest; a silent
//   one is then closed ("Socket receive failed"), a cut one is answered as
//   it stands.
// - NumTcpThreads answering workers take the requests read whole and answer
//   at once whatever needs only this machine: "ping", "shutdown", text that
//   is not JSON, HL7 frames.
// - LISTENER_RELAY_THREADS relay workers serve the requests that wait on the
//   service or an upload ("DICOM send" and the request types passed to the
//   service), so a silent service holds only them. When they are all busy
//   and LISTENER_RELAYS_WAITING_MOST requests wait, a further one is
//   answered "error" at once.
// Bounds: LISTENER_CONNECTIONS_MOST connections being read (a new one
// displaces the oldest) holding LISTENER_HELD_MOST bytes in all; fixed thread
// counts; every wait is bounded. A shortage of descriptors pauses accepting
// for ACCEPT_SHORTAGE_PAUSE_MS and is not counted as a failure; after
// LISTENER_ACCEPT_FAILURES_MOST other failures the listener stops accepting,
// closes its socket and removes "APIport.txt".
#pragma once
#include <pthread.h>
#include <sys/types.h>

#include <cstddef>

// Every listener thread has LISTENER_STACK (threads.h).

// Thread entry, argument ignored. Opens the socket on PORT (all addresses when
// REMOTE, else 127.0.0.1 only), starts the reception thread and the workers
// and returns. Socket, bind and listen failures end the process with status
// 1; a thread that cannot be started raises "Could not create thread.".
void* app_proc(void* unused);

// Answering worker entry, argument ignored; serves requests for ever.
void* thread_proc(void* unused);

// Start-up's part: when PORT is non-zero and NumTcpThreads at least 1, writes
// the port to "APIport.txt" in the data directory and starts app_proc on a
// detached LISTENER_STACK thread. True when the thread was started.
bool startListener();

// Turns the zero bytes of received text into blanks, so that they do not cut
// it short (as in state files).
void blankZeros(char* bytes, ssize_t n);

// One accepted client while a worker answers it. A deadline only signals the
// worker (no socket is handed to the watchdog): the interrupted call fails,
// yet the connection stays open for the answer.
struct ListenerConnection {
    int fd = -1;
    int slot = -1;  // the worker's watchdog slot
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
    // All bytes, under a deadline of their own; false when they could not be sent.
    bool send(const char* data, size_t length);
    bool send(const char* text);
    // Disarms, shuts down both ways and closes; harmless when already closed.
    void close();
    // Hands the socket on, open, to whoever serves the request next.
    int release();
};
