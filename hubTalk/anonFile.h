// The step a processing worker applies to each queued DICOM file before it
// may leave the box: anonymisation with the companion "scrubmill" (when
// anonExport is on), then lossless pixel processing with "imagemill" (when
// pixelProcessing or pixelProcessingRetain is on). Both rewrite the file in
// place; both run bounded (companion.h).
//
// Temporary names per worker n: the dump "ATTRS.<n>.txt" in dataDir and the
// input copy "<path>.T" beside the file. The ".T" copy is the only copy of
// the image while the anonymiser runs: a leftover one (the agent stopped
// meanwhile) is put back by recoverInputCopies, never forgotten. A tool that
// fails or runs out of time has its temporaries ("<name>.scrub.*",
// "<name>.im.*") removed, so no pass takes them for images.
//
// The crop answer from the service reaches the command line as one quoted
// shell word. An answer of "EMPTY" or "ERROR" in any case counts as none
// (the link answers "error" when the service could not be asked).
#pragma once

// What processAnonFile asks of the worker.
enum AnonResult {
    ANON_EXPORT = 0,   // pass the file at path on to the export directory
    ANON_DISCARD = 1,  // never export it: delete it
    ANON_RETRY = 2,    // left as it was (it could not be set aside): try again later
};

// path: the queued file; worker: 0 for the distributor; mtime: the time the
// age rule uses (0: the file's own); passedUnprocessed (may be null): set
// when the file passes on without its pixel processing.
int processAnonFile(const char* path, int worker, long mtime, bool* passedUnprocessed);

// Puts every "<name>.T" in dir back under <name> (over any output the
// anonymiser may have left), so that it is processed again. Returns how many.
int recoverInputCopies(const char* dir);
