#include "localServiceProcess.h"

#include <signal.h>
#include <sys/stat.h>

#include <cstdio>
#include <sstream>
#include <stdexcept>

#include "localService/serviceConfig.h"

#ifndef LOCAL_SERVICE_BIN
#define LOCAL_SERVICE_BIN ""
#endif

namespace {

void makeDir(const std::string& path) { mkdir(path.c_str(), 0775); }

// Writes through a temporary so that the service never reads half a file.
void spitAtomic(const std::string& path, const std::string& content) {
    std::string tmp = temporaryPath(path);
    spit(tmp, content);
    if (rename(tmp.c_str(), path.c_str()) != 0)
        throw std::runtime_error("cannot write " + path);
}

std::string unescape(const std::string& line) {
    std::string out;
    for (size_t i = 0; i < line.size(); ++i) {
        if (line[i] == '\\' && i + 1 < line.size()) {
            char c = line[++i];
            out += c == 'n' ? '\n' : c == 'r' ? '\r' : c;
        } else {
            out += line[i];
        }
    }
    return out;
}

}  // namespace

LocalService::LocalService() {
    if (!*LOCAL_SERVICE_BIN) throw std::runtime_error("local service not built");
    for (const char* d : {"boxes", "replies", "queue", "push", "files", "faults"})
        makeDir(m_config.file(d));
    m_process = std::make_unique<ChildProcess>(
        std::vector<std::string>{LOCAL_SERVICE_BIN, "--config", m_config.path(), "--port", "0"},
        "", m_config.file("stdout.txt"), m_config.file("stderr.txt"));
    std::string portFile = m_config.file("port");
    if (!waitUntil([&] { return !slurp(portFile).empty() || m_process->wait(0) >= 0; }, 20000) ||
        slurp(portFile).empty())
        throw std::runtime_error("local service did not start: " + slurp(m_config.file("stderr.txt")));
    m_port = std::stoi(slurp(portFile));
}

LocalService::~LocalService() { stop(); }

int LocalService::stop() {
    m_more.clear();
    if (!m_process) return -1;
    return m_process->stop(SIGTERM, 15000);
}

void LocalService::alsoListenOn(const std::string& address) {
    std::string err = m_config.file("stderr." + address + ".txt");
    m_more.push_back(std::make_unique<ChildProcess>(
        std::vector<std::string>{LOCAL_SERVICE_BIN, "--config", m_config.path(), "--address", address,
                                 "--port", std::to_string(m_port)},
        "", m_config.file("stdout." + address + ".txt"), err));
    if (!waitUntil([&] { return slurp(err).find("listening") != std::string::npos; }, 20000))
        throw std::runtime_error("local service did not start on " + address + ": " + slurp(err));
}

void LocalService::addBox(const std::string& boxId, const std::string& displayName) {
    spitAtomic(m_config.file("boxes/" + boxId), displayName);
}

void LocalService::setReply(const std::string& verb, const std::string& text) {
    spitAtomic(m_config.file("replies/" + verb), text);
}

void LocalService::queueReply(const std::string& verb, const std::string& text) {
    std::string dir = m_config.file("queue/" + verb);
    makeDir(dir);
    char name[32];
    snprintf(name, sizeof name, "%08d", ++m_queued);
    spitAtomic(dir + "/" + name, text);
}

void LocalService::setPushText(const std::string& verb, const std::string& text) {
    spitAtomic(m_config.file("push/" + verb), text);
}

void LocalService::setPushFile(const std::string& name, const std::string& sourcePath) {
    spitAtomic(m_config.file("files/" + name), slurp(sourcePath));
}

void LocalService::setFault(Fault fault, bool on) {
    std::string path = m_config.file(std::string("faults/") + faultName(fault));
    if (on)
        spitAtomic(path, "on");
    else
        remove(path.c_str());
}

std::vector<std::string> LocalService::commands() const {
    std::vector<std::string> lines;
    std::istringstream in(slurp(m_config.file("commands.log")));
    std::string line;
    while (std::getline(in, line)) lines.push_back(unescape(line));
    return lines;
}

bool LocalService::waitForCommands(size_t n, int timeoutMs) const {
    return waitUntil([&] { return commands().size() >= n; }, timeoutMs);
}

std::string LocalService::storedFile(const std::string& name) const {
    return m_config.file("store/" + name);
}

std::string LocalService::storedHeader(const std::string& name) const {
    return slurp(m_config.file("headers/" + name));
}

void LocalService::prepareAgentDataDir(const std::string& dataDir, const std::string& boxId,
                                       const std::string& displayName) {
    addBox(boxId, displayName);
    spit(dataDir + "/sundel.crt", slurp(pkiFile("ca.crt")));
    spit(dataDir + "/hosts.txt", "127.0.0.1");
    spit(dataDir + "/port.txt", std::to_string(m_port));
    spit(dataDir + "/hostName.txt", boxId);
    spit(dataDir + "/displayName.txt", displayName);
}
