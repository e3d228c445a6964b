// The delivery ledger: one line per delivery (upload, routed item, EMR
// message) in "ledger/YYYY-MM-DD.tsv" of the data directory, by local date,
// so that a clinic can answer "did this study leave the box, and when" with
// grep. Columns, tab-separated: time (ISO 8601, local, with offset), kind,
// file or item, SOP instance UID ("-" when unknown), bytes ("-" when
// unknown), result ("ok" or the failure), duration in seconds, server.
// Tabs and line ends inside values become blanks; a line is cut at
// Limits::LEDGER_LINE_MOST.
#pragma once
#include <ctime>
#include <string>

struct LedgerEntry {
    const char* kind = "";  // "upload", "listener", "route", "emr"
    std::string item;
    std::string sopUid;
    long long bytes = -1;
    std::string result = "ok";
    double seconds = 0;
    std::string server;
};

// Appends one line with a single write (O_APPEND), so lines from several
// threads never interleave. Never fails the caller: when the ledger cannot
// be written, one log line on standard error says why, once, until it works
// again.
void ledgerRecord(const char* dataDir, const LedgerEntry& entry);

// Removes daily files older than "ledgerDays.txt" days (default
// Limits::LEDGER_KEEP_DAYS) counted back from now; only names of the
// ledger's own form are touched. Returns how many were removed.
int ledgerPrune(const char* dataDir, time_t now);
