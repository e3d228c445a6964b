// Start-up of the agent: data directory, description, identity, supervision.
#pragma once
#include <cstddef>

struct StartOptions;

// Writes the pinned certificate authority as "sundel.crt" when missing or empty.
void updateCert(const char* dir);

// Creates the data directory (mode 0775) and, once it exists, its
// certificate; settle waits a second before looking. False when it is missing.
bool makeDataDir(const char* dir, bool settle);

// Steps after option parsing up to and including the device identity.
// Exits with status 1 (and a message on standard error) on any failure.
// Returns true when the identity was written or changed, i.e. the box must
// register with the service.
bool prepareStart(const StartOptions& options);

// The box's internal IPv4 addresses: "127.0.0.1" when none, else the first
// non-loopback address, followed by up to three more joined by ",".
void get_intip(char* buf, size_t size);
