#include "companion.h"

#include <cstdio>
#include <cstdlib>

#include "bounds.h"
#include "files.h"
#include "process.h"
#include "stateFiles.h"

unsigned companionTimeout(const char* dataDir) {
    long seconds = atol(readTrimmed(dataDir, StateFile::TOOL_TIMEOUT));
    return seconds > 0 ? static_cast<unsigned>(seconds) : Limits::COMPANION_TIMEOUT_S;
}

int runCompanion(const char* dataDir, const std::string& command) {
    unsigned limit = companionTimeout(dataDir);
    int status = runBounded(command.c_str(), limit);
    if (status == RUN_TIMED_OUT)
        fprintf(stderr, "Companion tool stopped after %u s: %s\n", limit, command.c_str());
    else if (status == RUN_NOT_STARTED || status == RUN_KILLED)
        fprintf(stderr, "Companion tool did not run to its end: %s\n", command.c_str());
    return status == 0 ? 0 : (status > 0 ? status : 255);
}
