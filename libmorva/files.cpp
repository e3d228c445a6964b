#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
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
// Temporary names tried in turn while earlier ones are taken.
const int TEMPORARY_TRIES = 64;

thread_local unsigned int t_temporaryCount = 0;

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

// The errno of a failure, also of one that set none (a write of 0 bytes).
int failure() { return errno ? errno : EIO; }

// Creates a temporary beside path, "<path>.SV.<pid>.<tid>.<n>" (hidden:
// "<dir>/.<name>.SV.<pid>.<tid>.<n>"). It is always a new file: a name
// planted by someone else, link or not, is passed by. -1 with errno on failure.
int createTemporary(const char* path, bool hidden, std::string& temp) {
    std::string prefix = path;
    if (hidden) {
        size_t slash = prefix.rfind('/');
        prefix.insert(slash == std::string::npos ? 0 : slash + 1, ".");
    }
    prefix += ".SV." + std::to_string(getpid()) + "." + std::to_string(syscall(SYS_gettid)) + ".";
    for (int i = 0; i < TEMPORARY_TRIES; i++) {
        temp = prefix + std::to_string(t_temporaryCount++);
        int fd = open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, FILE_MODE);
        if (fd < 0 && errno == EEXIST) continue;
        if (fd < 0) return -1;
        // The umask must not narrow it.
        if (fchmod(fd, FILE_MODE) == 0) return fd;
        int e = errno;
        close(fd);
        unlink(temp.c_str());
        errno = e;
        return -1;
    }
    errno = EEXIST;
    return -1;
}

// Brings what was written to disk and closes fd; 0 or an errno value.
int syncAndClose(int fd) {
    int rc = fsync(fd) == 0 ? 0 : failure();
    if (close(fd) != 0 && rc == 0) rc = failure();
    return rc;
}

// Writes all bytes, then syncAndClose (or only closes).
int fillAndClose(int fd, const char* bytes, size_t length, bool sync = true) {
    errno = 0;
    if (writeFully(fd, bytes, length) == static_cast<ssize_t>(length)) {
        if (sync) return syncAndClose(fd);
        return close(fd) == 0 ? 0 : failure();
    }
    int rc = failure();
    close(fd);
    return rc;
}

// Brings the directory holding path to disk, with the entries just made in it.
int syncDirectoryOf(const char* path) {
    const char* slash = strrchr(path, '/');
    std::string dir = slash ? std::string(path, slash == path ? 1 : slash - path) : ".";
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return failure();
    // Some file systems cannot sync a directory and say so with EINVAL.
    int rc = fsync(fd) == 0 || errno == EINVAL ? 0 : failure();
    close(fd);
    return rc;
}

// Reads an open file whole into a malloc'd buffer with 4 spare bytes.
// Returns 0, or -1 on allocation failure, -2 on read failure.
int slurpFd(int fd, char** out, size_t* length, size_t most) {
    off_t size = lseek(fd, 0, SEEK_END);
    if (size < 0) size = 0;
    if (static_cast<uint64_t>(size) > most) size = static_cast<off_t>(most);
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

// Copies size bytes; false when the source gave fewer (it shrank) or a write failed.
bool copyBytes(int from, int to, off_t size) {
    char* buf = static_cast<char*>(::malloc(Limits::COPY_BUFFER));
    bool ok = buf != nullptr;
    for (off_t remaining = size; ok && remaining > 0;) {
        size_t want = remaining < static_cast<off_t>(Limits::COPY_BUFFER) ? static_cast<size_t>(remaining) : Limits::COPY_BUFFER;
        ok = readFully(from, buf, want) == static_cast<ssize_t>(want) &&
             writeFully(to, buf, want) == static_cast<ssize_t>(want);
        remaining -= static_cast<off_t>(want);
    }
    ::free(buf);
    return ok;
}

bool atomicWrite(const char* dir, const char* name, const void* bytes, size_t length, bool syncDirectory,
                 bool syncContent = true) {
    Path path(dir, name);
    std::string temp;
    int fd = path.p ? createTemporary(path, false, temp) : -1;
    if (fd < 0) return false;
    if (!bytes) length = 0;
    // A failed rename leaves the file alone: the old content is still good.
    if (fillAndClose(fd, static_cast<const char*>(bytes), length, syncContent) != 0 ||
        rename(temp.c_str(), path) != 0) {
        unlink(temp.c_str());
        return false;
    }
    return !syncDirectory || syncDirectoryOf(path) == 0;
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

char* readTxt(const char* dir, const char* name, size_t most) {
    Path path(dir, name);
    int fd = path.p ? openRegular(path) : -1;
    if (fd < 0) {
        // A directory is no error: it reads as empty without a word.
        if (errno == ENODEV) {
            std::string line = std::string("readTxt: not a regular file, read as empty: ") + path.p;
            logLine(line.c_str());
        }
        return EMPTY_TEXT;
    }
    char* buf = nullptr;
    size_t length = 0;
    int rc = slurpFd(fd, &buf, &length, most);
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

std::string readText(const char* dir, const char* name, size_t most) {
    char* text = readTxt(dir, name, most);
    std::string s = text;
    if (text != EMPTY_TEXT) ::free(text);
    return s;
}

char* readTrimmed(const char* dir, const char* name, size_t most) {
    char* text = readTxt(dir, name, most < Limits::RING_TEXT_MOST ? most : Limits::RING_TEXT_MOST);
    char* cached = InternalCache::getCacheReturn(text, strlen(text) + 1, false);
    if (text != EMPTY_TEXT) ::free(text);
    return trim(cached);
}

char* readTrimmed(const char* dir, const StateFileName& file) { return readTrimmed(dir, file.name, file.most); }

long long positiveNumber(const char* dir, const StateFileName& file) {
    const char* text = readTrimmed(dir, file);
    char* end = nullptr;
    errno = 0;
    long long value = strtoll(text, &end, 10);
    return *text && !*end && errno == 0 && value > 0 ? value : 0;
}

bool writeTxt(const char* dir, const char* name, const char* text) {
    if (!text) text = "";
    return atomicWrite(dir, name, text, strlen(text), false);
}

bool writeTxtUnsynced(const char* dir, const char* name, const char* text) {
    if (!text) text = "";
    return atomicWrite(dir, name, text, strlen(text), false, false);
}

bool syncFileSystemOf(const char* dir) {
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) return false;
    bool ok = syncfs(fd) == 0;
    close(fd);
    return ok;
}

bool writeData(const char* dir, const char* name, const void* bytes, size_t length) {
    return atomicWrite(dir, name, bytes, length, false);
}

bool writeDataSynced(const char* dir, const char* name, const void* bytes, size_t length) {
    return atomicWrite(dir, name, bytes, length, true);
}

int createDataSynced(const char* dir, const char* name, const void* bytes, size_t length) {
    Path path(dir, name);
    if (!path.p) return ENOMEM;
    std::string temp;
    int fd = createTemporary(path, true, temp);
    if (fd < 0) return failure();
    int rc = fillAndClose(fd, static_cast<const char*>(bytes), bytes ? length : 0);
    // Unlike rename, link never replaces: a taken name fails with EEXIST.
    if (rc == 0 && link(temp.c_str(), path) != 0) rc = failure();
    unlink(temp.c_str());
    return rc != 0 ? rc : syncDirectoryOf(path);
}

bool appendLogNoSync(const char* dir, const char* name, const void* bytes, size_t length) {
    Path path(dir, name);
    int fd = open(path, O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, FILE_MODE);
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
    int fd = source ? open(source, O_RDONLY | O_CLOEXEC) : -1;
    if (fd < 0) return 1;
    char* buf = nullptr;
    size_t length = 0;
    int rc = slurpFd(fd, &buf, &length, SIZE_MAX);
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
    FILE* f = path ? fopen(path, "a+e") : nullptr;
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
    struct stat st;
    if (lstat(source, &st) != 0) return -1;
    // -T: a directory in the way is refused, never entered.
    std::string cmd = "mv -fT -- " + shellArg(source) + " " + shellArg(destination);
    return system(cmd.c_str());
}

int mvFile(const char* sdir, const char* sname, const char* ddir, const char* dname) {
    Path s(sdir, sname), d(ddir, dname);
    return mvFile(s, d);
}

int cpFile(const char* source, const char* destination) {
    struct stat ss, ds;
    if (stat(source, &ss) == 0 && stat(destination, &ds) == 0 && ss.st_dev == ds.st_dev && ss.st_ino == ds.st_ino)
        return 1;
    int sfd = open(source, O_RDONLY | O_CLOEXEC);
    if (sfd < 0) return 1;
    std::string temp;
    int dfd = fstat(sfd, &ss) == 0 && S_ISREG(ss.st_mode) ? createTemporary(destination, false, temp) : -1;
    bool ok = dfd >= 0 && copyBytes(sfd, dfd, ss.st_size);
    if (dfd >= 0 && (syncAndClose(dfd) != 0 || !ok || rename(temp.c_str(), destination) != 0)) {
        unlink(temp.c_str());
        ok = false;
    }
    close(sfd);
    return ok ? 0 : 1;
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

long long fileSizeOf(const char* path) {
    struct stat st;
    return path && stat(path, &st) == 0 ? static_cast<long long>(st.st_size) : -1;
}

time_t getFileModTime(const char* dir, const char* name) {
    Path path(dir, name);
    struct stat st;
    return stat(path, &st) == 0 ? st.st_mtime : 0;
}

bool isLocked(const char* path) {
    int fd = path ? open(path, O_RDONLY | O_CLOEXEC) : -1;
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

int openRegular(const char* path) {
    // Non-blocking, so that a FIFO without a writer cannot hold the reader.
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) return -1;
    struct stat st{};
    if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
        int kind = S_ISDIR(st.st_mode) ? EISDIR : ENODEV;
        close(fd);
        errno = kind;
        return -1;
    }
    return fd;
}

bool isRegularFile(const char* path) {
    struct stat st;
    return path && stat(path, &st) == 0 && S_ISREG(st.st_mode);
}

std::string shellArg(const std::string& text) {
    char* quoted = shellQuote(text.c_str());
    std::string result(quoted);
    ::free(quoted);
    return result;
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

}  // namespace Util

std::string resolvedPath(const std::string& path) {
    char* resolved = realpath(path.c_str(), nullptr);
    if (!resolved) return "";
    std::string out = resolved;
    ::free(resolved);
    return out;
}
