#include "mainLoop.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>

#include "files.h"
#include "ledger.h"
#include "logRotation.h"
#include "processResults.h"
#include "registration.h"
#include "selfUpdate.h"
#include "sendFile.h"
#include "settings.h"
#include "startup.h"
#include "status.h"
#include "text.h"
#include "stateFiles.h"

namespace {

// Sleeps the whole time even when a signal cuts the sleep short.
unsigned sleepFully(unsigned seconds) {
    struct timespec left = {static_cast<time_t>(seconds), 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
    return 0;
}

// The length of each of the three sleeps of one cycle of `period` seconds.
unsigned loopSleepSeconds(int period) {
    if (period < 3) period = 3;
    return static_cast<unsigned>(period / 3);
}

}  // namespace

char* heartbeatQuery(const char* dir, const char* internalIp, char* query) {
    query[0] = '\0';
    std::string hubTalkVer = versionOrZero(readTrimmed(dir, StateFile::PROGRAM_VERSION));
    std::string storescpVer = versionOrZero(readTrimmed(dir, StateFile::RECEIVER_VERSION));
    std::string dicomDicVer = versionOrZero(readTrimmed(dir, StateFile::DICTIONARY_VERSION));
    std::string fqdn = readTrimmed(dir, StateFile::HOST_NAME);
    std::string port = readTrimmed(dir, StateFile::SCP_PORT);
    std::string parent = readTrimmed(dir, "CLIENTVP6.txt");

    appendf(query, HEARTBEAT_QUERY_SIZE, "version=%.16s-%.16s-%.16s", hubTalkVer.c_str(), storescpVer.c_str(),
           dicomDicVer.c_str());
    appendf(query, HEARTBEAT_QUERY_SIZE, "&fqdn=%.64s", fqdn.c_str());
    appendf(query, HEARTBEAT_QUERY_SIZE, "&intip=%.64s", internalIp ? internalIp : "");
    appendf(query, HEARTBEAT_QUERY_SIZE, "&port=%.16s", port.c_str());
    if (!parent.empty()) appendf(query, HEARTBEAT_QUERY_SIZE, "&parent=%.32s", parent.c_str());
    appendf(query, HEARTBEAT_QUERY_SIZE, "&bcpid=%d", static_cast<int>(getpid()));
    if (EmbedType[0]) appendf(query, HEARTBEAT_QUERY_SIZE, "&embedded_type=%.*s", static_cast<int>(sizeof EmbedType), EmbedType);
    if (applications1[0]) appendf(query, HEARTBEAT_QUERY_SIZE, "&applications=%s", applications1);
    char description[sizeof applications2];
    copyDescription(description, sizeof description);
    if (description[0]) appendf(query, HEARTBEAT_QUERY_SIZE, "%s", description);
    appendf(query, HEARTBEAT_QUERY_SIZE, "&os=%s", "OS X");
    return query;
}

void loopCycle(const char* dir, unsigned (*pause)(unsigned)) {
    rotateLogsIfLarge(dir);
    ledgerPrune(dir, time(nullptr));
    if (registrationPending(dir)) registerBox(dir);
    char internalIp[256];
    get_intip(internalIp, sizeof internalIp);
    writeTxt(dir, StateFile::INTERNAL_IP, internalIp);

    char query[HEARTBEAT_QUERY_SIZE];
    heartbeatQuery(dir, internalIp, query);

    // Only a process whose error stream already goes to its file stays quiet.
    SendFile::sendIpsCommand(dir, VERBOSE, nonZeroFile(dir, StateFile::STDERR_LOG) ? QUIET : false);
    unsigned third = loopSleepSeconds(sleepTime);
    pause(third);

    int status = 0;
    const char* reply = SendFile::sendHeartbeatCommand(dir, status, query, VERBOSE, QUIET);
    recordHeartbeat(dir, reply && *reply);
    if (reply && *reply) {
        std::string copy(reply);  // the ring may wrap while the reply is processed
        processResults(dir, copy.c_str());
    }
    pause(third);

    std::string failures = readTrimmed(dir, StateFile::COMMAND_FAILURES);
    if (strtol(failures.c_str(), nullptr, 10) > 0) SendFile::sendFailureCommand(dir, VERBOSE, QUIET, 0);
    pause(third);
}

void loop_proc() {
    for (;;) loopCycle(dataDir, sleepFully);
}
