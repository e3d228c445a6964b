// Command-line parsing into the process-wide settings.
#pragma once

extern const char* const USAGE;

struct StartOptions {
    bool daemonize = false;
    char nameFile[128] = {0};
    // --status: print the box's status and end; --json: as one JSON object.
    bool status = false;
    bool json = false;
};

// Parses argv with the long options. Once the whole line is parsed it writes
// the certificate for -d and the server list files for -R, in their order
// on the line; with --status it writes nothing (-R is then ignored, so that
// the agent's own command line can be reused as it stands). Exits with
// status 1 for -?, for a path that does not fit its setting, for -R before
// -d and for a port outside 1..65535.
void parseOptions(int argc, char** argv, StartOptions& options);

// -N: processing mode, optionally "-<workers>"; onlineCpus is the machine's count.
void applyProcessingMode(const char* argument, int onlineCpus);

// PREFIX, PROCESS_DIR and PRE from the program's own path, when its file name
// holds "hubTalk"; a relative directory is made absolute. False when the
// path does not fit.
bool locateProgram(const char* argv0);
