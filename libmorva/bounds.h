// Every size limit and time-out of the agent, in one place. Each module
// includes this and uses the names; nothing repeats a number.
#pragma once
#include <cstddef>
#include <cstdint>

namespace Limits {

// ---- cloud link
// One blocking step of a session: a send, a handshake, a whole reply.
constexpr unsigned int LINK_STEP_MS = 60000;
// Connect to one server; resolving one name.
constexpr unsigned int CONNECT_MS = 10000;
constexpr unsigned int RESOLVE_MS = 10000;
// Lookups left running after their deadline (a stalled resolver); beyond
// this many, further lookups fail at once instead of adding threads.
constexpr int LOOKUPS_IN_FLIGHT_MOST = 8;
constexpr size_t LOOKUP_STACK = 256 * 1024;
// Connect, request and whole answer of a plain TCP/HTTP helper exchange.
constexpr unsigned int PLAIN_EXCHANGE_MS = 10000;
// A data transfer gets LINK_STEP_MS plus one millisecond per this many bytes.
constexpr unsigned int TRANSFER_BYTES_PER_MS = 10;
constexpr unsigned int transferMs(unsigned long long bytes) {
    unsigned long long ms = LINK_STEP_MS + bytes / TRANSFER_BYTES_PER_MS;
    return ms > 0xFFFFFFFFull ? 0xFFFFFFFFu : static_cast<unsigned int>(ms);
}
// Bytes moved per read or write of an upload or a pushed file.
constexpr size_t TRANSFER_CHUNK = 1048576;
// A command's reply, read until the server closes; text pushed after a
// command, allocated at the size the server announces.
constexpr size_t COMMAND_REPLY_MOST = 1048576;
constexpr size_t PUSHED_TEXT_MOST = 16 * 1048576;
// The pinned certificate authority file.
constexpr long CA_FILE_MOST = 1048576;

// ---- local listener
// An HL7 frame or a sharing document; beyond this it is taken as it stands.
constexpr size_t LISTENER_FRAME_MOST = 16 * 1048576;
// Bytes asked for per receive; a JSON request other than a sharing document
// must come whole in its first one.
constexpr int LISTENER_BUFFER = 8192;
// For the first bytes of a connection, again for the rest of a sharing
// document or frame, and for sending each answer.
constexpr unsigned int LISTENER_TIMEOUT_MS = 60000;
// Send time-out of an answering socket: a backstop for a watchdog signal
// that came just before the call blocked, and was lost.
constexpr int LISTENER_SOCKET_TIMEOUT_S = 61;
// Connections being read at once; one more displaces the oldest.
constexpr int LISTENER_CONNECTIONS_MOST = 64;
// Bytes held for the connections being read, all together; beyond this the
// oldest connections are dropped.
constexpr size_t LISTENER_HELD_MOST = 64 * 1048576;
// Listen backlog at least.
constexpr int LISTENER_BACKLOG = 64;
// Workers for requests that wait on the service or an upload, and requests
// that may wait for one of them; beyond that a request is answered "error".
constexpr int LISTENER_RELAY_THREADS = 4;
constexpr int LISTENER_RELAYS_WAITING_MOST = 16;
// Requests read whole and waiting for an answering worker; beyond that a
// connection is dropped.
constexpr int LISTENER_ANSWERS_WAITING_MOST = 256;
// Accept failures in the listener's life before it stops accepting; a
// shortage of descriptors does not count.
constexpr int LISTENER_ACCEPT_FAILURES_MOST = 500;
// Accepting pauses this long when descriptors run short (EMFILE, ENFILE),
// so that the shortage can pass instead of being spun through.
constexpr unsigned int ACCEPT_SHORTAGE_PAUSE_MS = 100;
// Longest sleep of a waiting thread before it looks again.
constexpr unsigned int LISTENER_IDLE_MS = 1000;

// ---- locks: attempts this far apart, then a fatal exception
constexpr int LOCK_RETRIES = 1000;
constexpr unsigned int LOCK_PAUSE_US = 100;

// ---- supervision and updates
// A worker that ends sooner than this after its start is restarted only after
// a pause, doubling from 1 s up to RESTART_DELAY_MOST_S while it keeps dying.
constexpr int QUICK_EXIT_S = 10;
constexpr int RESTART_DELAY_MOST_S = 60;
// After SIGTERM the worker has this long before it is killed.
constexpr int STOP_GRACE_S = 10;
// A download still running after this is stopped and counts as failed.
constexpr unsigned int DOWNLOAD_TIMEOUT_S = 600;

// ---- companion tools
// A companion tool (anonymiser, pixel processor) still running after this is
// killed and counts as failed; "toolTimeout.txt" in the data directory
// (seconds) overrides it.
constexpr unsigned int COMPANION_TIMEOUT_S = 600;
// An attribute dump still running after this counts as failed.
constexpr unsigned int DUMP_TIMEOUT_S = 120;
// The most read of an attribute dump (it holds a few short attributes).
constexpr size_t DUMP_TEXT_MOST = 4194304;

// ---- router
// The DICOM sender's own time-outs: connection, association messages, and
// each message of a transfer.
constexpr unsigned int DICOM_CONNECT_TIMEOUT_S = 30;
constexpr unsigned int DICOM_ASSOCIATION_TIMEOUT_S = 30;
constexpr unsigned int DICOM_MESSAGE_TIMEOUT_S = 60;
// One delivery command as a whole (sender, template, converter); beyond it
// the command is stopped and the item counts as failed. "routeTimeout.txt"
// in the data directory (seconds) overrides it.
constexpr unsigned int ROUTE_DELIVERY_TIMEOUT_S = 900;
// The delivery command line, and an item's message to the service.
constexpr size_t ROUTE_COMMAND_MOST = 1024;
constexpr size_t ROUTE_MESSAGE_MOST = 256;
// The destination table read at most (10 000 lines of about 100 bytes).
constexpr size_t DESTINATION_TABLE_MOST = 1048576;
// An account name as part of a file name.
constexpr size_t ACCOUNT_NAME_MOST = 128;

// ---- files
constexpr size_t COPY_BUFFER = 1048576;
// The most read of a state file: any, an identity (host name, display name,
// account), a port, a server list.
constexpr size_t STATE_TEXT_MOST = 65536;
constexpr size_t IDENTITY_MOST = 256;
constexpr size_t PORT_MOST = 16;
constexpr size_t SERVER_LIST_MOST = 16384;

// ---- export directory
// Delivered files that could not be deleted, remembered so that they are
// not sent again every pass.
constexpr size_t DELIVERED_KEPT_MOST = 4096;
// Directories below the export directory that are walked; deeper ones are
// left with one log line.
constexpr int EXPORT_DEPTH_MOST = 64;
// Image files read to find the study of a report, per report and pass.
constexpr int REPORT_PAIRING_FILES_MOST = 200;
// Bytes read from the start of a DICOM file for its file-meta group, and the
// longest element taken there.
constexpr size_t META_HEAD_MOST = 16384;
constexpr uint32_t META_ELEMENT_MOST = 1024;
// Bytes read from the start of an image to find the keys of its exam.
constexpr size_t STUDY_KEYS_HEAD_MOST = 262144;
// Exams remembered for reports that arrive after their images left: bytes
// of the index before it is started afresh (the previous one is kept).
constexpr long STUDY_INDEX_BYTES_MOST = 1048576;
// A sharing request's text, and one value taken from a patient file.
constexpr size_t SHARING_TEXT_MOST = 16 * 1048576;
constexpr size_t PATIENT_VALUE_MOST = 256;
// A share's wait list is dropped this long after its files are gone.
constexpr int SHARE_LIST_GRACE_S = 60;

// ---- shared scratch ring
constexpr int RING_SIZE = 1048576;
// Longer texts are not put on the ring: they would wrap it over the texts
// other threads still use. They need the caller's arena.
constexpr size_t RING_TEXT_MOST = 65536;

// ---- download tool
// The answer's status line and header fields together.
constexpr size_t DOWNLOAD_HEAD_MOST = 16384;
// Bytes asked of the socket per read: several TLS records at once.
constexpr size_t DOWNLOAD_READ_AHEAD = 262144;
// Bytes gathered before each write of the downloaded file.
constexpr size_t DOWNLOAD_WRITE_PIECE = 1048576;

// ---- EMR outbound
// One SFTP transfer to the OSTI drop (log-in and all puts); beyond it the
// transfer is stopped and logged as failed. The drop's default port.
constexpr unsigned int OSTI_DROP_TIMEOUT_S = 120;
constexpr int OSTI_DROP_PORT = 7171;
// What an SFTP transfer printed, kept for its failure line.
constexpr size_t OSTI_OUTPUT_MOST = 1024;
// Files the EMR bridge wrote are pruned this long after their last change.
constexpr int EMR_FILE_RETENTION_DAYS = 30;
// A file name made from a value received from the network, at most.
constexpr size_t EMR_FILE_NAME_MOST = 200;

// ---- code tables
// A code-file line is read this far; the rest of a longer line is dropped.
constexpr size_t CODE_LINE_MOST = 4096;
// A table is loaded again once its last load is this old.
constexpr long CODE_RELOAD_AGE_S = 3601;

// ---- service log
// The service-log lines waiting for the background sender, in bytes; a
// caller finding it full waits this long for room before its line is
// dropped (and counted). A pass waits this long at most for its lines to
// be sent before it goes on.
constexpr size_t SERVICE_LOG_QUEUE_BYTES = 16 * 1048576;
constexpr unsigned int SERVICE_LOG_ROOM_WAIT_S = 30;
constexpr unsigned int SERVICE_LOG_DRAIN_S = 300;

// ---- EMR inbound
// An inbound HL7 file is read this far.
constexpr size_t HL7_INPUT_MOST = 16 * 1048576;
// A report PDF copied into the export directory, at most.
constexpr long long REPORT_PDF_MOST = 256LL * 1048576;

// ---- operations
// Days of delivery ledger kept ("ledgerDays.txt" overrides).
constexpr int LEDGER_KEEP_DAYS = 90;
// One ledger line at most; longer fields are cut.
constexpr size_t LEDGER_LINE_MOST = 4096;
// "stdout.bc.txt" and "stderr.bc.txt" are rotated beyond this size
// ("logRotateBytes.txt" overrides), keeping this many older generations
// ("logKeep.txt" overrides).
constexpr long long LOG_ROTATE_BYTES = 10LL * 1048576;
constexpr int LOG_KEEP = 5;
// A smaller "logRotateBytes.txt" is raised to this: a log rotated every
// few lines would push its history out of the kept generations at once.
constexpr long long LOG_ROTATE_BYTES_LEAST = 64 * 1024;
// The status check: the export backlog's oldest file may be this old, and
// this many heartbeats in a row may go unanswered, before it asks for
// attention.
constexpr long STATUS_BACKLOG_AGE_S = 3600;
constexpr int STATUS_UNANSWERED_HEARTBEATS = 3;

}  // namespace Limits
