#include "ledger.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "bounds.h"
#include "exception.h"
#include "files.h"
#include "stateFiles.h"

namespace {

const char* const LEDGER_DIR = "ledger";
const char* const LEDGER_SUFFIX = ".tsv";
const size_t LEDGER_NAME_LENGTH = 14;  // "YYYY-MM-DD.tsv"
const int FIELD_COUNT = 8;

// Whether the last write failed: the log says so once per change, not once
// per upload.
std::atomic<bool> ledgerOff{false};

std::string field(const std::string& value) {
    if (value.empty()) return "-";
    std::string out = value;
    for (char& c : out)
        if (c == '\t' || c == '\r' || c == '\n') c = ' ';
    return out;
}

// Cuts s to at most n bytes, never inside a UTF-8 sequence.
void cutTo(std::string& s, size_t n) {
    if (s.size() <= n) return;
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80) --n;
    s.resize(n);
}

// Days since 1970-01-01 of a civil date (proleptic Gregorian).
long dayNumber(long y, unsigned m, unsigned d) {
    y -= m <= 2;
    long era = (y >= 0 ? y : y - 399) / 400;
    unsigned yoe = static_cast<unsigned>(y - era * 400);
    unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<long>(doe) - 719468;
}

bool isLeap(long y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

// True for a name "YYYY-MM-DD.tsv" of a real date, with its day number.
bool ledgerDay(const char* name, long& day) {
    if (strlen(name) != LEDGER_NAME_LENGTH || strcmp(name + 10, LEDGER_SUFFIX) != 0) return false;
    for (int i = 0; i < 10; ++i) {
        bool dash = i == 4 || i == 7;
        if (dash ? name[i] != '-' : (name[i] < '0' || name[i] > '9')) return false;
    }
    long y = atol(name);
    unsigned m = static_cast<unsigned>(atoi(name + 5)), d = static_cast<unsigned>(atoi(name + 8));
    static const unsigned monthDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (m < 1 || m > 12 || d < 1 || d > monthDays[m - 1] + (m == 2 && isLeap(y) ? 1 : 0)) return false;
    day = dayNumber(y, m, d);
    return true;
}

int keptDays(const char* dataDir) {
    long long days = positiveNumber(dataDir, StateFile::LEDGER_DAYS);
    return days > 0 && days <= INT_MAX ? static_cast<int>(days) : Limits::LEDGER_KEEP_DAYS;
}

std::string lineOf(const LedgerEntry& e, const tm& local) {
    // Formatted by hand: strftime re-reads the zone file on every call, which
    // a pass of 10 000 records would feel.
    long offset = local.tm_gmtoff / 60;
    char when[64];
    snprintf(when, sizeof when, "%04d-%02d-%02dT%02d:%02d:%02d%c%02ld:%02ld", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, offset < 0 ? '-' : '+', labs(offset) / 60,
             labs(offset) % 60);
    char bytes[24] = "-", seconds[32];
    if (e.bytes >= 0) snprintf(bytes, sizeof bytes, "%lld", e.bytes);
    snprintf(seconds, sizeof seconds, "%.3f", e.seconds >= 0 ? e.seconds : 0.0);

    std::string text[] = {field(e.kind ? e.kind : ""), field(e.item), field(e.sopUid), field(e.result),
                          field(e.server)};
    size_t fixed = strlen(when) + strlen(bytes) + strlen(seconds) + (FIELD_COUNT - 1) + 1;
    size_t room = Limits::LEDGER_LINE_MOST > fixed ? Limits::LEDGER_LINE_MOST - fixed : 0;
    // The longest values give way first, so every column stays.
    for (;;) {
        size_t total = 0;
        std::string* longest = &text[0];
        for (std::string& t : text) {
            total += t.size();
            if (t.size() > longest->size()) longest = &t;
        }
        if (total <= room || longest->empty()) break;
        size_t before = longest->size();
        cutTo(*longest, before - std::min(before, total - room));
        if (longest->size() == before) longest->clear();
    }
    std::string line;
    line.reserve(Limits::LEDGER_LINE_MOST);
    line.append(when).append("\t").append(text[0]).append("\t").append(text[1]).append("\t");
    line.append(text[2]).append("\t").append(bytes).append("\t").append(text[3]).append("\t");
    line.append(seconds).append("\t").append(text[4]);
    line += '\n';
    return line;
}

int openDaily(const std::string& dir, const std::string& path) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        int fd;
        do {
            fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0664);
        } while (fd < 0 && errno == EINTR);
        if (fd >= 0 || errno != ENOENT || attempt > 0) return fd;
        if (mkdir(dir.c_str(), 0755) != 0 && errno != EEXIST) return -1;
    }
    return -1;
}

void sayState(bool off, const std::string& path, int err) {
    if (ledgerOff.exchange(off) == off) return;
    std::string line = off ? "Delivery ledger off: cannot write " + path + ": " + strerror(err) + "; uploads go on"
                           : "Delivery ledger on again: " + path;
    logLine(line.c_str());
}

}  // namespace

std::string ledgerFileOf(const tm& local) {
    char day[32];
    snprintf(day, sizeof day, "%04d-%02d-%02d", local.tm_year + 1900, local.tm_mon + 1, local.tm_mday);
    return std::string(LEDGER_DIR) + "/" + day + LEDGER_SUFFIX;
}

void ledgerRecord(const char* dataDir, const LedgerEntry& entry) {
    if (!dataDir || !*dataDir) return;
    try {
        time_t now = time(nullptr);
        tm local{};
        localtime_r(&now, &local);
        std::string line = lineOf(entry, local);
        std::string dir = std::string(dataDir) + "/" + LEDGER_DIR;
        std::string path = std::string(dataDir) + "/" + ledgerFileOf(local);

        int fd = openDaily(dir, path);
        if (fd < 0) return sayState(true, path, errno);
        ssize_t n = write(fd, line.data(), line.size());
        int err = n < 0 ? errno : ENOSPC;
        // A torn line is ended, so that the next one starts on its own.
        if (n > 0 && static_cast<size_t>(n) < line.size() && write(fd, "\n", 1) < 0) err = errno;
        close(fd);
        if (n == static_cast<ssize_t>(line.size()))
            sayState(false, path, 0);
        else
            sayState(true, path, err);
    } catch (...) {
        // Out of memory for one line: the upload matters more than its record.
    }
}

int ledgerPrune(const char* dataDir, time_t now) {
    // Once a cycle the zone is read again, so a changed zone reaches the
    // records, which are formatted without re-reading it.
    tzset();
    if (!dataDir || !*dataDir) return 0;
    std::string dir = std::string(dataDir) + "/" + LEDGER_DIR;
    DIR* d = opendir(dir.c_str());
    if (!d) return 0;
    tm local{};
    localtime_r(&now, &local);
    long today = dayNumber(local.tm_year + 1900L, static_cast<unsigned>(local.tm_mon + 1),
                           static_cast<unsigned>(local.tm_mday));
    long days = keptDays(dataDir);
    int removed = 0;
    while (dirent* e = readdir(d)) {
        long day = 0;
        if (!ledgerDay(e->d_name, day) || today - day <= days) continue;
        std::string path = dir + "/" + e->d_name;
        struct stat st;
        if (lstat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode) && unlink(path.c_str()) == 0) ++removed;
    }
    closedir(d);
    return removed;
}
