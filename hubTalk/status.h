// "--status": the box at a glance, for its IT staff and for monitoring.
// Reads the data directory only and sends nothing.
#pragma once
#include <cstdio>

// Prints the status of the data directory as text or as one JSON object.
// Returns 0 when healthy and 1 when something needs attention (export
// backlog older than Limits::STATUS_BACKLOG_AGE_S, failures counting,
// Limits::STATUS_UNANSWERED_HEARTBEATS heartbeats in a row unanswered, or a
// data directory that cannot be read).
int printStatus(const char* dataDir, bool json, FILE* out);

// Records one heartbeat in "lastHeartbeat.txt": its time, whether the
// service answered, and the unanswered ones in a row.
void recordHeartbeat(const char* dataDir, bool answered);
