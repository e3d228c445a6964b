#include "commandLog.h"

#include <fcntl.h>
#include <unistd.h>

CommandLog::CommandLog(const std::string& path)
    : m_fd(open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0664)) {}

CommandLog::~CommandLog() {
    if (m_fd >= 0) close(m_fd);
}

std::string CommandLog::escape(const std::string& command) {
    std::string out;
    out.reserve(command.size() + 8);
    for (char c : command) {
        if (c == '\\')
            out += "\\\\";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\r')
            out += "\\r";
        else
            out += c;
    }
    return out;
}

void CommandLog::record(const std::string& command) {
    std::string line = escape(command) + "\n";
    std::lock_guard<std::mutex> hold(m_lock);
    const char* p = line.data();
    size_t left = line.size();
    while (left > 0 && m_fd >= 0) {
        ssize_t n = write(m_fd, p, left);
        if (n <= 0) break;
        p += n;
        left -= static_cast<size_t>(n);
    }
}
