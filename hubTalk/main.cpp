#include <cstdio>
#include <cstdlib>

#include "exception.h"
#include "mainLoop.h"
#include "options.h"
#include "registration.h"
#include "roles.h"
#include "settings.h"
#include "startup.h"
#include "status.h"
#include "supervisor.h"

int main(int argc, char** argv) {
    try {
        rememberCommandLine(argc, argv);
        if (!locateProgram(argv[0])) failStart("Program path too long\n%s", argv[0]);
        if (argc < 2) {
            fputs(USAGE, stderr);
            return 1;
        }
        StartOptions options;
        parseOptions(argc, argv, options);
        // Before anything that writes, connects or starts a thread.
        if (options.status) {
            if (!dataDir[0] || dataDir[0] == '-') failStart("No Data Dir\n%s", USAGE);
            return printStatus(dataDir, options.json, stdout);
        }
        prepareStart(options);
        if (registrationPending(dataDir)) registerBox(dataDir);
        startRoleThreads();
        loop_proc();
    } catch (const MorvaExceptionTop& e) {
        // Already logged when it was described.
        return 1;
    }
}
