// Turns a reply of the service (registration, heartbeat, or relayed by the
// listener) into state: display name, account, processing flags, the
// processing description, and the periodic self-update.
#pragma once
#include <cstddef>

// Processing description reported by the next heartbeat.
extern char applications2[800];

// A consistent copy of applications2 (it may be rebuilt by another thread).
void copyDescription(char* out, size_t size);

// Returns 0; does not return after a successful update of the program itself
// (exit status 1, so that the supervising parent starts the new program).
int processResults(const char* dataDir, const char* reply);
