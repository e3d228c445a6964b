// The record of every command received, in arrival order: one line per
// command, the command line without its "|~~" end, with "\" written "\\",
// line feed "\n" and carriage return "\r". Each line is on disk before the
// command is answered, so a client that got its reply finds it logged.
#pragma once
#include <mutex>
#include <string>

class CommandLog {
public:
    explicit CommandLog(const std::string& path);
    ~CommandLog();
    CommandLog(const CommandLog&) = delete;
    CommandLog& operator=(const CommandLog&) = delete;

    bool isOpen() const { return m_fd >= 0; }
    void record(const std::string& command);

    static std::string escape(const std::string& command);

private:
    int m_fd;
    std::mutex m_lock;
};
