#include "status.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "bounds.h"
#include "files.h"
#include "ledger.h"
#include "settings.h"
#include "stateFiles.h"
#include "util.h"

namespace {

// Length of the well-formed UTF-8 sequence at s[i], 0 when there is none
// (overlong forms, surrogates and code points beyond U+10FFFF are not).
size_t utf8At(const std::string& s, size_t i) {
    unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) return 1;
    size_t n = 0;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) n = 2;
    else if (c == 0xE0) n = 3, lo = 0xA0;
    else if (c == 0xED) n = 3, hi = 0x9F;
    else if (c >= 0xE1 && c <= 0xEF) n = 3;
    else if (c == 0xF0) n = 4, lo = 0x90;
    else if (c >= 0xF1 && c <= 0xF3) n = 4;
    else if (c == 0xF4) n = 4, hi = 0x8F;
    if (n == 0 || i + n > s.size()) return 0;
    for (size_t k = 1; k < n; ++k) {
        unsigned char ck = static_cast<unsigned char>(s[i + k]);
        if (ck < (k == 1 ? lo : 0x80) || ck > (k == 1 ? hi : 0xBF)) return 0;
    }
    return n;
}

// State files may hold anything: control bytes and broken UTF-8 are shown
// as "?" in text, escaped or replaced in JSON, never passed through.
std::string shown(const std::string& s, bool json) {
    std::string out;
    if (json) out += '"';
    for (size_t i = 0; i < s.size();) {
        unsigned char c = static_cast<unsigned char>(s[i]);
        size_t n = utf8At(s, i);
        if (n == 0) {
            out += json ? "\\ufffd" : "?";
            ++i;
            continue;
        }
        if (json && (c == '"' || c == '\\')) {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20 || c == 0x7f) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", c);
            out += json ? escaped : "?";
        } else {
            out.append(s, i, n);
        }
        i += n;
    }
    if (json) out += '"';
    return out;
}

// One tree of named values, written as indented "name: value" lines or as
// JSON; lists hold plain values only.
class Emitter {
public:
    explicit Emitter(bool json) : m_json(json) { m_first.push_back(true); }
    void open(const char* key) { push(key, '{'); }
    void openList(const char* key) { push(key, '['); }
    void close() {
        m_first.pop_back();
        if (m_json) out += m_kinds.back() == '{' ? '}' : ']';
        m_kinds.pop_back();
    }
    void text(const char* key, const std::string& value) { put(key, shown(value, m_json)); }
    void number(const char* key, long long value) { put(key, std::to_string(value)); }
    void flag(const char* key, bool value) { put(key, m_json ? (value ? "true" : "false") : (value ? "yes" : "no")); }
    // JSON null; the text form says why there is no value.
    void none(const char* key, const char* why) { put(key, m_json ? "null" : why); }
    void when(const char* key, long long epoch, time_t now) {
        if (m_json) {
            number(key, epoch);
            return number("ageSeconds", static_cast<long long>(now) - epoch);
        }
        char stamp[64] = "?";
        time_t t = static_cast<time_t>(epoch);
        struct tm local;
        if (localtime_r(&t, &local)) strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S %z", &local);
        put(key, std::string(stamp) + " (" + std::to_string(static_cast<long long>(now) - epoch) + " s ago)");
    }
    std::string out;

private:
    void separate(const char* key) {
        if (m_json) {
            if (!m_first.back()) out += ',';
            if (key) out += shown(key, true) + ':';
        } else {
            out.append(2 * (m_first.size() - 1), ' ');
            out += key ? std::string(key) + ":" : "-";
        }
        m_first.back() = false;
    }
    void put(const char* key, const std::string& value) {
        separate(key);
        out += m_json ? value : " " + value + "\n";
    }
    void push(const char* key, char kind) {
        separate(key);
        out += m_json ? std::string(1, kind) : "\n";
        m_first.push_back(true);
        m_kinds.push_back(kind);
    }
    bool m_json;
    std::vector<bool> m_first;
    std::string m_kinds;
};

struct Status {
    explicit Status(const char* dataDir) : dir(dataDir) {}
    const char* dir;
    bool dirReadable = true;
    time_t now = time(nullptr);
    std::vector<std::string> attention, unread;

    void cannotRead(const std::string& what, const std::string& why) { unread.push_back(what + ": " + why); }

    // A state file's trimmed text, "" when it is missing; anything else
    // that keeps it from being read is noted.
    std::string read(const StateFileName& file) {
        std::string path = std::string(dir) + "/" + file.name;
        struct stat st;
        if (stat(path.c_str(), &st) != 0) {
            if (errno != ENOENT && dirReadable) cannotRead(file.name, strerror(errno));
            return "";
        }
        if (!S_ISREG(st.st_mode)) {
            cannotRead(file.name, "not a regular file");
            return "";
        }
        int fd = openRegular(path.c_str());
        if (fd < 0) {
            cannotRead(file.name, strerror(errno));
            return "";
        }
        close(fd);
        if (static_cast<unsigned long long>(st.st_size) > file.most)
            cannotRead(file.name, std::to_string(st.st_size) + " bytes, only the first " + std::to_string(file.most) +
                                      " read");
        return readTrimmed(dir, file);
    }

    // A whole decimal number from a state file; missing reads as fallback.
    bool count(const StateFileName& file, long long fallback, long long* value) {
        std::string text = read(file);
        *value = fallback;
        if (text.empty()) return true;
        char* end = nullptr;
        errno = 0;
        long long v = strtoll(text.c_str(), &end, 10);
        if (errno || *end) {
            cannotRead(file.name, "not a number");
            return false;
        }
        *value = v;
        return true;
    }
};

struct Backlog {
    long long files = 0, bytes = 0, tooDeep = 0;
    time_t oldest = 0;
};

// As the export sender walks: no links followed, no deeper than it goes,
// empty files and ".DS_Store" left aside. One descriptor per level.
void walkBacklog(int fd, int depth, Backlog& b) {
    DIR* d = fdopendir(fd);
    if (!d) {
        close(fd);
        return;
    }
    while (dirent* e = readdir(d)) {
        const char* name = e->d_name;
        if (!strcmp(name, ".") || !strcmp(name, "..") || strcasestr(name, ".DS_Store")) continue;
        struct stat st;
        if (fstatat(dirfd(d), name, &st, AT_SYMLINK_NOFOLLOW) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            if (depth >= Limits::EXPORT_DEPTH_MOST) {
                ++b.tooDeep;
                continue;
            }
            int sub = openat(dirfd(d), name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
            if (sub >= 0) walkBacklog(sub, depth + 1, b);
            continue;
        }
        if (!S_ISREG(st.st_mode) || st.st_size == 0) continue;
        ++b.files;
        b.bytes += st.st_size;
        if (b.oldest == 0 || st.st_mtime < b.oldest) b.oldest = st.st_mtime;
    }
    closedir(d);
}

void exportBacklog(Status& s, Emitter& e) {
    // The directory given with -V, else the one the running agent recorded.
    std::string dir = viewpointDir[0] ? viewpointDir : s.read(StateFile::VIEWPOINT_DIR);
    if (dir.empty()) return e.none("export", "no export directory");
    e.open("export");
    e.text("dir", dir);
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        s.cannotRead("export directory " + dir, strerror(errno));
        e.none("files", "cannot be read");
        return e.close();
    }
    Backlog b;
    walkBacklog(fd, 0, b);
    e.number("files", b.files);
    e.number("bytes", b.bytes);
    if (b.files) {
        long long age = static_cast<long long>(s.now - b.oldest);
        e.number("oldestAgeSeconds", age);
        if (age > Limits::STATUS_BACKLOG_AGE_S)
            s.attention.push_back("export backlog: oldest file " + std::to_string(age) + " s old");
    }
    if (b.tooDeep) e.number("directoriesTooDeep", b.tooDeep);
    e.close();
}

// "Q" and the workers' "Q<n>" in the data directory: files waiting, and
// files fenced off by a ".BAD" marker.
void queues(Status& s, Emitter& e, const std::vector<std::string>& names) {
    e.open("queues");
    for (const std::string& name : names) {
        int fd = open((std::string(s.dir) + "/" + name).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
        DIR* d = fd < 0 ? nullptr : fdopendir(fd);
        if (!d) {
            if (fd >= 0) close(fd);
            s.cannotRead(name, strerror(errno));
            continue;
        }
        long long files = 0, bad = 0;
        while (dirent* entry = readdir(d)) {
            struct stat st;
            if (fstatat(dirfd(d), entry->d_name, &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) continue;
            size_t n = strlen(entry->d_name);
            if (n > 4 && !strcmp(entry->d_name + n - 4, ".BAD"))
                ++bad;
            else
                ++files;
        }
        closedir(d);
        e.open(name.c_str());
        e.number("files", files);
        e.number("bad", bad);
        e.close();
    }
    e.close();
}

bool isQueueName(const char* name) {
    if (name[0] != 'Q') return false;
    size_t digits = strspn(name + 1, "0123456789");
    return name[1 + digits] == '\0' && digits <= 2 && (digits == 0 || name[1] != '0');
}

std::vector<std::string> queueNames(Status& s) {
    std::vector<std::string> names;
    DIR* d = opendir(s.dir);
    if (!d) {
        s.dirReadable = false;
        s.cannotRead("data directory " + std::string(s.dir), strerror(errno));
        s.attention.push_back("the data directory cannot be read");
        return names;
    }
    while (dirent* e = readdir(d)) {
        struct stat st;
        if (isQueueName(e->d_name) && fstatat(dirfd(d), e->d_name, &st, 0) == 0 && S_ISDIR(st.st_mode))
            names.push_back(e->d_name);
    }
    closedir(d);
    std::sort(names.begin(), names.end(), [](const std::string& a, const std::string& b) {
        return a.size() != b.size() ? a.size() < b.size() : a < b;
    });
    return names;
}

void companions(Emitter& e) {
    // The tools the agent runs from beside its own program.
    std::string dir = PROCESS_DIR;
    const std::string tools[] = {"download",   "scrubmill",          "imagemill", "reportcast",
                                 "measurecast", std::string("dcmsend") + SUFFIX, std::string(PRE) + "storescp"};
    e.open("companions");
    e.text("dir", dir.empty() ? "/" : dir);
    for (const std::string& tool : tools) {
        std::string path = dir + "/" + tool;
        struct stat st;
        const char* state = "missing";
        if (stat(path.c_str(), &st) == 0)
            state = S_ISREG(st.st_mode) && access(path.c_str(), X_OK) == 0 ? "executable" : "not executable";
        e.text(tool.c_str(), state);
    }
    e.close();
}

void heartbeat(Status& s, Emitter& e) {
    std::string text = s.read(StateFile::LAST_HEARTBEAT);
    long long at = 0;
    int answered = 0, row = 0, used = 0;
    if (text.empty()) return e.none("heartbeat", "none recorded");
    if (sscanf(text.c_str(), "%lld %d %d%n", &at, &answered, &row, &used) != 3 || text[used] || row < 0) {
        s.cannotRead(StateFile::LAST_HEARTBEAT.name, "not \"<time> <answered> <unanswered in a row>\"");
        return e.none("heartbeat", "unreadable");
    }
    e.open("heartbeat");
    e.when("time", at, s.now);
    e.flag("answered", answered != 0);
    e.number("unansweredInARow", row);
    e.close();
    if (row >= Limits::STATUS_UNANSWERED_HEARTBEATS)
        s.attention.push_back(std::to_string(row) + " heartbeats in a row unanswered");
}

void lastUpdate(Status& s, Emitter& e) {
    std::string text = s.read(StateFile::LAST_UPDATE);
    long long at = 0;
    int used = 0;
    if (text.empty()) return e.none("lastUpdate", "none recorded");
    if (sscanf(text.c_str(), "%lld %n", &at, &used) != 1 || used == 0) {
        s.cannotRead(StateFile::LAST_UPDATE.name, "not \"<time> <what> <result>\"");
        return e.none("lastUpdate", "unreadable");
    }
    std::string rest = text.substr(static_cast<size_t>(used));
    size_t blank = rest.find(' ');
    e.open("lastUpdate");
    e.when("time", at, s.now);
    e.text("what", rest.substr(0, blank));
    e.text("result", blank == std::string::npos ? "" : rest.substr(blank + 1));
    e.close();
}

// "YYYY-MM-DDTHH:MM:SS", an optional fraction, then "Z", "+HH:MM", "+HHMM"
// or nothing (local time). -1 when it is none of these.
time_t ledgerTime(const char* text) {
    struct tm t {};
    int used = 0;
    if (sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d%n", &t.tm_year, &t.tm_mon, &t.tm_mday, &t.tm_hour, &t.tm_min,
               &t.tm_sec, &used) != 6)
        return -1;
    t.tm_year -= 1900;
    t.tm_mon -= 1;
    const char* p = text + used;
    if (*p == '.') p += 1 + strspn(p + 1, "0123456789");
    if (*p == '\0') {
        t.tm_isdst = -1;
        return mktime(&t);
    }
    if (*p == 'Z' && p[1] == '\0') return timegm(&t);
    int hours = 0, minutes = 0;
    if ((*p != '+' && *p != '-') ||
        (sscanf(p + 1, "%2d:%2d", &hours, &minutes) != 2 && sscanf(p + 1, "%2d%2d", &hours, &minutes) != 2))
        return -1;
    long offset = (*p == '-' ? -1 : 1) * (hours * 3600L + minutes * 60L);
    return timegm(&t) - offset;
}

const char* const LEDGER_KINDS[] = {"upload", "listener", "route", "emr", "other"};
constexpr int KIND_COUNT = sizeof LEDGER_KINDS / sizeof LEDGER_KINDS[0];

struct LedgerSums {
    long long count[KIND_COUNT][2] = {}, bytes[KIND_COUNT][2] = {};
    long long unreadable = 0;
};

// One line: time, kind, item, UID, bytes, result, ... (tab-separated).
void ledgerLine(const std::string& line, time_t since, time_t now, LedgerSums& sums) {
    std::vector<std::string> cols;
    size_t at = 0;
    for (;;) {
        size_t tab = line.find('\t', at);
        cols.push_back(line.substr(at, tab == std::string::npos ? std::string::npos : tab - at));
        if (tab == std::string::npos || cols.size() == 6) break;
        at = tab + 1;
    }
    time_t t = cols.size() < 6 ? -1 : ledgerTime(cols[0].c_str());
    if (t < 0) {
        ++sums.unreadable;
        return;
    }
    if (t < since || t > now) return;
    int kind = KIND_COUNT - 1;
    for (int k = 0; k < KIND_COUNT - 1; ++k)
        if (cols[1] == LEDGER_KINDS[k]) kind = k;
    int failed = cols[5] == "ok" ? 0 : 1;
    ++sums.count[kind][failed];
    long long bytes = strtoll(cols[4].c_str(), nullptr, 10);
    if (bytes > 0) sums.bytes[kind][failed] += bytes;
}

// Yesterday's and today's daily files, a line at a time: the memory used
// stays that of one line however large they grew.
void ledger(Status& s, Emitter& e) {
    LedgerSums sums;
    time_t since = s.now - 86400;
    for (time_t day : {since, s.now}) {
        struct tm local;
        if (!localtime_r(&day, &local)) continue;
        std::string name = ledgerFileOf(local);
        std::string path = std::string(s.dir) + "/" + name;
        int fd = openRegular(path.c_str());
        FILE* f = fd < 0 ? nullptr : fdopen(fd, "r");
        if (!f) {
            if (fd >= 0) close(fd);
            if (errno != ENOENT && s.dirReadable) s.cannotRead(name, strerror(errno));
            continue;
        }
        // A longer line than a ledger writes is counted as unreadable, not kept.
        std::vector<char> piece(Limits::LEDGER_LINE_MOST + 2);
        bool cut = false;
        while (fgets(piece.data(), static_cast<int>(piece.size()), f)) {
            size_t n = strlen(piece.data());
            bool whole = n > 0 && piece[n - 1] == '\n';
            if (!whole && !feof(f)) {
                cut = true;
                continue;
            }
            if (cut) ++sums.unreadable;
            else if (n > (whole ? 1u : 0u)) ledgerLine(std::string(piece.data(), whole ? n - 1 : n), since, s.now, sums);
            cut = false;
        }
        fclose(f);
    }
    e.open("last24h");
    for (int k = 0; k < KIND_COUNT; ++k) {
        if (!sums.count[k][0] && !sums.count[k][1]) continue;
        e.open(LEDGER_KINDS[k]);
        for (int failed = 0; failed < 2; ++failed) {
            e.open(failed ? "failed" : "ok");
            e.number("count", sums.count[k][failed]);
            e.number("bytes", sums.bytes[k][failed]);
            e.close();
        }
        e.close();
    }
    if (sums.unreadable) e.number("unreadableLines", sums.unreadable);
    e.close();
}

void failures(Status& s, Emitter& e) {
    e.open("failures");
    const struct {
        const StateFileName& file;
        const char* key;
    } counts[] = {{StateFile::UPLOAD_FAILURES, "uploads"}, {StateFile::COMMAND_FAILURES, "commands"}};
    for (const auto& c : counts) {
        long long n = 0;
        if (!s.count(c.file, 0, &n)) {
            e.none(c.key, "unreadable");
            continue;
        }
        e.number(c.key, n);
        if (n != 0) s.attention.push_back(std::to_string(n) + " " + c.key + " failing (" + c.file.name + ")");
    }
    e.close();
}

void identity(Status& s, Emitter& e) {
    std::string host = s.read(StateFile::HOST_NAME);
    std::string display = s.read(StateFile::DISPLAY_NAME);
    if (!display.empty() && display[0] == '~') display = Util::decipher(display.c_str());
    bool pending = fileExists(s.dir, StateFile::REGISTRATION_PENDING);
    e.text("hostName", host);
    e.text("displayName", display);
    e.flag("registered", !host.empty() && !pending);
    e.text("registration", host.empty() ? "no identity yet" : pending ? "pending" : "done");
}

void servers(Status& s, Emitter& e) {
    std::string list = s.read(StateFile::SERVERS);
    e.openList("servers");
    for (size_t at = 0; at < list.size();) {
        size_t end = list.find('\n', at);
        if (end == std::string::npos) end = list.size();
        std::string server = list.substr(at, end - at);
        while (!server.empty() && isspace(static_cast<unsigned char>(server.back()))) server.pop_back();
        if (!server.empty()) e.text(nullptr, server);
        at = end + 1;
    }
    e.close();
    e.text("port", s.read(StateFile::PORT));
    std::string api = s.read(StateFile::API_PORT);
    if (api.empty()) e.none("listenerPort", "not listening");
    else e.text("listenerPort", api);
}

void versions(Status& s, Emitter& e) {
    e.open("versions");
    e.text("hubTalk", s.read(StateFile::PROGRAM_VERSION));
    e.text("storescp", s.read(StateFile::RECEIVER_VERSION));
    e.text("dicomDic", s.read(StateFile::DICTIONARY_VERSION));
    e.close();
}

}  // namespace

int printStatus(const char* dataDir, bool json, FILE* out) {
    Status s(dataDir);
    Emitter body(json);
    std::vector<std::string> queueDirs = queueNames(s);
    identity(s, body);
    heartbeat(s, body);
    servers(s, body);
    exportBacklog(s, body);
    queues(s, body, queueDirs);
    failures(s, body);
    companions(body);
    versions(s, body);
    lastUpdate(s, body);
    ledger(s, body);

    Emitter head(json);
    head.text("dataDir", dataDir);
    head.flag("healthy", s.attention.empty());
    head.openList("attention");
    for (const std::string& reason : s.attention) head.text(nullptr, reason);
    head.close();
    Emitter tail(json);
    tail.openList("couldNotRead");
    for (const std::string& what : s.unread) tail.text(nullptr, what);
    tail.close();
    if (json)
        fprintf(out, "{%s,%s,%s}\n", head.out.c_str(), body.out.c_str(), tail.out.c_str());
    else
        fprintf(out, "%s%s%s", head.out.c_str(), body.out.c_str(), s.unread.empty() ? "" : tail.out.c_str());
    fflush(out);
    return s.attention.empty() ? 0 : 1;
}

void recordHeartbeat(const char* dataDir, bool answered) {
    long long at = 0;
    int was = 0, row = 0;
    // A missing or garbled record starts the count afresh.
    // Read off the shared ring: the heartbeat's reply may still lie there.
    std::string last = readText(dataDir, StateFile::LAST_HEARTBEAT.name, StateFile::LAST_HEARTBEAT.most);
    if (sscanf(last.c_str(), "%lld %d %d", &at, &was, &row) != 3 || row < 0) row = 0;
    row = answered ? 0 : std::min(row, INT_MAX - 1) + 1;
    char line[64];
    snprintf(line, sizeof line, "%lld %d %d", static_cast<long long>(time(nullptr)), answered ? 1 : 0, row);
    writeTxt(dataDir, StateFile::LAST_HEARTBEAT, line);
}
