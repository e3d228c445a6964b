#include "processing.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "anonFile.h"
#include "dicom.h"
#include "files.h"
#include "memory.h"
#include "settings.h"
#include "text.h"

int Random0 = 0;

namespace {

constexpr unsigned START_DELAY_S = 10;
constexpr unsigned PASS_PAUSE_S = 5;
constexpr int MOST_WORKERS = 16;
const char* const BAD_SUFFIX = ".BAD";
const char* const REF_SUFFIX = ".REF";

std::atomic<int64_t> timestamps[MOST_WORKERS + 1];

// The name comes first: fileCmp orders entries as it orders names.
struct Listed {
    char* name;
    off_t size;
    time_t mtime;
};

std::string queueDir(uint32_t worker) {
    return worker == 0 ? std::string(qDir) : std::string(qDir) + std::to_string(worker);
}

bool statOf(const std::string& path, struct stat* st) { return stat(path.c_str(), st) == 0; }

bool exists(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

// Renames without replacing anything at the target: 0, EEXIST, or another
// errno value. Where the file system cannot refuse a replacement itself (or
// the target lies on another one), the target is looked at first.
int moveNoReplace(const std::string& from, const std::string& to) {
    if (renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0) return 0;
    int e = errno;
    if (e != EINVAL && e != ENOSYS && e != EXDEV) return e;
    if (exists(to)) return EEXIST;
    return mvFile(from.c_str(), to.c_str()) == 0 ? 0 : EIO;
}

// Worker 0 hands a new file to the next worker under "%010u.%s". False
// when the file is still in qDir (worker 0 then keeps it).
bool distribute(const std::string& name, time_t mtime) {
    Random0 = Random0 >= NUM_WORKERS ? 1 : Random0 + 1;
    char target[300];
    snprintf(target, sizeof target, "%010u.%s", static_cast<unsigned>(mtime), name.c_str());
    std::string from = std::string(qDir) + "/" + name;
    std::string to = queueDir(Random0) + "/" + target;
    int rc = moveNoReplace(from, to);
    if (rc != 0 && rc != EEXIST && !exists(to) && cpFile(from.c_str(), to.c_str()) == 0 && exists(to))
        unlink(from.c_str());
    return !exists(from);
}

// Moves a processed file into the export directory without replacing a
// file there that still waits for its upload.
bool exportFile(const std::string& path, const std::string& name, bool unprocessed) {
    for (int n = 0; n < 1000; ++n) {
        std::string target = std::string(viewpointDir) + "/" + name;
        if (n) target += "." + std::to_string(n);
        if (unprocessed) target += UNPROCESSED_MARK;
        int rc = moveNoReplace(path, target);
        if (rc == 0) return true;
        if (rc == EEXIST) continue;
        fprintf(stderr, "Could not move %s into the export directory; it stays queued\n",
                path.c_str());
        return false;
    }
    return false;
}

// A discarded file that would not go is fenced off for good.
void removeForGood(const std::string& path) {
    unlink(path.c_str());
    if (!exists(path)) return;
    sleep(1);
    unlink(path.c_str());
    if (!exists(path)) return;
    std::string marker = path + BAD_SUFFIX;
    const char* text = "move/rm failed";
    writeData(marker.c_str(), "", text, strlen(text));
}

void processReference(const std::string& dir, const std::string& refPath, uint32_t worker,
                      time_t refTime) {
    std::string target = trimmed(readText(refPath.c_str(), "", 4096));
    struct stat st;
    // Only an image is processed in place through a reference, never any
    // other file the reference might name.
    if (!target.empty() && statOf(target, &st) && S_ISREG(st.st_mode) &&
        isDicom(target.c_str(), "")) {
        size_t slash = target.rfind('/');
        std::string copy = dir + "/" + (slash == std::string::npos ? target : target.substr(slash + 1));
        if (cpFile(target.c_str(), copy.c_str()) == 0) {
            int result = processAnonFile(copy.c_str(), static_cast<int>(worker), refTime, nullptr);
            if (result == ANON_RETRY) {
                unlink(copy.c_str());
                return;
            }
            if (result == ANON_DISCARD) {
                unlink(target.c_str());
                unlink(copy.c_str());
            } else if (mvFile(copy.c_str(), target.c_str()) != 0) {
                unlink(copy.c_str());
            }
        }
    }
    removeForGood(refPath);
}

void processQueued(const std::string& path, const std::string& name, uint32_t worker,
                   time_t mtime) {
    if (!isDicom(path.c_str(), "")) return;  // seen again next pass
    bool unprocessed = false;
    int result = processAnonFile(path.c_str(), static_cast<int>(worker), mtime, &unprocessed);
    if (result == ANON_RETRY) return;
    if (result == ANON_DISCARD) {
        removeForGood(path);
        return;
    }
    exportFile(path, name, unprocessed);
}

}  // namespace

int fileCmp(const void* a, const void* b) {
    return strcmp(*static_cast<char* const*>(a), *static_cast<char* const*>(b));
}

int64_t processingTimestamp(uint32_t worker) {
    return worker <= MOST_WORKERS ? timestamps[worker].load() : 0;
}

void processing_loop_proc(WorkerContext* context) {
    *context->timestamp = 0;
    uint32_t worker = context->worker;
    std::string dir = queueDir(worker);
    recoverInputCopies(dir.c_str());
    DIR* d = opendir(dir.c_str());
    if (!d) return;
    bool distributor = worker == 0 && NUM_WORKERS >= 2;
    Memory mem;
    std::vector<Listed> listed;
    while (struct dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        std::string path = dir + "/" + name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) continue;
        long age = static_cast<long>(time(nullptr) - st.st_mtime);
        if (age >= 0 && age < SETTLE_S) sleep(static_cast<unsigned>(age));
        if (!statOf(path, &st)) continue;
        bool candidate = S_ISREG(st.st_mode) && !endsWith(name.c_str(), BAD_SUFFIX) &&
                         !exists(path + BAD_SUFFIX);
        if (distributor && candidate && distribute(name, st.st_mtime)) continue;
        if (candidate) {
            char* copy = static_cast<char*>(mem.malloc(name.size() + 1));
            memcpy(copy, name.c_str(), name.size() + 1);
            listed.push_back({copy, st.st_size, st.st_mtime});
        }
    }
    closedir(d);

    if (!listed.empty()) qsort(listed.data(), listed.size(), sizeof(Listed), fileCmp);
    for (const Listed& l : listed) {
        std::string path = dir + "/" + l.name;
        struct stat st;
        if (!statOf(path, &st)) continue;
        // Still being written: next pass.
        if (st.st_size != l.size || st.st_mtime != l.mtime || st.st_mtime == time(nullptr)) continue;
        if (endsWith(l.name, REF_SUFFIX))
            processReference(dir, path, worker, st.st_mtime);
        else
            processQueued(path, l.name, worker, st.st_mtime);
        *context->timestamp = time(nullptr);
        if (worker <= MOST_WORKERS) timestamps[worker] = *context->timestamp;
    }
}

void* processing_proc(void* arg) {
    uint32_t worker = *static_cast<uint32_t*>(arg);
    sleep(START_DELAY_S);
    int64_t timestamp = 0;
    WorkerContext context{&timestamp, worker};
    for (;;) {
        processing_loop_proc(&context);
        sleep(PASS_PAUSE_S);
    }
    return nullptr;
}
