// Companion programs run through the shell with a bound on their time.
#pragma once

// What runBounded returns besides an exit status (0..255).
const int RUN_NOT_STARTED = -1;
const int RUN_TIMED_OUT = -2;
const int RUN_KILLED = -3;  // ended by a signal of someone else's

// Runs "/bin/sh -c command" in a process group of its own and waits at most
// seconds for it. On time-out the whole group (the shell and everything it
// started) is killed. The child starts with the default SIGPIPE action and
// no blocked signals, whatever the calling thread has. Returns the exit
// status, or one of the values above.
int runBounded(const char* command, unsigned seconds);
