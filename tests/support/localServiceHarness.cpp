#include "localServiceProcess.h"

#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "localService/serviceConfig.h"

#ifndef LOCAL_SERVICE_BIN
#define LOCAL_SERVICE_BIN ""
#endif

namespace {

// Started with the configuration; waits until stderr or the port file shows it
// listens. With web, the file endpoint listens too ("webPort" is written first).
std::unique_ptr<ChildProcess> startService(const TempDir& config, const std::string& address, int port,
                                           bool web = false) {
    std::string err = config.file("stderr." + address + ".txt");
    std::vector<std::string> argv{LOCAL_SERVICE_BIN, "--config", config.path(), "--address", address, "--port",
                                  std::to_string(port)};
    if (web) argv.insert(argv.end(), {"--web-port", "0"});
    auto p = std::make_unique<ChildProcess>(argv, "", config.file("stdout." + address + ".txt"), err);
    if (!waitUntil([&] { return slurp(err).find("listening") != std::string::npos || p->wait(0) >= 0; }, 20000) ||
        (port == 0 && slurp(config.file("port")).empty()))
        throw std::runtime_error("local service did not start on " + address + ": " + slurp(err));
    return p;
}

}  // namespace

LocalService::LocalService() {
    if (!*LOCAL_SERVICE_BIN) throw std::runtime_error("local service not built");
    for (const char* d : {"boxes", "replies", "queue", "push", "files", "faults", "web"})
        mkdir(m_config.file(d).c_str(), 0775);
    m_process = startService(m_config, "127.0.0.1", 0, true);
    m_port = std::stoi(slurp(m_config.file("port")));
    m_webPort = std::stoi(slurp(m_config.file("webPort")));
}

void LocalService::stop() {
    m_more.clear();
    if (m_process) m_process->stop(SIGTERM, 15000);
}

void LocalService::alsoListenOn(const std::string& address) { m_more.push_back(startService(m_config, address, m_port)); }

// Through a temporary, so that the service never reads half a file.
void LocalService::put(const std::string& relative, const std::string& content) {
    std::string path = m_config.file(relative), tmp = temporaryPath(path);
    spit(tmp, content);
    if (rename(tmp.c_str(), path.c_str()) != 0) throw std::runtime_error("cannot write " + path);
}

void LocalService::addBox(const std::string& boxId, const std::string& name) { put("boxes/" + boxId, name); }
void LocalService::setReply(const std::string& verb, const std::string& text) { put("replies/" + verb, text); }
void LocalService::setPushText(const std::string& verb, const std::string& text) { put("push/" + verb, text); }
void LocalService::setPushFile(const std::string& name, const std::string& source) { put("files/" + name, slurp(source)); }

// Copied in pieces: served files may be large.
void LocalService::setWebFile(const std::string& path, const std::string& source) {
    std::string target = m_config.file("web/" + path), tmp = temporaryPath(target);
    for (size_t s = target.find('/', m_config.path().size() + 5); s != std::string::npos; s = target.find('/', s + 1))
        mkdir(target.substr(0, s).c_str(), 0775);
    {
        std::ifstream in(source, std::ios::binary);
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        if (!in || (in.peek() != EOF && !(out << in.rdbuf())) || !out.flush())
            throw std::runtime_error("cannot copy " + source);
    }
    if (rename(tmp.c_str(), target.c_str()) != 0) throw std::runtime_error("cannot write " + target);
}

void LocalService::queueReply(const std::string& verb, const std::string& text) {
    mkdir(m_config.file("queue/" + verb).c_str(), 0775);
    char name[16];
    snprintf(name, sizeof name, "%08d", ++m_queued);
    put("queue/" + verb + "/" + name, text);
}

void LocalService::setFault(Fault fault, bool on) {
    std::string name = std::string("faults/") + faultName(fault);
    on ? put(name, "on") : (void)remove(m_config.file(name).c_str());
}

std::vector<std::string> LocalService::commands() const {
    std::vector<std::string> lines;
    std::istringstream in(slurp(m_config.file("commands.log")));
    for (std::string line; std::getline(in, line);) {
        std::string out;  // the log's escapes undone
        for (size_t i = 0; i < line.size(); ++i) {
            char c = line[i] == '\\' && i + 1 < line.size() ? line[++i] : '\0';
            out += c == 'n' ? '\n' : c == 'r' ? '\r' : c ? c : line[i];
        }
        lines.push_back(out);
    }
    return lines;
}

size_t LocalService::countStartingWith(const std::string& prefix) const {
    auto all = commands();
    return std::count_if(all.begin(), all.end(), [&](const std::string& c) { return c.rfind(prefix, 0) == 0; });
}

std::string LocalService::storedFile(const std::string& name) const { return m_config.file("store/" + name); }
std::string LocalService::storedHeader(const std::string& name) const { return slurp(m_config.file("headers/" + name)); }

void LocalService::prepareAgentDataDir(const std::string& dataDir, const std::string& boxId,
                                       const std::string& displayName) {
    addBox(boxId, displayName);
    spit(dataDir + "/sundel.crt", slurp(pkiFile("ca.crt")));
    spit(dataDir + "/hosts.txt", "127.0.0.1");
    spit(dataDir + "/port.txt", std::to_string(m_port));
    spit(dataDir + "/hostName.txt", boxId);
    spit(dataDir + "/displayName.txt", displayName);
}
