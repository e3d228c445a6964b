#include "roles.h"

#include "files.h"
#include "listener.h"
#include "settings.h"

void startRoleThreads() {
    rmFile(dataDir, "APIport.txt");
    startListener();
    // The EMR loop, export sender, router and processing workers follow here,
    // in that order, as each role comes.
}
