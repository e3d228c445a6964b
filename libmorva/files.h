// Files and state files. A state file holds one setting as its whole text;
// readers read it afresh each time, writers replace it atomically.
#pragma once
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <string>

#include "bounds.h"
#include "stateFiles.h"

class Memory;

// The shared empty text that readTxt returns for missing files: never free it.
extern char EMPTY_TEXT[1];

// Path rule: dir + "/" + name when name is non-empty, else dir alone.
// Returns a malloc'd path.
char* makePath(const char* dir, const char* name);

// Whole file, or its first `most` bytes, zero bytes turned into blanks;
// malloc'd, or EMPTY_TEXT.
char* readTxt(const char* dir, const char* name, size_t most = SIZE_MAX);
// readTxt as a string ("" for a missing file), nothing left to free.
std::string readText(const char* dir, const char* name, size_t most = SIZE_MAX);
// readTxt of at most `most` (and never more than Limits::RING_TEXT_MOST)
// bytes, copied into the InternalCache and trimmed (never null, never to be
// freed). A state file is read as far as its own limit.
char* readTrimmed(const char* dir, const char* name, size_t most = Limits::STATE_TEXT_MOST);
char* readTrimmed(const char* dir, const StateFileName& file);
// The whole positive number a state file holds; 0 when it is missing, empty
// or anything else ("12x", "0", "-3", "7.5"), so the caller's default holds.
long long positiveNumber(const char* dir, const StateFileName& file);
// Atomic replace: the content is written to a new temporary beside the file
// ("<path>.SV.<pid>.<tid>.<n>", never an existing file or link), brought to
// disk and renamed over the file. True only when the file was wholly
// replaced; otherwise the old file stays as it was and no temporary is left.
bool writeTxt(const char* dir, const char* name, const char* text);
bool writeData(const char* dir, const char* name, const void* bytes, size_t length);
// writeTxt without bringing the content to disk: for many files written in
// one pass whose caller makes them durable together (syncFileSystemOf)
// before it records them as done.
bool writeTxtUnsynced(const char* dir, const char* name, const char* text);
// Brings everything written on the file system holding dir to disk; false
// when dir cannot be opened or the sync failed.
bool syncFileSystemOf(const char* dir);
// writeData, and the directory entry is on disk too before it returns true.
bool writeDataSynced(const char* dir, const char* name, const void* bytes, size_t length);
// Stores the bytes as a new file that never replaces an existing one. It
// appears under its name only complete and on disk; until then it is a
// temporary whose name starts with "." beside it. Returns 0, EEXIST when the
// name is taken, or another errno value.
int createDataSynced(const char* dir, const char* name, const void* bytes, size_t length);
bool appendLogNoSync(const char* dir, const char* name, const void* bytes, size_t length);
int appendFile(const char* source, const char* destination);
// Appends line + "\n" under an exclusive file lock.
void writeLine(const char* line, const char* path);

// Rename; where that fails with the source still there (another file
// system), "mv -fT". 0, or non-zero with the destination as it was.
int mvFile(const char* source, const char* destination);
int mvFile(const char* sdir, const char* sname, const char* ddir, const char* dname);
// Copies a regular file through a temporary as writeData does, mode 0664.
// 0, or 1 with the destination as it was (also for a copy onto itself).
int cpFile(const char* source, const char* destination);
int cpFile(const char* sdir, const char* sname, const char* ddir, const char* dname);
int rmFile(const char* dir, const char* name);

bool fileExists(const char* dir, const char* name);
bool nonZeroFile(const char* dir, const char* name);
long long getFileSize(const char* dir, const char* name);
// The size of the file at path (links followed); -1 when there is none.
long long fileSizeOf(const char* path);
time_t getFileModTime(const char* dir, const char* name);
bool isLocked(const char* path);
int getFileCount(const char* dir);

// Quotes a text for the shell ('...' with embedded quotes escaped); malloc'd.
char* shellQuote(const char* text);
// The same as one shell word: nothing in it is expanded or run.
std::string shellArg(const std::string& text);
// Opens a regular file for reading, close-on-exec and without blocking on a
// FIFO: the descriptor, or -1 (errno EISDIR for a directory, ENODEV for any
// other kind that is not a regular file).
int openRegular(const char* path);
bool isRegularFile(const char* path);
// The path with every link, "." and ".." resolved; "" when it does not exist.
std::string resolvedPath(const std::string& path);

namespace Util {
// Sorted names (no "." and ".."), in the arena or the ring.
char** listDir(const char* dir, int* count, Memory* memory);
}
