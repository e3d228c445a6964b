// The state files of the data directory, by name.
#pragma once

namespace StateFile {
constexpr const char* HOST_NAME = "hostName.txt";        // the box's identity
constexpr const char* DISPLAY_NAME = "displayName.txt";
constexpr const char* ACCOUNT = "acct.txt";
constexpr const char* SERVERS = "hosts.txt";              // destination list
constexpr const char* RECEIVER = "receiver.txt";          // -r list, kept over refreshes
constexpr const char* PORT = "port.txt";                  // service port
constexpr const char* PINNED_CA = "sundel.crt";
constexpr const char* API_PORT = "APIport.txt";
constexpr const char* SCP_PORT = "scpPort.txt";
constexpr const char* INTERNAL_IP = "internalIp.txt";
constexpr const char* VIEWPOINT_DIR = "viewpointDir.txt";
constexpr const char* PROGRAM_VERSION = "hubTalkVer.txt";
constexpr const char* RECEIVER_VERSION = "storescpVer.txt";
constexpr const char* DICTIONARY_VERSION = "dicomDicVer.txt";
constexpr const char* SHUTDOWN = "SHUTDOWN.txt";
constexpr const char* REGISTRATION_PENDING = "registrationPending.txt";
constexpr const char* COMMAND_FAILURES = "ErrorFile.txt";
constexpr const char* UPLOAD_FAILURES = "FileFailedCount.txt";
constexpr const char* STDERR_LOG = "stderr.bc.txt";
constexpr const char* FILE_ONLY = "fileOnly.txt";
// Processing flags, set by the service's replies.
constexpr const char* NO_PROCESSING = "noProcessing.txt";
constexpr const char* OPTIMIZE_PIXEL = "optimizePixel.txt";
constexpr const char* RETAIN_PIXEL = "retainPixel.txt";
constexpr const char* STRICT_ANON = "strict_anon.txt";
constexpr const char* ANON = "ANON.txt";
constexpr const char* NON_STRICT = "NS.txt";
}  // namespace StateFile
