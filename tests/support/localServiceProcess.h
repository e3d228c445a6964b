// The bundled local service as a child process on a port of its own on
// 127.0.0.1. Setters write its configuration directory, read afresh for each
// connection, so settings may change while it runs. Free of gtest (benchmarks).
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "localService/faults.h"
#include "testUtil.h"

class LocalService {
public:
    using Fault = ::Fault;

    LocalService();  // throws when the service does not listen
    ~LocalService() { stop(); }
    LocalService(const LocalService&) = delete;
    LocalService& operator=(const LocalService&) = delete;

    int port() const { return m_port; }
    // The HTTPS file endpoint, serving what setWebFile put there.
    int webPort() const { return m_webPort; }
    std::string webBase() const { return "https://127.0.0.1:" + std::to_string(m_webPort); }
    // The file served for "GET /<path>" (path a plain name).
    void setWebFile(const std::string& path, const std::string& sourcePath);
    void addBox(const std::string& boxId, const std::string& displayName);
    // The reply to a verb ("heartbeat", "qDicom", "API" or "API.<request type>").
    void setReply(const std::string& verb, const std::string& text);
    // A one-time reply, served in the order queued before the standing one.
    void queueReply(const std::string& verb, const std::string& text);
    // Text pushed for a client-receive verb (STUDIES, WORKLIST, QR, GetPreshare).
    void setPushText(const std::string& verb, const std::string& text);
    // A file pushed for "DICOM" commands whose uri ends in name.
    void setPushFile(const std::string& name, const std::string& sourcePath);
    void setFault(Fault fault, bool on = true);

    // The command lines received so far, in order, without the "|~~" end.
    std::vector<std::string> commands() const;
    size_t countStartingWith(const std::string& prefix) const;
    // Where an upload of that name is stored, and its header line.
    std::string storedFile(const std::string& name) const;
    std::string storedHeader(const std::string& name) const;

    void stop();
    // One more service process on another loopback address, same port and configuration.
    void alsoListenOn(const std::string& address);
    // An agent data directory that talks to this service, the box made known.
    void prepareAgentDataDir(const std::string& dataDir, const std::string& boxId,
                             const std::string& displayName);

private:
    void put(const std::string& relative, const std::string& content);
    TempDir m_config;
    std::unique_ptr<ChildProcess> m_process;
    std::vector<std::unique_ptr<ChildProcess>> m_more;
    int m_port = 0;
    int m_webPort = 0;
    int m_queued = 0;
};
