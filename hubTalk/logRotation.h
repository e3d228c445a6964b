// The agent's own logs in the data directory when it runs quietly:
// "stdout.bc.txt" and "stderr.bc.txt", kept bounded by rotation to ".1",
// ".2", ... (the oldest beyond the kept count is removed).
#pragma once

// Points standard output and standard error at the two files, appending
// (an earlier run's lines are kept for diagnosis), close-on-exec.
// False when a file could not be opened; that stream stays where it was.
bool redirectLogs(const char* dataDir);

// Rotates each log that has grown beyond "logRotateBytes.txt" bytes
// (default Limits::LOG_ROTATE_BYTES), keeping "logKeep.txt" generations
// (default Limits::LOG_KEEP). Lines written by other threads during the
// rotation land in the old or the new file, never nowhere. Called from the
// main loop; a no-op when the logs were not redirected.
void rotateLogsIfLarge(const char* dataDir);
