// The device-identity part of one exchange with the service: who the box is,
// which file the exchange carries, and the connection it runs on.
#pragma once
#include <string>

#include "memory.h"

class Box {
public:
    // id is trimmed on the right; the file path is directory + "/" + fileName
    // (just the directory when fileName is empty). useCertTransport is set.
    Box(const char* directory, const char* fileName, const char* id);
    virtual ~Box();
    Box(const Box&) = delete;
    Box& operator=(const Box&) = delete;

    // Disarms the thread's alarm, closes the socket (unless the watchdog
    // already did), and with report writes the failure report
    // "<time>  Receiving:  <message>: <errno text>" and keeps it in
    // `failure`. Returns report.
    virtual bool shutdown(const char* message, bool report);

    // The pre-shared key of the data session: Util::encrypt of id + "_" +
    // display name (a display name beginning with "~" is deciphered first).
    // Built on demand, lives in the arena, never stored.
    char* gtk();
    // A display name as stored, deciphered when it begins with "~".
    static std::string plainName(const char* displayName);

    // Copies text into the arena (null stays null).
    char* keep(const char* text);
    // The socket is open and not yet closed by the watchdog.
    bool socketOpen() const;

    Memory arena;
    int alarmIndex = -1;  // slot in m_alarms, -1 when not registered
    int sock = -1;        // TCP socket, -1 when none
    bool quiet = false;
    bool verbose = false;
    char* id;
    char* displayName;
    char* header = nullptr;
    char* directory;
    char* filePath;
    bool removeFile = false;  // remove the file at destruction (once opened)
    bool useCertTransport = true;
    bool tripleKey = false;  // clear transport: encrypt3 instead of encrypt
    std::string reached;     // numeric "address:port" of the last connection made
    std::string failure;     // "<message>: <errno text>" of the last report
};
