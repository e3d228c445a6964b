#include "dicomReceiver.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

namespace {

bool accepts(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
    close(fd);
    return ok;
}

}  // namespace

DicomReceiver::DicomReceiver(bool refuse) : m_port(freePort()) {
    std::vector<std::string> argv = {"/usr/bin/env", "TCP_NODELAY=1", "/usr/bin/storescp", "+B", "-od", m_out.path()};
    if (refuse) argv.push_back("--refuse");
    argv.push_back(std::to_string(m_port));
    m_process.reset(new ChildProcess(argv, "", m_logs.file("out"), m_logs.file("err")));
    if (!waitUntil([&] { return accepts(m_port); }, 10000))
        throw std::runtime_error("storescp does not listen: " + slurp(m_logs.file("err")));
}

std::vector<std::string> DicomReceiver::received() const {
    std::vector<std::string> files;
    for (const auto& name : entriesOf(m_out.path())) files.push_back(m_out.file(name));
    return files;
}

std::string datasetBytes(const std::string& path) {
    std::string b = slurp(path);
    // Preamble, "DICM", then (0002,0000) UL 4 with the group's length.
    if (b.size() < 144 || b.compare(128, 4, "DICM") != 0 || b.compare(132, 6, std::string("\2\0\0\0UL", 6)) != 0)
        return "";
    uint32_t length;
    memcpy(&length, b.data() + 140, 4);
    size_t start = 144 + static_cast<size_t>(length);
    return start <= b.size() ? b.substr(start) : "";
}
