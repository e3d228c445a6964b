// Companion programs run through the shell with a bound on their time, and
// the bounded wait for a child process beneath it.
#pragma once
#include <spawn.h>
#include <sys/types.h>

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

// Spawn attributes (initialised here; the caller destroys them) for a child
// in a process group of its own, with the default SIGPIPE action and no
// blocked signals, whatever the calling thread has.
void initChildAttributes(posix_spawnattr_t* attr);

// Seconds on a clock that never jumps (for measuring, not for time stamps).
double monotonicSeconds();

enum class ChildWait { Ended, Running, Failed };
// Waits at most seconds for the child pid to end: Ended with its wait status
// in *status, Running when it still runs then, Failed when it is no child.
ChildWait waitChildFor(pid_t pid, double seconds, int* status);
