// Uploads out of the export directory under the promise the clinic relies
// on: a file leaves the directory only after the service confirmed it, and
// only when it did not change meanwhile.
//
// - A file is uploaded only when its size and modification time are still
//   those seen when it was looked at (a receiver still writing it is seen
//   again next pass), and deleted only when they are still the same after
//   the service confirmed it. A file that changed during its upload stays
//   and goes again (a duplicate, never a loss).
// - A file that was delivered but cannot be deleted (a read-only export
//   directory) is not sent again while it stays unchanged; one log line
//   says why it stays. This memory is bounded and ends with the process:
//   after a restart such a file goes once more.
#pragma once
#include <sys/types.h>

#include <ctime>
#include <string>

struct FileStamp {
    bool valid = false;
    bool regular = false;
    off_t size = 0;
    timespec mtime{};
};

// Of path itself (a link is not followed); valid false when it is gone.
FileStamp stampOf(const std::string& path);
bool sameStamp(const FileStamp& a, const FileStamp& b);

enum class UploadResult {
    REMOVED,      // delivered (or declined) and deleted
    CHANGED,      // delivered, but it changed meanwhile: it stays and goes again
    UNDELETABLE,  // delivered, but it would not go: it stays, not sent again
    FAILED,       // not delivered ("FileFailedCount.txt" counts it)
    SKIPPED,      // not sent: it changed since seen, or was delivered before
};

// Uploads path with the upload type ("Export", or "Export-Pre" for a
// preshare) unless it changed since `seen`. remote: the information text or
// the upload name; marker: the upload name. companion (may be empty): a file
// deleted together with it. sopUid (may be empty): for the delivery ledger.
UploadResult uploadExported(const std::string& path, const FileStamp& seen, const char* remote,
                            const char* marker, bool unprocessed, const std::string& companion,
                            const char* type = "Export", const std::string& sopUid = "");

// Deletes path when it is unchanged since `seen`; true when it is gone.
bool removeUnchanged(const std::string& path, const FileStamp& seen);

// A UID as it may stand in an upload name, a JSON string and a file name:
// its digits and dots.
std::string uidText(const char* uid);
// An upload name as the header line can carry it ("|" and line ends become "_").
std::string headerSafe(std::string name);
// True the first time a key is met in this run (bounded): what a file
// waiting for many passes makes the sender say is said once.
bool firstTime(const std::string& key);
