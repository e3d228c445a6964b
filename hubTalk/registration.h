// Registration of a box whose identity is new or changed.
#pragma once

// Refreshes the server list, sends "init", records the installed versions on
// a first registration, and applies the reply.
void registerBox(const char* dataDir);
