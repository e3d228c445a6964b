#include "roles.h"

#include <sys/stat.h>

#include <cstdio>

#include "files.h"
#include "listener.h"
#include "settings.h"
#include "stateFiles.h"

void startRoleThreads() {
    rmFile(dataDir, StateFile::API_PORT);
    startListener();
    // The EMR loop comes here, as its role is built.
    if (viewpointDir[0]) writeTxt(dataDir, StateFile::VIEWPOINT_DIR, viewpointDir);
    // The export sender and the router come here.
    if (anyProcessingMode()) {
        // Worker 0 uses qDir itself; the others get queues of their own.
        for (int n = 1; n < NUM_WORKERS; ++n) {
            char queue[272];
            snprintf(queue, sizeof queue, "%s%d", qDir, n);
            mkdir(queue, 0775);
        }
        // The processing workers come here.
    }
}
