// Start-up of the agent: data directory, description, identity, supervision.
#pragma once
#include <cstddef>

struct StartOptions;

// Writes the pinned certificate authority as "sundel.crt" when missing or empty.
void updateCert(const char* dir);

// Steps after option parsing up to and including the device identity.
// Exits with status 1 (and a message on standard error) on any failure.
// Returns true when the identity was written or changed, i.e. the box must
// register with the service.
bool prepareStart(const StartOptions& options);

// Without daemonize: chdir, ignore SIGHUP/SIGPIPE/SIGINT, return. With it, the
// caller becomes a supervising parent that restarts the worker whenever it
// ends and never returns; only the worker returns. A SIGTERM to the parent
// stops the worker and then the parent.
void daemonInit(const char* dir, bool daemonize);

// The box's internal IPv4 addresses: "127.0.0.1" when none, else the first
// non-loopback address, followed by up to three more joined by ",".
void get_intip(char* buf, size_t size);
