// The state files of the data directory: each name, and the most of it that
// is ever read (a file grown beyond that is read only that far).
#pragma once
#include <cstddef>

#include "bounds.h"

struct StateFileName {
    const char* name;
    size_t most;
    constexpr operator const char*() const { return name; }
};

namespace StateFile {
// the box's identity
constexpr StateFileName HOST_NAME{"hostName.txt", Limits::IDENTITY_MOST};
constexpr StateFileName DISPLAY_NAME{"displayName.txt", Limits::IDENTITY_MOST};
constexpr StateFileName ACCOUNT{"acct.txt", Limits::IDENTITY_MOST};
// destination list
constexpr StateFileName SERVERS{"hosts.txt", Limits::SERVER_LIST_MOST};
// -r list, kept over refreshes
constexpr StateFileName RECEIVER{"receiver.txt", Limits::SERVER_LIST_MOST};
// service port
constexpr StateFileName PORT{"port.txt", Limits::PORT_MOST};
constexpr StateFileName PINNED_CA{"sundel.crt", Limits::STATE_TEXT_MOST};
constexpr StateFileName API_PORT{"APIport.txt", Limits::PORT_MOST};
constexpr StateFileName SCP_PORT{"scpPort.txt", Limits::PORT_MOST};
constexpr StateFileName INTERNAL_IP{"internalIp.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName VIEWPOINT_DIR{"viewpointDir.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName PROGRAM_VERSION{"hubTalkVer.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName RECEIVER_VERSION{"storescpVer.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName DICTIONARY_VERSION{"dicomDicVer.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName SHUTDOWN{"SHUTDOWN.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName REGISTRATION_PENDING{"registrationPending.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName COMMAND_FAILURES{"ErrorFile.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName UPLOAD_FAILURES{"FileFailedCount.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName STDERR_LOG{"stderr.bc.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName FILE_ONLY{"fileOnly.txt", Limits::STATE_TEXT_MOST};
// Names the export sender takes, by their ending; "*" in it means all.
constexpr StateFileName EXPORT_SUFFIX{"exportSuffix.txt", Limits::STATE_TEXT_MOST};
// Exams whose images were delivered ("patient\taccession\tstudy" lines),
// for reports that come after their images; and the previous generation.
constexpr StateFileName STUDY_INDEX{"reportStudies.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName STUDY_INDEX_OLD{"reportStudies.old.txt", Limits::STATE_TEXT_MOST};
// Processing flags, set by the service's replies.
constexpr StateFileName NO_PROCESSING{"noProcessing.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName OPTIMIZE_PIXEL{"optimizePixel.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName RETAIN_PIXEL{"retainPixel.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName STRICT_ANON{"strict_anon.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName ANON{"ANON.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName NON_STRICT{"NS.txt", Limits::STATE_TEXT_MOST};
// Base address of the download server (self-update, measurement
// definitions); the build's HUBTALK_DOWNLOAD_BASE when empty.
constexpr StateFileName DOWNLOAD_BASE{"downloadBase.txt", Limits::STATE_TEXT_MOST};
// The router: local destinations ("AE title|unused|host" lines), the
// operator's delivery command, the seconds a delivery may take (default
// Limits::ROUTE_DELIVERY_TIMEOUT_S); a box that is another box's client
// routes nothing of its own.
constexpr StateFileName DESTINATIONS{"dest.QR.txt", Limits::DESTINATION_TABLE_MOST};
constexpr StateFileName DELIVERY_COMMAND{"DICOM_COMMAND.txt", Limits::STATE_TEXT_MOST};
constexpr StateFileName ROUTE_TIMEOUT{"routeTimeout.txt", Limits::PORT_MOST};
constexpr StateFileName CLIENT_OF_BOX{"CLIENTVP6.txt", Limits::STATE_TEXT_MOST};
// Upload time of the newest study the EMR bridge handled ("%.3f").
constexpr StateFileName TIME_SINCE{"timeSince.txt", Limits::IDENTITY_MOST};
// Seconds a companion tool may run (default Limits::COMPANION_TIMEOUT_S).
constexpr StateFileName TOOL_TIMEOUT{"toolTimeout.txt", Limits::PORT_MOST};
// ---- EMR outbound
// The OSTI SFTP drop: host (default 127.0.0.1), account (empty: no drop),
// port (default Limits::OSTI_DROP_PORT), and the host key pinned at first use.
constexpr StateFileName OSTI_HOST{"ostiHost.txt", Limits::IDENTITY_MOST};
constexpr StateFileName OSTI_ACCOUNT{"ostiAccount.txt", Limits::IDENTITY_MOST};
constexpr StateFileName OSTI_PORT{"ostiPort.txt", Limits::PORT_MOST};
constexpr StateFileName OSTI_KNOWN_HOSTS{"osti_known_hosts", Limits::STATE_TEXT_MOST};
// ---- operations
constexpr StateFileName STDOUT_LOG{"stdout.bc.txt", Limits::STATE_TEXT_MOST};
// The last heartbeat: "<epoch seconds> <1 answered | 0 not> <unanswered in a row>".
constexpr StateFileName LAST_HEARTBEAT{"lastHeartbeat.txt", Limits::IDENTITY_MOST};
// The last self-update: "<epoch seconds> <what was updated> <result>".
constexpr StateFileName LAST_UPDATE{"lastUpdate.txt", Limits::IDENTITY_MOST};
// Days of delivery ledger kept (default Limits::LEDGER_KEEP_DAYS).
constexpr StateFileName LEDGER_DAYS{"ledgerDays.txt", Limits::PORT_MOST};
// Log rotation size in bytes and generations kept (defaults Limits::LOG_ROTATE_BYTES, Limits::LOG_KEEP).
constexpr StateFileName LOG_ROTATE_BYTES{"logRotateBytes.txt", Limits::PORT_MOST};
constexpr StateFileName LOG_KEEP{"logKeep.txt", Limits::PORT_MOST};
}  // namespace StateFile
