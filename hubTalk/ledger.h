// The delivery ledger: one line per delivery (upload, routed item, EMR
// message) in "ledger/YYYY-MM-DD.tsv" of the data directory, by local date,
// so that a clinic can answer "did this study leave the box, and when" with
// grep. Columns, tab-separated: time (ISO 8601, local, offset "+hh:mm"),
// kind, file or item, SOP instance UID, bytes, result ("ok" or the failure),
// duration in seconds (3 decimals), server; "-" stands for an unknown (empty)
// value. Tabs and line ends inside values become blanks. A line, "\n"
// included, is at most Limits::LEDGER_LINE_MOST: the longest values are cut
// first, so every column stays.
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
// threads never interleave; the directory is made (0755) when missing.
// Never throws and never fails the caller: when the ledger cannot be
// written, one log line on standard error says why, once, and another when
// it works again.
void ledgerRecord(const char* dataDir, const LedgerEntry& entry);

// The daily file of records made at local time `local`, relative to the
// data directory: "ledger/YYYY-MM-DD.tsv".
std::string ledgerFileOf(const tm& local);

// Removes the daily files dated more than "ledgerDays.txt" days (a positive
// whole number; anything else means Limits::LEDGER_KEEP_DAYS) before the
// local date of now. Only regular files named "YYYY-MM-DD.tsv" with a real
// date are touched. Returns how many were removed. Also takes up a changed
// time zone (TZ or the system's zone file) for the records that follow:
// ledgerRecord itself does not re-read it.
int ledgerPrune(const char* dataDir, time_t now);
