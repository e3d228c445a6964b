// The main thread's loop: a heartbeat to the service each cycle, the reply
// handed to processResults, the server list refreshed and failed DICOM
// deliveries reported.
#pragma once
#include <cstddef>

// The heartbeat query never reaches this many bytes (at most 649 characters).
const size_t HEARTBEAT_QUERY_SIZE = 650;

// Builds the heartbeat query from the state files of dataDir and the
// process-wide settings (EmbedType, applications1, applications2) into query,
// which must hold HEARTBEAT_QUERY_SIZE bytes. A query that would be longer is
// cut, so its last fields ("&os=" first) are the ones lost. Returns query.
char* heartbeatQuery(const char* dataDir, const char* internalIp, char* query);

// One cycle: log rotation, ledger pruning, registration while it is
// pending, versions, internal address (written to "internalIp.txt"), query,
// server-list refresh, sleep, heartbeat and its reply, sleep, failure
// report, sleep. The sleeps go through pause
// (sleep(3) in production) with a third of sleepTime each. Does not return
// after a program self-update.
void loopCycle(const char* dataDir, unsigned (*pause)(unsigned));

// Cycles for ever with the settings' dataDir and sleepTime.
[[noreturn]] void loop_proc();
