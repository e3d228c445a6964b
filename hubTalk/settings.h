// Process-wide settings: written by start-up before any role thread runs and
// read-only afterwards (the processing flags and the description may later be
// changed by the reply processor).
#pragma once

enum EMR_type {
    EMR_NONE = 0,
    EMR_HL7FILE = 1,
    EMR_FORWARD = 2,
    EMR_CENTRICITY = 3,
    EMR_ALLSCRIPTS = 4,
    EMR_ECLINICAL = 5,
    EMR_SEVOCITY = 6,
    EMR_MEDENT = 7,
    EMR_OSTI = 8,
    EMR_MEDITOUCH = 9,
};

extern char dataDir[256];
extern char viewpointDir[256];
extern char HL7_dir[256];
extern char HL7_inputDir[256];
extern char HL7_cache[256];
extern char qDir[256];
extern char ShortCodeFile[256];
extern char TestCodeFile[256];
extern char ER_ip[32];
extern int ER_port;
extern char EmbedType[64];
extern char InterfaceName[64];
extern char applications1[800];
extern int EMR_INTF;
extern bool EMR_SR;
extern bool EMR_PDF;
extern bool anonExport, _anonExport;
extern bool pixelProcessing, _pixelProcessing;
extern bool pixelProcessingRetain, _pixelProcessingRetain;
extern int NUM_CPUS;
extern int NUM_WORKERS;
extern bool VERBOSE;
extern bool QUIET;
extern bool UPDATE;
extern bool REMOTE;
extern int PORT;
extern int NumTcpThreads;
extern int sleepTime;
extern char PREFIX[256];
extern char PROCESS_DIR[256];
extern const char* PRE;
// Ending of the companion programs' file names, and the path separator, of
// this platform.
constexpr const char* EXECUTABLE_SUFFIX = "";
constexpr const char* PATH_DELIMITER = "/";
extern const char* SUFFIX;
extern const char* delim;

// True when any of anonymisation, pixel processing or processing with the
// original pixels retained is on.
bool anyProcessingMode();

// Back to the defaults above (tests parse several command lines in one process).
void resetSettings();
