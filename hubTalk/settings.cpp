#include "settings.h"

#include <cstring>
#include <initializer_list>

char dataDir[256];
char viewpointDir[256];
char HL7_dir[256];
char HL7_inputDir[256];
char HL7_cache[256];
char qDir[256];
char ShortCodeFile[256];
char TestCodeFile[256];
char ER_ip[32];
int ER_port = 104;
char EmbedType[64];
char InterfaceName[64];
char applications1[800];
int EMR_INTF = EMR_NONE;
bool EMR_SR = false;
bool EMR_PDF = false;
bool anonExport = false, _anonExport = false;
bool pixelProcessing = false, _pixelProcessing = false;
bool pixelProcessingRetain = false, _pixelProcessingRetain = false;
int NUM_CPUS = 1;
int NUM_WORKERS = 1;
bool VERBOSE = false;
bool QUIET = false;
bool UPDATE = false;
bool REMOTE = true;
int PORT = 0;
int NumTcpThreads = 3;
int sleepTime = 60;
char PREFIX[256];
char PROCESS_DIR[256];
const char* PRE = PREFIX + 255;  // an empty text until start-up finds the program's path

void resetSettings() {
    for (char* s : {dataDir, viewpointDir, HL7_dir, HL7_inputDir, HL7_cache, qDir, ShortCodeFile,
                    TestCodeFile, PREFIX, PROCESS_DIR})
        memset(s, 0, 256);
    memset(ER_ip, 0, sizeof ER_ip);
    memset(EmbedType, 0, sizeof EmbedType);
    memset(InterfaceName, 0, sizeof InterfaceName);
    memset(applications1, 0, sizeof applications1);
    ER_port = 104;
    EMR_INTF = EMR_NONE;
    EMR_SR = EMR_PDF = false;
    anonExport = _anonExport = pixelProcessing = _pixelProcessing = false;
    pixelProcessingRetain = _pixelProcessingRetain = false;
    NUM_CPUS = NUM_WORKERS = 1;
    VERBOSE = QUIET = UPDATE = false;
    REMOTE = true;
    PORT = 0;
    NumTcpThreads = 3;
    sleepTime = 60;
    PRE = PREFIX + 255;
}
