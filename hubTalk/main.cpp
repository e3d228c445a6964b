#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "exception.h"
#include "options.h"
#include "roles.h"
#include "settings.h"
#include "startup.h"

int main(int argc, char** argv) {
    try {
        locateProgram(argv[0]);
        if (argc < 2) {
            fputs(USAGE, stderr);
            return 1;
        }
        StartOptions options;
        parseOptions(argc, argv, options);
        bool mustRegister = prepareStart(options);
        (void)mustRegister;  // registration with the service comes with the cloud link
        startRoleThreads();
        for (;;) pause();  // the main loop takes over this thread once it exists
    } catch (const MorvaExceptionTop& e) {
        // Already logged when it was described.
        return 1;
    }
}
