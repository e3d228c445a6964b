#include "serviceConfig.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <fstream>
#include <sstream>

#include "text.h"

bool isPlainName(const std::string& name) {
    return !name.empty() && name.size() <= 255 && name != "." && name != ".." &&
           name.find('/') == std::string::npos && name.find('\0') == std::string::npos;
}

bool readWhole(const std::string& path, std::string& content) {
    std::ifstream in(path, std::ios::binary);
    if (!in) return false;
    std::ostringstream ss;
    ss << in.rdbuf();
    content = ss.str();
    return true;
}

bool writeWhole(const std::string& path, const std::string& content) {
    std::string tmp = temporaryPath(path);
    {
        std::ofstream out(tmp, std::ios::binary | std::ios::trunc);
        out << content;
        if (!out.flush()) return false;
    }
    return rename(tmp.c_str(), path.c_str()) == 0;
}

static std::vector<std::string> namesIn(const std::string& dir) {
    std::vector<std::string> names;
    if (DIR* d = opendir(dir.c_str())) {
        while (dirent* e = readdir(d)) {
            std::string n = e->d_name;
            if (!isTemporaryName(n)) names.push_back(n);
        }
        closedir(d);
    }
    std::sort(names.begin(), names.end());
    return names;
}

ServiceConfig::ServiceConfig(std::string dir) : m_dir(std::move(dir)) {}

bool ServiceConfig::prepare() const {
    for (const char* d : {"", "/boxes", "/replies", "/queue", "/push", "/files", "/faults",
                          "/store", "/headers", "/web"}) {
        std::string p = m_dir + d;
        if (mkdir(p.c_str(), 0775) != 0 && errno != EEXIST) return false;
    }
    return true;
}

std::string ServiceConfig::displayName(const std::string& boxId) const {
    std::string name;
    if (!isPlainName(boxId) || !readWhole(path("boxes/" + boxId), name)) return "";
    return trim(&name[0]);
}

bool ServiceConfig::popQueued(const std::string& key, std::string& text) {
    std::lock_guard<std::mutex> hold(m_queueLock);
    std::string dir = path("queue/" + key);
    for (const auto& n : namesIn(dir)) {
        std::string item = dir + "/" + n;
        if (readWhole(item, text)) {
            unlink(item.c_str());
            return true;
        }
    }
    return false;
}

int ServiceConfig::queued(const std::string& key) const {
    if (!isPlainName(key)) return 0;
    return static_cast<int>(namesIn(path("queue/" + key)).size());
}

bool ServiceConfig::reply(const std::vector<std::string>& keys, std::string& text) {
    for (const auto& key : keys) {
        if (!isPlainName(key)) continue;
        if (popQueued(key, text) || readWhole(path("replies/" + key), text)) return true;
    }
    return false;
}

std::string ServiceConfig::pushText(const std::string& verb) {
    std::string text;
    if (!isPlainName(verb)) return "";
    if (popQueued(verb, text) || readWhole(path("push/" + verb), text)) return text;
    return "";
}

std::string ServiceConfig::pushFile(const std::string& name) const {
    if (!isPlainName(name)) return "";
    std::string p = path("files/" + name);
    struct stat st;
    if (stat(p.c_str(), &st) != 0 || !S_ISREG(st.st_mode) || st.st_size == 0) return "";
    return p;
}

bool ServiceConfig::flag(const std::string& relative) const {
    struct stat st;
    return stat(path(relative).c_str(), &st) == 0;
}
