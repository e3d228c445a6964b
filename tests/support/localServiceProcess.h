// The bundled local service, run as a child process for one test or
// benchmark: its own configuration directory, a port of its own on
// 127.0.0.1, stopped with the object. Every setter writes the configuration
// directory, which the service reads afresh for each connection, so settings
// may change while it runs. Free of gtest, so the benchmarks use it as well.
#pragma once
#include <memory>
#include <string>
#include <vector>

#include "localService/faults.h"
#include "testUtil.h"

class LocalService {
public:
    // Fault modes; each is one file under "faults/" in the configuration.
    using Fault = ::Fault;

    // Starts the service and waits until it listens. Throws when it does not.
    LocalService();
    // Sends SIGTERM and waits for the service to end.
    ~LocalService();
    LocalService(const LocalService&) = delete;
    LocalService& operator=(const LocalService&) = delete;

    int port() const { return m_port; }
    const std::string& configDir() const { return m_config.path(); }

    // A box the service knows: the pre-shared key is built from both.
    void addBox(const std::string& boxId, const std::string& displayName);
    // The reply to a verb ("heartbeat", "qDicom", "API" or "API.<request type>").
    void setReply(const std::string& verb, const std::string& text);
    // A one-time reply, served before the standing one; queued replies of one
    // verb are served in the order queued.
    void queueReply(const std::string& verb, const std::string& text);
    // Text pushed for a client-receive verb (STUDIES, WORKLIST, QR, GetPreshare).
    void setPushText(const std::string& verb, const std::string& text);
    // A file pushed for "DICOM" commands whose uri ends in name.
    void setPushFile(const std::string& name, const std::string& sourcePath);
    void setFault(Fault fault, bool on = true);

    // The command lines received so far, in order, without the "|~~" end.
    std::vector<std::string> commands() const;
    // Waits until at least n commands were logged; true when they were.
    bool waitForCommands(size_t n, int timeoutMs = 10000) const;
    // Where an upload of that name is (or would be) stored, and its header line.
    std::string storedFile(const std::string& name) const;
    std::string storedHeader(const std::string& name) const;

    // Stops the service now; returns its exit status (0 on a clean stop).
    int stop();
    // One more service process on another loopback address, same port and
    // configuration, for agents that try several servers. Throws when it
    // does not start.
    void alsoListenOn(const std::string& address);

    // Prepares an agent data directory that talks to this service (pinned
    // development authority, hosts and port, identity and display name) and
    // makes the box known to the service.
    void prepareAgentDataDir(const std::string& dataDir, const std::string& boxId,
                             const std::string& displayName);


private:
    TempDir m_config;
    std::unique_ptr<ChildProcess> m_process;
    std::vector<std::unique_ptr<ChildProcess>> m_more;
    int m_port = 0;
    int m_queued = 0;
};
