#include "boxSend.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

#include "morvaAlarms.h"
#include "morvaNet.h"
#include "text.h"
#include "util.h"

Box::Box(const char* dir, const char* fileName, const char* boxId) {
    std::string d = dir ? dir : "";
    directory = keep(d.c_str());
    std::string path = d;
    if (fileName && *fileName) path += std::string("/") + fileName;
    filePath = keep(path.c_str());
    id = rtrim(keep(boxId ? boxId : ""));
    displayName = keep("");
}

Box::~Box() {
    if (sock >= 0) Box::shutdown("Success", false);
    arena.reset();
}

char* Box::keep(const char* text) {
    if (!text) return nullptr;
    size_t n = strlen(text) + 1;
    char* p = static_cast<char*>(arena.malloc(n));
    memcpy(p, text, n);
    return p;
}

bool Box::socketOpen() const {
    return sock >= 0 && !m_alarms->socketClosed(alarmIndex);
}

bool Box::shutdown(const char* message, bool doReport) {
    int err = errno;
    if (alarmIndex >= 0) m_alarms->disarm(alarmIndex);
    if (sock >= 0) {
        // A socket the watchdog already closed may carry another file's number by now.
        if (socketOpen() && fcntl(sock, F_GETFD) != -1) {
            ::shutdown(sock, SHUT_RDWR);
            close(sock);
        }
        sock = -1;
        m_alarms->forgetSocket(alarmIndex);
    }
    if (doReport) {
        failure = std::string(message) + ": " + (err ? strerror(err) : "no system error");
        errno = err;
        Network::report(message, quiet, verbose);
    }
    return doReport;
}

std::string Box::plainName(const char* displayName) {
    if (!displayName) return "";
    return displayName[0] == '~' ? Util::decrypt(displayName) : displayName;
}

char* Box::gtk() {
    std::string joined = std::string(id ? id : "") + "_" + plainName(displayName);
    return keep(Util::encrypt(joined.c_str()));
}
