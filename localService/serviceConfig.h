// The configuration directory that tests and the demo write while the service
// runs: one small file per setting, read afresh on every use.
//
//   boxes/<box id>        display name of a known box
//   replies/<verb>        standing reply to a verb
//   queue/<verb>/<item>   one-time replies, served in name order before the standing one
//   push/<verb>           text pushed for a client-receive verb
//   files/<name>          file pushed for a "DICOM" command whose uri ends in name
//   faults/<mode>         fault modes switched on (see faults.h)
//   web/<path>            files served over HTTPS by the file endpoint (--web-port)
//   store/<name>          uploaded files; headers/<name> their header lines
//   commands.log          every command received (see commandLog.h)
//   port, webPort         the ports listened on, written once listening
#pragma once
#include <unistd.h>

#include <mutex>
#include <string>
#include <vector>

class ServiceConfig {
public:
    explicit ServiceConfig(std::string dir);

    const std::string& dir() const { return m_dir; }
    std::string path(const std::string& relative) const { return m_dir + "/" + relative; }
    std::string storeDir() const { return path("store"); }
    std::string headersDir() const { return path("headers"); }

    // Empty when the box is unknown.
    std::string displayName(const std::string& boxId) const;
    // The first of the keys that has a queued item (taken away) or a standing
    // reply; false when none has.
    bool reply(const std::vector<std::string>& keys, std::string& text);
    // Queued items waiting for the key.
    int queued(const std::string& key) const;
    // The queued item for the verb (taken away), else push/<verb>; "" when none.
    std::string pushText(const std::string& verb);
    // Path of files/<name> when it exists and is not empty, else "".
    std::string pushFile(const std::string& name) const;
    bool flag(const std::string& relative) const;

    // Creates the directories the service writes into.
    bool prepare() const;

private:
    bool popQueued(const std::string& key, std::string& text);

    std::string m_dir;
    std::mutex m_queueLock;
};

// A name that stays inside one directory: not empty, not "." or "..", no "/"
// and no zero byte, at most 255 bytes.
bool isPlainName(const std::string& name);
// Whole file; false when it cannot be read.
bool readWhole(const std::string& path, std::string& content);
// Replaces the file through a temporary in the same directory.
bool writeWhole(const std::string& path, const std::string& content);

// Every writer into the configuration (the test harness too) puts a file in
// place through "<dir>/.<name>.<pid>": a name starting with "." is never an
// item, so a directory reader skips those (and "." and ".." with them).
inline std::string temporaryPath(const std::string& path) {
    size_t at = path.rfind('/') + 1;  // 0 when there is no "/"
    return path.substr(0, at) + "." + path.substr(at) + "." + std::to_string(getpid());
}
inline bool isTemporaryName(const std::string& name) { return name.empty() || name[0] == '.'; }
