// One exchange with the cloud service: a command, a file upload, or a block
// of data pushed back by the service. Each exchange is one short-lived
// SendFile owned by the calling thread: one TCP connection to the first
// reachable server of the destination list, the clear start marker, TLS
// pinned to "sundel.crt" in the data directory, one command line, the reply.
// Uploads and pushed data then run a pre-shared-key TLS session on the same
// connection.
//
// Results of the command catalogue are text, never null: "" means the
// exchange failed. They live in the InternalCache ring (copy them before the
// next use of the ring), or in the caller's arena where a Memory* is taken
// and given. Every blocking network step runs under the thread's watchdog
// alarm.
#pragma once
#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include "boxSend.h"

// The default receiving host name; a destination spelled exactly like it is
// always reached on DEFAULT_HOST_PORT.
extern const char* const RECEIVER_HOST;
// Two server IPv4 addresses, line-feed separated: the last-resort server list.
extern const char* const BUILTIN_SERVERS;
extern const char* const DEFAULT_PORT;       // "443"
extern const char* const DEFAULT_HOST_PORT;  // "4443"

struct TlsSession;

class SendFile : public Box {
public:
    enum ClientReceiveType {
        Command = 0,       // one reply
        ReceiveText = 1,   // reply pushed as a block of text
        ReceiveDicom = 2,  // reply pushed as a file written into the data directory
    };

    // A command session for the data directory (no file, no header).
    SendFile(const char* dataDir, bool verbose, bool quiet);
    // An upload session: opens directory/fileName and builds the header
    // id[/sub]|name|size|fieldA[._UNP_]|fieldB|~~|1. id "NONE" means
    // "hostName.txt". Name markers ".dcm~", ".jpg~", ".mp4~" in markerName
    // (or remoteName) carry base64 field A and B and a sub-id after them.
    SendFile(const char* directory, const char* fileName, const char* remoteName,
             const char* markerName, const char* dataDir, const char* fieldA, const char* fieldB,
             const char* id, bool unprocessed);
    ~SendFile() override;

    // ---- destination list
    // Appends host with port, or with defaultHostPort when host is exactly
    // RECEIVER_HOST.
    void addDest(const char* host, const char* port, const char* defaultHostPort);
    // Rotates the list at a random point (file order kept, start random).
    void shuffleDests();
    // The same at a point other than the start: with two or more
    // destinations another one comes first (after a failed connect).
    void rotatePastFirst();
    // "port.txt" (default "443"), "hosts.txt" (refreshed from the service when
    // empty, then RECEIVER_HOST), rotated at a random start.
    void loadDests();

    // ---- transports
    // Opens and connects the socket unless one is open: resolution under a
    // 10 s alarm, up to three connects under 60 s alarms, rotating between
    // attempts. False when it failed (already reported and closed).
    bool connectSession();
    // sendCommandCert or sendCommandClear by useCertTransport. readAll false:
    // only the first read of the reply, and the connection stays open.
    // The reply (at most Limits::COMMAND_REPLY_MOST; longer is a failure)
    // without surrounding white space, handed over once: to mem, else to the
    // ring. "" on failure, with status 1.
    char* sendCommand(const char* command, int& status, bool readAll, Memory* mem = nullptr);
    std::string commandReply(const char* command, int& status, bool readAll);
    std::string sendCommandCert(const char* command, int& status, bool readAll);
    std::string sendCommandClear(const char* command, int& status, bool readAll);
    // Writes all of it, through partial sends and stray signals; false when
    // the socket failed or the watchdog ended the step.
    bool sendAll(const void* data, size_t length);
    // Sends the command, expects "OK|<size>", receives size bytes over the
    // key session. Returns the text (ReceiveText) or the path of the written
    // file "<dataDir>/CR.<pid>.<tid>.<name>" (ReceiveDicom); "error" on any
    // failure. id and displayName must be set first.
    char* sendClientReceive(const char* command, int& status, ClientReceiveType type,
                            Memory* mem = nullptr);
    // Uploads the session's file. False on success (also when the service
    // declines it with "NO"), true on failure.
    bool sendFile();

    bool shutdown(const char* message, bool report) override;
    // Closes the TLS session too (close notification, frees), then the above.
    bool shutdown(const char* message, TlsSession* tls, bool report);

    // ---- uploads
    // The regular file an upload request names: the whole text when that is
    // one, else the last blank-separated word of the trimmed text; "" when
    // neither is a regular file.
    static std::string namedFile(const char* text);
    // What one upload reached, and why it failed.
    struct Outcome {
        std::string server;   // numeric "address:port" of the service, "" when none answered
        std::string failure;  // the transport's report, "" on success
    };
    // 0 when delivered or declined, non-zero on failure; counts consecutive
    // failures in "FileFailedCount.txt" ("0" after a success).
    static int sendWFile(const char* path, const char* remoteName, const char* markerName,
                         const char* fieldA, const char* fieldB, const char* dataDir, bool quiet,
                         bool unprocessed, Outcome* outcome = nullptr);
    static int sendAFile(const char* path, const char* fieldA, const char* fieldB,
                         const char* dataDir, bool quiet, Outcome* outcome = nullptr);

    // ---- command catalogue. Id = trimmed "hostName.txt". Where a display
    // name is needed and it or the id is missing, nothing is sent and the
    // stated failure value is returned.
    static char* sendACommand(const char* command, int& status, const char* dataDir, bool verbose,
                              bool quiet, ClientReceiveType type, Memory* mem = nullptr);
    // prefix + "|" + rest, type Command.
    static char* sendACommand(const char* prefix, const char* rest, int& status,
                              const char* dataDir, bool verbose, bool quiet);

    // "init|<payload>"; payload defaults to "fqdn=<id>" (then needs the id).
    static char* sendInitCommand(const char* dataDir, int& status, const char* payload,
                                 bool verbose, bool quiet);
    static char* sendHeartbeatCommand(const char* dataDir, int& status, const char* payload,
                                      bool verbose, bool quiet);
    // "echo|a|b|<id>|1".
    static char* sendEcho(const char* dataDir, int& status, const char* a, const char* b,
                          bool verbose, bool quiet);
    // Reports the "ErrorFile.txt" count + extra; writes "0" back on success,
    // the count on failure. Returns the status (0 success).
    static int sendFailureCommand(const char* dataDir, bool verbose, bool quiet, int extra);
    // Pushed text; "error" when unconfigured, "" when the exchange failed.
    static char* getStudiesSince(const char* dataDir, const char* time, bool verbose, bool quiet,
                                 Memory* mem = nullptr);
    static char* getWorklistResponse(const char* dataDir, const char* keys, bool verbose,
                                     bool quiet, Memory* mem = nullptr);
    static char* getQueryRetrieveResponse(const char* dataDir, const char* a, const char* b,
                                          bool verbose, bool quiet, Memory* mem = nullptr);
    static char* getPreshare(const char* dataDir, int& status, const char* uid, bool verbose,
                             bool quiet, Memory* mem = nullptr);
    // Path of the received file; "error" when unconfigured, "" on failure.
    static char* getDicom(const char* dataDir, const char* uri, bool verbose, bool quiet);
    // Integer replies; -1 when unconfigured or the reply is empty.
    static int executeMove(const char* dataDir, const char* a, const char* b, const char* query,
                           bool verbose, bool quiet);
    static int getNumRetrieves(const char* dataDir, const char* destination, bool verbose,
                               bool quiet);
    // "0|NONE" (resp. "0|title|NONE") comes back as "".
    static char* sendQdicom(const char* dataDir, int& status, const char* destination, bool verbose,
                            bool quiet);
    static char* sendQdicom1(const char* dataDir, int& status, bool verbose, bool quiet);
    static char* sendCancelMove(const char* dataDir, const char* title, bool verbose, bool quiet);
    // "<id>|dDicom|id|<n>[-<text, 250 at most>]".
    static char* sendDdicom(const char* dataDir, int& status, int n, const char* text, bool verbose,
                            bool quiet);
    // The message is cut at 2048 characters; needs no display name.
    static char* sendLogMsg(const char* dataDir, int& status, const char* message, bool verbose,
                            bool quiet);
    // True only for the reply "yes".
    static bool isRepeat(const char* dataDir, int& status, const char* uid, bool verbose,
                         bool quiet);
    static char* getCropInfo(const char* dataDir, int& status, const char* a, const char* b,
                             bool verbose, bool quiet);
    // Refreshes "hosts.txt" from the service ("ips"/"ipsDNS"), falling back to
    // "receiver.txt", BUILTIN_SERVERS and RECEIVER_HOST. Status of the last
    // command sent (0 success).
    static int sendIpsCommand(const char* dataDir, bool verbose, bool quiet);
    // "API/<id>/<display name>/1|<request_type>|<json>"; one more attempt after
    // a server-list refresh; "error" when unconfigured or still empty.
    static char* sendAPICommand(const char* dataDir, const char* json, bool verbose, bool quiet,
                                Memory* mem = nullptr);

    // Destination list: two parallel arrays of hostCount entries.
    char** hosts = nullptr;
    char** ports = nullptr;
    int32_t hostCount = 0;
    uint32_t hostCapacity = 0;

    char* dataDir;
    FILE* file = nullptr;
    int64_t fileSize = 0;
    char* remoteName = nullptr;
    char* markerName = nullptr;
    char* fieldA = nullptr;
    char* fieldB = nullptr;
    bool fileOpened = false;

private:
    void appendDest(const char* host, const char* port);
    // Moves the first r destinations to the end.
    void rotateBy(int r);
    // The data session keyed with gtk(), handshake done under a 60 s alarm.
    // Null when the handshake failed: the key mismatch is then reported and
    // the session closed.
    std::unique_ptr<TlsSession> keySession();
};
