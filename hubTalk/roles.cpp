#include "roles.h"

#include <sys/stat.h>

#include <cstdint>
#include <cstdio>

#include "exception.h"
#include "emr/studyPoll.h"
#include "exportSender.h"
#include "files.h"
#include "listener.h"
#include "processing.h"
#include "router.h"
#include "settings.h"
#include "stateFiles.h"
#include "threads.h"

namespace {
// Each worker's number lives as long as its thread.
uint32_t workerNumbers[17];
}  // namespace

void startRoleThreads() {
    rmFile(dataDir, StateFile::API_PORT);
    startListener();
    if (EMR_INTF != EMR_NONE && EMR_INTF != EMR_FORWARD) {
        if (!startThread(emr_proc, nullptr, EMR_STACK)) throwFatal("Could not create thread.");
    }
    if (viewpointDir[0]) {
        writeTxt(dataDir, StateFile::VIEWPOINT_DIR, viewpointDir);
        if (!startThread(dir_proc, nullptr, EXPORT_SENDER_STACK)) throwFatal("Could not create thread.");
    }
    if (EMR_SR || EMR_PDF || EMR_INTF == EMR_FORWARD || (ER_ip[0] && !nonZeroFile(dataDir, StateFile::CLIENT_OF_BOX))) {
        if (!startThread(route_proc, nullptr, ROUTER_STACK)) throwFatal("Could not create thread.");
    }
    if (anyProcessingMode()) {
        // Worker 0 works in qDir; with two or more workers it only hands new
        // files on, to workers 1 .. NUM_WORKERS, each in a queue of its own.
        int last = NUM_WORKERS >= 2 ? NUM_WORKERS : 0;
        for (int n = 1; n <= last; ++n) {
            char queue[272];
            snprintf(queue, sizeof queue, "%s%d", qDir, n);
            mkdir(queue, 0775);
        }
        for (int n = 0; n <= last && n < 17; ++n) {
            workerNumbers[n] = static_cast<uint32_t>(n);
            if (!startThread(processing_proc, &workerNumbers[n], PROCESSING_STACK))
                throwFatal("Could not create thread.");
        }
    }
}
