// Companion tools (anonymiser, pixel processor) run through the shell with a
// bound on their time. Nothing of the agent is inherited: every descriptor it
// opens is close-on-exec. Their arguments are quoted with shellArg (files.h).
#pragma once
#include <string>

// The seconds a companion may run: "toolTimeout.txt" in dataDir when it
// holds a positive number, else Limits::COMPANION_TIMEOUT_S.
unsigned companionTimeout(const char* dataDir);

// Runs the command line and returns its exit status; a tool that could not
// start, was killed or ran out of time gives a non-zero result and a line
// on standard error.
int runCompanion(const char* dataDir, const std::string& command);
