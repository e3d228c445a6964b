// Registration of a box whose identity is new or changed. A mark in the data
// directory, "registrationPending.txt", stays from the moment the identity is
// written until the service has answered "init": every start and every cycle
// of the main loop registers while it is there.
#pragma once

void markRegistrationPending(const char* dataDir);
bool registrationPending(const char* dataDir);

// Refreshes the server list, sends "init", records the installed versions on
// a first registration, and applies the reply. An answered "init" removes the
// mark.
void registerBox(const char* dataDir);
