#include "settings.h"

#include <cstring>

// Every setting with its default, listed once: both the definitions and
// resetSettings are generated from these lists, so the two cannot drift.
#define TEXT_SETTINGS(X)                   \
    X(dataDir, 256)                        \
    X(viewpointDir, 256)                   \
    X(HL7_dir, 256)                        \
    X(HL7_inputDir, 256)                   \
    X(HL7_cache, 256)                      \
    X(qDir, 256)                           \
    X(ShortCodeFile, 256)                  \
    X(TestCodeFile, 256)                   \
    X(ER_ip, 32)                           \
    X(EmbedType, 64)                       \
    X(InterfaceName, 64)                   \
    X(applications1, 800)                  \
    X(PREFIX, 256)                         \
    X(PROCESS_DIR, 256)

// PRE is an empty text until start-up finds the program's path.
#define VALUE_SETTINGS(X)                  \
    X(int, ER_port, 104)                   \
    X(int, EMR_INTF, EMR_NONE)             \
    X(bool, EMR_SR, false)                 \
    X(bool, EMR_PDF, false)                \
    X(bool, anonExport, false)             \
    X(bool, _anonExport, false)            \
    X(bool, pixelProcessing, false)        \
    X(bool, _pixelProcessing, false)       \
    X(bool, pixelProcessingRetain, false)  \
    X(bool, _pixelProcessingRetain, false) \
    X(int, NUM_CPUS, 1)                    \
    X(int, NUM_WORKERS, 1)                 \
    X(bool, VERBOSE, false)                \
    X(bool, QUIET, false)                  \
    X(bool, UPDATE, false)                 \
    X(bool, REMOTE, true)                  \
    X(int, PORT, 0)                        \
    X(int, NumTcpThreads, 3)               \
    X(int, sleepTime, 60)                  \
    X(const char*, PRE, PREFIX + 255)      \
    X(const char*, SUFFIX, EXECUTABLE_SUFFIX) \
    X(const char*, delim, PATH_DELIMITER)

#define DEFINE_TEXT(name, size) char name[size];
#define DEFINE_VALUE(type, name, value) type name = value;
TEXT_SETTINGS(DEFINE_TEXT)
VALUE_SETTINGS(DEFINE_VALUE)

void resetSettings() {
#define RESET_TEXT(name, size) memset(name, 0, sizeof name);
#define RESET_VALUE(type, name, value) name = value;
    TEXT_SETTINGS(RESET_TEXT)
    VALUE_SETTINGS(RESET_VALUE)
}

bool anyProcessingMode() { return anonExport || pixelProcessing || pixelProcessingRetain; }
