#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "exception.h"
#include "keyValues.h"
#include "memory.h"
#include "text.h"

char EMPTY_TEXT[1] = {'\0'};

namespace {
const mode_t FILE_MODE = 0664;
const size_t COPY_BUFFER = 1048576;

// Owns a malloc'd path for the length of a call.
struct Path {
    char* p;
    Path(const char* dir, const char* name) : p(makePath(dir, name)) {}
    ~Path() { ::free(p); }
    Path(const Path&) = delete;
    Path& operator=(const Path&) = delete;
    operator const char*() const { return p; }
};

ssize_t readFully(int fd, char* buf, size_t n) {
    size_t got = 0;
    while (got < n) {
        ssize_t r = ::read(fd, buf + got, n - got);
        if (r < 0 && errno == EINTR) continue;
        if (r < 0) return -1;
        if (r == 0) break;
        got += static_cast<size_t>(r);
    }
    return static_cast<ssize_t>(got);
}

ssize_t writeFully(int fd, const char* buf, size_t n) {
    size_t done = 0;
    while (done < n) {
        ssize_t w = ::write(fd, buf + done, n - done);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) break;
        done += static_cast<size_t>(w);
    }
    return static_cast<ssize_t>(done);
}

// Runs "<verb> <quoted a> <quoted b>" through the shell; returns system()'s status.
int shellTwo(const char* verb, const char* a, const char* b) {
    char* qa = shellQuote(a);
    char* qb = shellQuote(b);
    std::string cmd = std::string(verb) + " " + qa + " " + qb;
    ::free(qa);
    ::free(qb);
    return system(cmd.c_str());
}

// Reads an open file whole into a malloc'd buffer with 4 spare bytes.
// Returns 0, or -1 on allocation failure, -2 on read failure.
int slurpFd(int fd, char** out, size_t* length) {
    off_t size = lseek(fd, 0, SEEK_END);
    if (size < 0) size = 0;
    lseek(fd, 0, SEEK_SET);
    char* buf = static_cast<char*>(::malloc(static_cast<size_t>(size) + 4));
    if (!buf) return -1;
    ssize_t got = readFully(fd, buf, static_cast<size_t>(size));
    if (got < 0) {
        ::free(buf);
        return -2;
    }
    *out = buf;
    *length = static_cast<size_t>(got);
    return 0;
}

bool atomicWrite(const char* dir, const char* name, const char* bytes, size_t length) {
    Path path(dir, name);
    std::string temp = std::string(path) + ".SV." + std::to_string(getpid());
    int fd = open(temp.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_SYNC, FILE_MODE);
    if (fd < 0) return false;
    writeFully(fd, bytes, length);
    close(fd);
    chmod(temp.c_str(), FILE_MODE);
    mvFile(temp.c_str(), path);
    struct stat st;
    if (lstat(temp.c_str(), &st) == 0) unlink(temp.c_str());
    return true;
}
}  // namespace

char* makePath(const char* dir, const char* name) {
    if (!dir) dir = "";
    size_t dl = strlen(dir);
    size_t nl = name ? strlen(name) : 0;
    char* path = static_cast<char*>(::malloc(dl + nl + 32));
    if (!path) return nullptr;
    if (nl)
        snprintf(path, dl + nl + 32, "%s/%s", dir, name);
    else
        memcpy(path, dir, dl + 1);
    return path;
}

char* readTxt(const char* dir, const char* name) {
    Path path(dir, name);
    struct stat st;
    if (!path.p || stat(path, &st) != 0 || S_ISDIR(st.st_mode)) return EMPTY_TEXT;
    int fd = open(path, O_RDONLY);
    if (fd < 0) return EMPTY_TEXT;
    char* buf = nullptr;
    size_t length = 0;
    int rc = slurpFd(fd, &buf, &length);
    close(fd);
    if (rc == -1) {
        logSysError("ReadTxt: Malloc returned NULL");
        return EMPTY_TEXT;
    }
    if (rc == -2) {
        logSysError("readTxt: Read failed");
        return EMPTY_TEXT;
    }
    for (size_t i = 0; i < length; ++i)
        if (buf[i] == '\0') buf[i] = ' ';
    buf[length] = '\0';
    return buf;
}

char* readTrimmed(const char* dir, const char* name) {
    char* text = readTxt(dir, name);
    char* cached = InternalCache::getCacheReturn(text, strlen(text) + 1, false);
    if (text != EMPTY_TEXT) ::free(text);
    return trim(cached);
}

bool writeTxt(const char* dir, const char* name, const char* text) {
    if (!text) text = "";
    return atomicWrite(dir, name, text, strlen(text));
}

bool writeData(const char* dir, const char* name, const void* bytes, size_t length) {
    if (!bytes) length = 0;
    return atomicWrite(dir, name, static_cast<const char*>(bytes), length);
}

bool appendLogNoSync(const char* dir, const char* name, const void* bytes, size_t length) {
    Path path(dir, name);
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT, FILE_MODE);
    if (fd < 0) {
        logSysError("appendLogNoSync failed");
        return false;
    }
    if (bytes && writeFully(fd, static_cast<const char*>(bytes), length) != static_cast<ssize_t>(length))
        logSysError("AppendLogNoSync failed to write");
    close(fd);
    return true;
}

int appendFile(const char* source, const char* destination) {
    int fd = source ? open(source, O_RDONLY) : -1;
    if (fd < 0) return 1;
    char* buf = nullptr;
    size_t length = 0;
    int rc = slurpFd(fd, &buf, &length);
    close(fd);
    if (rc == -1) {
        logSysError("appendFile: Malloc returned NULL");
        return 1;
    }
    if (rc == -2) {
        logSysError("appendFile: Read failed");
        return 1;
    }
    appendLogNoSync(destination, "", buf, length);
    ::free(buf);
    return 0;
}

void writeLine(const char* line, const char* path) {
    FILE* f = path ? fopen(path, "a+") : nullptr;
    if (!f) {
        logSysError("Warning:  writeLine failed (directory gone?)");
        return;
    }
    flock(fileno(f), LOCK_EX);
    fprintf(f, "%s\n", line ? line : "");
    fflush(f);
    flock(fileno(f), LOCK_UN);
    fclose(f);
}

int mvFile(const char* source, const char* destination) {
    if (rename(source, destination) == 0) return 0;
    unlink(destination);
    if (rename(source, destination) == 0) return 0;
    return shellTwo("mv -f", source, destination);
}

int mvFile(const char* sdir, const char* sname, const char* ddir, const char* dname) {
    Path s(sdir, sname), d(ddir, dname);
    return mvFile(s, d);
}

int cpFile(const char* source, const char* destination) {
    struct stat ss, ds;
    // Opening the destination truncates it: never copy a file onto itself.
    if (stat(source, &ss) == 0 && stat(destination, &ds) == 0 && ss.st_dev == ds.st_dev && ss.st_ino == ds.st_ino)
        return 1;
    bool ok = false;
    int dfd = -1;
    char* buf = nullptr;
    // Read-write on purpose: a source we may not write is left to the shell copy.
    int sfd = open(source, O_RDWR, FILE_MODE);
    if (sfd >= 0) {
        dfd = open(destination, O_WRONLY | O_CREAT | O_TRUNC, FILE_MODE);
        if (dfd >= 0) flock(dfd, LOCK_EX);
    }
    if (sfd >= 0 && dfd >= 0 && fstat(sfd, &ss) == 0 && (buf = static_cast<char*>(::malloc(COPY_BUFFER)))) {
        ok = true;
        off_t remaining = ss.st_size;
        while (ok && remaining > 0) {
            size_t want = remaining < static_cast<off_t>(COPY_BUFFER) ? static_cast<size_t>(remaining) : COPY_BUFFER;
            ssize_t got = readFully(sfd, buf, want);
            if (got != static_cast<ssize_t>(want)) ok = false;
            else if (writeFully(dfd, buf, want) != static_cast<ssize_t>(want)) ok = false;
            remaining -= static_cast<off_t>(want);
        }
        if (fsync(dfd) != 0 && errno != EINVAL) ok = false;
    }
    if (dfd >= 0) close(dfd);
    if (sfd >= 0) close(sfd);
    ::free(buf);
    if (ok) {
        chmod(destination, FILE_MODE);
        return 0;
    }
    unlink(destination);
    return shellTwo("cp -f", source, destination) != 0 ? 1 : 0;
}

int cpFile(const char* sdir, const char* sname, const char* ddir, const char* dname) {
    Path s(sdir, sname), d(ddir, dname);
    return cpFile(s, d);
}

int rmFile(const char* dir, const char* name) {
    Path path(dir, name);
    return unlink(path);
}

bool fileExists(const char* dir, const char* name) {
    Path path(dir, name);
    struct stat st;
    return stat(path, &st) == 0;
}

bool nonZeroFile(const char* dir, const char* name) {
    Path path(dir, name);
    struct stat st;
    return stat(path, &st) == 0 && st.st_size > 0;
}

long long getFileSize(const char* dir, const char* name) {
    Path path(dir, name);
    struct stat st;
    return stat(path, &st) == 0 ? static_cast<long long>(st.st_size) : 0;
}

time_t getFileModTime(const char* dir, const char* name) {
    Path path(dir, name);
    struct stat st;
    return stat(path, &st) == 0 ? st.st_mtime : 0;
}

bool isLocked(const char* path) {
    int fd = path ? open(path, O_RDONLY) : -1;
    if (fd < 0) return false;
    bool locked = flock(fd, LOCK_EX | LOCK_NB) != 0;
    close(fd);
    return locked;
}

int getFileCount(const char* dir) {
    DIR* d = dir ? opendir(dir) : nullptr;
    if (!d) return 0;
    int count = 0;
    std::string path;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        path.assign(dir).append("/").append(e->d_name);
        struct stat st;
        if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) ++count;
    }
    closedir(d);
    return count;
}

char* shellQuote(const char* text) {
    if (!text) text = "";
    size_t quotes = 0;
    for (const char* p = text; *p; ++p)
        if (*p == '\'') ++quotes;
    char* out = static_cast<char*>(::malloc(strlen(text) + quotes * 3 + 3));
    char* o = out;
    *o++ = '\'';
    for (const char* p = text; *p; ++p) {
        if (*p == '\'') {
            memcpy(o, "'\\''", 4);
            o += 4;
        } else {
            *o++ = *p;
        }
    }
    *o++ = '\'';
    *o = '\0';
    return out;
}

namespace Util {

char** listDir(const char* dir, int* count, Memory* memory) {
    *count = 0;
    DIR* d = dir ? opendir(dir) : nullptr;
    if (!d) return nullptr;
    static char one[] = "1";
    KeyValues<char> table;
    size_t bytes = 0;
    while (struct dirent* e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        table.addKeyValue(e->d_name, one, 64);
    }
    closedir(d);
    int n = table.count();
    if (n == 0) return nullptr;
    for (int i = 0; i < n; ++i) bytes += strlen(table.keyAt(i)) + 1;
    // The table dies here, so the names travel with the array.
    size_t size = sizeof(char*) * n + bytes;
    char** names = reinterpret_cast<char**>(memory ? static_cast<char*>(memory->malloc(size))
                                                   : InternalCache::getCacheReturn(nullptr, size, false));
    char* p = reinterpret_cast<char*>(names + n);
    for (int i = 0; i < n; ++i) {
        size_t len = strlen(table.keyAt(i)) + 1;
        memcpy(p, table.keyAt(i), len);
        names[i] = p;
        p += len;
    }
    *count = n;
    return names;
}

char** listDirC(const char* dir, int* count, Memory* memory) {
    *count = 0;
    char listing[64];
    snprintf(listing, sizeof listing, "/tmp/LL.%u.txt", static_cast<unsigned int>(time(nullptr)));
    char* quotedDir = shellQuote(dir);
    std::string cmd = std::string("ls -1 ") + quotedDir + " > " + listing;
    ::free(quotedDir);
    int rc = system(cmd.c_str());
    (void)rc;  // ls fails on a missing directory; the empty listing says so
    char** names = nullptr;
    if (nonZeroFile(listing, "")) {
        char* text = readTrimmed(listing, "");
        names = *text ? split(text, '\n', count, memory) : nullptr;
    }
    unlink(listing);
    return names;
}

}  // namespace Util
