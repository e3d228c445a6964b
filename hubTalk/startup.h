// Start-up of the agent: data directory, description, identity, supervision.
#pragma once
#include <cstddef>

struct StartOptions;

// Environment variable naming the data directory for the companion tools
// (the download tool finds the pinned "sundel.crt" there).
constexpr const char* DATA_DIR_ENV = "HUBTALK_DATA_DIR";

// Prints the message on standard error and ends the process with status 1.
[[noreturn]] __attribute__((format(printf, 1, 2))) void failStart(const char* format, ...);

// Writes the pinned certificate authority as "sundel.crt" when missing or empty.
void updateCert(const char* dir);

// Creates the data directory (mode 0775) and, once it exists, its
// certificate; settle waits a second before looking. False when it is missing.
bool makeDataDir(const char* dir, bool settle);

// Steps after option parsing up to and including the device identity and the
// supervising parent. Exits with status 1 (and a message on standard error)
// on any failure. A new or changed identity is marked for registration.
void prepareStart(const StartOptions& options);

// The box's internal IPv4 addresses: "127.0.0.1" when none, else the first
// non-loopback address, followed by up to three more joined by ",".
void get_intip(char* buf, size_t size);
