// The supervising parent of -z: the agent runs as its child process and is
// started again whenever it ends.
#pragma once

// Restart pauses and the stop grace are in bounds.h (supervision).

// Remembers how the program was started (before option parsing reorders
// argv), so that the parent can start a replaced program file the same way.
void rememberCommandLine(int argc, char** argv);

// Without daemonize: changes into dir, ignores SIGHUP, SIGPIPE and SIGINT and
// returns. With it the caller becomes the parent and never returns; only the
// worker child returns. The parent
// - restarts the worker at once after a normal run, after the pause above
//   after a quick death;
// - starts the program file anew in its own place, with the same arguments,
//   when that file was replaced (a self-update) while the worker ran;
// - stops, removing "SHUTDOWN.txt" from dir, when the worker ended with
//   status 0 and left that file (a shutdown request);
// - stops the worker and then itself on SIGTERM or SIGINT; ignores SIGHUP
//   and SIGPIPE.
void daemonInit(const char* dir, bool daemonize);
