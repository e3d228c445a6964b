#include "roles.h"

#include "files.h"
#include "settings.h"

void startRoleThreads() {
    rmFile(dataDir, "APIport.txt");
    // Listener, EMR loop, export sender, router and processing workers are
    // started here, in that order, as each role exists.
}
