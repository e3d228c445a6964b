// The processing workers: worker 0 distributes new files from the queue
// directory qDir over the workers' own queues "<qDir><k>" (k = 1 ..
// NUM_WORKERS, created by start-up), each worker runs processAnonFile on its
// files oldest first and moves what passes into the export directory
// (with "._UNP_" appended when it passes without its pixel processing).
// With NUM_WORKERS 1, worker 0 processes qDir itself.
//
// Files are never lost on the way:
// - besides the settle sleep, a file is processed only when its size and
//   time did not change since it was listed and it was not modified within
//   the current second (a receiver still writing it is seen next pass);
// - a "<name>.T" left by the anonymiser (the agent stopped meanwhile) is put
//   back under its name before the pass;
// - a processed file that cannot be moved into the export directory (read-
//   only, disk full) stays in the worker's queue for the next pass, and an
//   export name already taken gets ".<n>" before any "._UNP_";
// - only a file the processing step discards is deleted; one that cannot be
//   deleted is fenced off for good by "<name>.BAD" ("move/rm failed");
// - a ".REF" file names a file elsewhere that is processed in place: only a
//   regular DICOM file is ever touched through it.
#pragma once
#include <cstdint>

// Appended to the name of a file passed on without its pixel processing.
constexpr const char* UNPROCESSED_MARK = "._UNP_";
// A file younger than this many seconds delays the pass that meets it by its
// age (the export sender keeps the same rule).
constexpr long SETTLE_S = 8;

struct WorkerContext {
    int64_t* timestamp;  // 0 at the start of a pass, then the time of each file done
    uint32_t worker;
};

// The worker that received the last distributed file (1 .. NUM_WORKERS).
extern int Random0;

// Thread body; arg points to the worker number. Never returns.
void* processing_proc(void* arg);
// One pass over the worker's queue directory.
void processing_loop_proc(WorkerContext* context);
// Byte-wise ascending order of two names (for qsort over char*).
int fileCmp(const void* a, const void* b);
// When the worker last finished a file (0 while a pass has done none yet).
int64_t processingTimestamp(uint32_t worker);
