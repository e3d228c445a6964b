// The agent's own logs in the data directory when it runs quietly:
// "stdout.bc.txt" and "stderr.bc.txt", kept bounded by rotation to ".1",
// ".2", ... (the oldest beyond the kept count is removed).
#pragma once

// Points standard output and standard error at the two files, appending
// (an earlier run's lines are kept for diagnosis). Descriptors 1 and 2 stay
// inherited by companion tools; nothing else is left open. Called again, it
// points them at the current files: the supervising parent does so before it
// writes, since the worker may have rotated the files it held.
// False when a file could not be opened; that stream stays where it was.
bool redirectLogs(const char* dataDir);

// Rotates each log that has grown beyond "logRotateBytes.txt" bytes
// (default Limits::LOG_ROTATE_BYTES, at least Limits::LOG_ROTATE_BYTES_LEAST),
// keeping "logKeep.txt" generations (default Limits::LOG_KEEP); a value that
// is not a whole positive number counts as missing. A log found missing is
// opened anew. Lines written by other threads during the rotation land in the
// old or the new file, never nowhere. Called from the main loop only (one
// caller at a time); a no-op when the logs were not redirected.
void rotateLogsIfLarge(const char* dataDir);
