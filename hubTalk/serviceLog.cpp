#include "serviceLog.h"

#include "sendFile.h"
#include "settings.h"

void logToService(const std::string& message) {
    int status = 0;
    SendFile::sendLogMsg(dataDir, status, message.c_str(), VERBOSE, QUIET);
}
