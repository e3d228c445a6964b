// Data pushed by the service after a command: the reply announces the size,
// the bytes follow over a pre-shared-key session on the same connection.
#include <strings.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "bounds.h"
#include "linkUtil.h"
#include "morvaAlarms.h"
#include "sendFile.h"
#include "tlsSession.h"

namespace {

// "OK|<n>|..." with n > 0; returns n, or 0 when the reply is anything else.
long long announcedSize(const char* reply) {
    if (!reply || strncasecmp(reply, "OK", 2) != 0) return 0;
    const char* bar = strchr(reply, '|');
    if (!bar) return 0;
    long long n = strtoll(bar + 1, nullptr, 10);
    return n > 0 ? n : 0;
}

// The last "|" field of the command (or the one before when the last is
// empty), made safe to use as the tail of a file name in one directory.
std::string pushedName(const char* command) {
    std::string c = command ? command : "";
    size_t end = c.size();
    size_t bar = c.rfind('|');
    if (bar != std::string::npos && bar + 1 == end && bar > 0) {
        end = bar;
        bar = c.rfind('|', bar - 1);
    }
    size_t begin = bar == std::string::npos ? 0 : bar + 1;
    std::string name = c.substr(begin, end - begin);
    for (char& ch : name)
        if (ch == '/') ch = '_';
    return name;
}

}  // namespace

char* SendFile::sendClientReceive(const char* command, int& status, ClientReceiveType type,
                                  Memory* mem) {
    std::string reply = commandReply(command, status, false);
    long long size = announcedSize(reply.c_str());
    if (size <= 0) {
        shutdown("Success", false);
        return LinkUtil::handOver("error", mem);
    }
    if (type != ReceiveDicom && (unsigned long long)size > Limits::PUSHED_TEXT_MOST) {
        shutdown("Pushed text longer than allowed", true);
        return LinkUtil::handOver("error", mem);
    }
    status = 1;
    auto session = keySession();
    if (!session) return LinkUtil::handOver("error", mem);
    TlsSession& tls = *session;

    size_t chunk = size < (long long)Limits::TRANSFER_CHUNK ? (size_t)size : Limits::TRANSFER_CHUNK;
    std::vector<unsigned char> buf(chunk);
    // Grown as it arrives: an announced size is no promise.
    std::string text;
    FILE* out = nullptr;
    std::string path;
    if (type == ReceiveDicom) {
        char pid[64];
        snprintf(pid, sizeof pid, "/CR.%u.%u.", (unsigned)getpid(), (unsigned)syscall(SYS_gettid));
        path = std::string(dataDir) + pid + pushedName(command);
        out = fopen(path.c_str(), "wbe");
        if (!out) {
            std::string msg = "Generated File Name cannot be opened:  " + path;
            shutdown(msg.c_str(), &tls, true);
            return LinkUtil::handOver("error", mem);
        }
    }

    m_alarms->arm(alarmIndex, Limits::transferMs((unsigned long long)size), sock);
    long long remaining = size;
    bool written = true;
    while (remaining > 0) {
        size_t want = remaining < (long long)chunk ? (size_t)remaining : chunk;
        int n = tls.read(buf.data(), want);
        if (n <= 0) break;
        if (out) {
            if (fwrite(buf.data(), 1, (size_t)n, out) != (size_t)n) {
                written = false;
                break;
            }
        } else {
            text.append(reinterpret_cast<char*>(buf.data()), (size_t)n);
        }
        remaining -= n;
        if (!socketOpen()) break;
    }
    m_alarms->disarm(alarmIndex);
    bool toFile = out != nullptr;
    if (toFile && fclose(out) != 0) written = false;

    if (remaining < 1 && written) {
        status = 0;
        shutdown("success", &tls, false);
        return LinkUtil::handOver(toFile ? path.c_str() : text.c_str(), toFile ? nullptr : mem);
    }
    shutdown("Incomplete Data Received", &tls, true);
    if (toFile) unlink(path.c_str());
    return LinkUtil::handOver("error", mem);
}
