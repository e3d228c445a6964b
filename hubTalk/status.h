// "--status": the box at a glance, for its IT staff and for monitoring.
// Reads the data directory only and sends nothing.
#pragma once
#include <cstdio>

// Prints the status of the data directory as indented "name: value" text or
// as one JSON object with the same names. A missing state file reads as
// empty; one that cannot be read, is not a regular file, is cut at its read
// limit or holds no number where one belongs is named under "couldNotRead".
// Control bytes and broken UTF-8 from state files are replaced, never passed
// through. Returns 0 when healthy and 1 when something needs attention
// (export backlog older than Limits::STATUS_BACKLOG_AGE_S, failures
// counting, Limits::STATUS_UNANSWERED_HEARTBEATS heartbeats in a row
// unanswered, or a data directory that cannot be read).
int printStatus(const char* dataDir, bool json, FILE* out);

// Records one heartbeat in "lastHeartbeat.txt" with one atomic write: its
// time, whether the service answered, and the unanswered ones in a row (an
// answer sets it back to 0; a garbled record counts afresh).
void recordHeartbeat(const char* dataDir, bool answered);
