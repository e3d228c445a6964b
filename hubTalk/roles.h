// The role threads that start-up launches, in their fixed order; none is joined.
#pragma once

// Deletes "APIport.txt" and starts every role that the settings enable.
void startRoleThreads();
