#include "uploadReceiver.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "channel.h"
#include "faults.h"
#include "keySession.h"
#include "request.h"
#include "serviceContext.h"
#include "socketIo.h"

namespace {

constexpr size_t kChunk = 1 << 20;
// Smaller files go through the page cache on the reading thread: a thread and
// a wait on the disk would cost them more than they spare.
constexpr unsigned long long kStoreAsideFrom = 16 * kChunk;

std::string storageName(std::string name) {
    for (char& c : name)
        if (c == '/' || c == '\0') c = '_';
    return isPlainName(name) ? name : "";
}

bool writeFull(int fd, const char* p, size_t n) {
    while (n > 0) {
        ssize_t w = write(fd, p, n);
        if (w < 0 && errno == EINTR) continue;
        if (w <= 0) return false;
        p += w;
        n -= static_cast<size_t>(w);
    }
    return true;
}

// A read yields one record at most: records are gathered until n bytes.
bool readFull(ServerTlsSession& session, char* p, size_t n) {
    for (size_t got = 0; got < n;) {
        int r = session.read(p + got, n - got);
        if (r <= 0) return false;
        got += static_cast<size_t>(r);
    }
    return true;
}

// Stores whole chunks from a thread of its own, so that the next chunk is
// read while the last one goes to disk, and around the page cache where the
// file system allows it: copying every byte into fresh cache pages took the
// reading thread a large share of the time it spends deciphering them.
class ChunkStore {
public:
    explicit ChunkStore(int fd) : m_fd(fd) {
        for (auto& b : m_buffers) {
            b.reset(static_cast<char*>(aligned_alloc(kAlign, kChunk)));
            m_free.push_back(b.get());
        }
        int flags = fcntl(fd, F_GETFL);
        m_direct = flags >= 0 && fcntl(fd, F_SETFL, flags | O_DIRECT) == 0;
        m_thread = std::thread([this] { run(); });
    }
    ~ChunkStore() { finish(); }
    ChunkStore(const ChunkStore&) = delete;
    ChunkStore& operator=(const ChunkStore&) = delete;

    // A buffer of kChunk bytes to fill; null once a write failed.
    char* take() {
        std::unique_lock<std::mutex> lock(m_mutex);
        // A disk that takes longer than this for one chunk counts as failed.
        if (!m_changed.wait_for(lock, std::chrono::seconds(60), [this] { return m_failed || !m_free.empty(); }))
            m_failed = true;
        if (m_failed) return nullptr;
        char* b = m_free.back();
        m_free.pop_back();
        return b;
    }
    // Queues a full buffer to be written after the ones before it.
    void put(char* b) {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.push_back(b);
        m_changed.notify_all();
    }
    // Waits for the queued writes; true when all of them succeeded. Later
    // writes to the file go through the page cache again.
    bool finish() {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_closing = true;
            m_changed.notify_all();
        }
        if (m_thread.joinable()) m_thread.join();
        if (m_direct) setDirect(false);
        return !m_failed;
    }

private:
    static constexpr size_t kAlign = 4096;

    void setDirect(bool on) {
        int flags = fcntl(m_fd, F_GETFL);
        if (flags >= 0) fcntl(m_fd, F_SETFL, on ? flags | O_DIRECT : flags & ~O_DIRECT);
        m_direct = on;
    }
    void run() {
        for (;;) {
            char* b;
            {
                std::unique_lock<std::mutex> lock(m_mutex);
                m_changed.wait(lock, [this] { return m_closing || !m_queue.empty(); });
                if (m_queue.empty()) return;
                b = m_queue.front();
                m_queue.pop_front();
            }
            bool ok = writeFull(m_fd, b, kChunk);
            // Some file systems take the flag but refuse the writes.
            if (!ok && errno == EINVAL && m_direct) {
                setDirect(false);
                ok = lseek(m_fd, m_written, SEEK_SET) == m_written && writeFull(m_fd, b, kChunk);
            }
            m_written += kChunk;
            std::lock_guard<std::mutex> lock(m_mutex);
            m_failed = m_failed || !ok;
            m_free.push_back(b);
            m_changed.notify_all();
        }
    }

    struct Free {
        void operator()(char* p) const { free(p); }
    };
    int m_fd;
    bool m_direct = false;
    off_t m_written = 0;
    std::unique_ptr<char, Free> m_buffers[3];
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<char*> m_free;
    std::deque<char*> m_queue;
    bool m_closing = false;
    bool m_failed = false;
    std::thread m_thread;
};

// Reads the announced bytes into the temporary; false when the box stops short.
bool receiveBytes(ServerTlsSession& session, int out, unsigned long long size) {
    session.readAhead(size);
    if (size >= kStoreAsideFrom) {
        ChunkStore store(out);
        for (; size >= kChunk; size -= kChunk) {
            char* b = store.take();
            if (!b || !readFull(session, b, kChunk)) return false;
            store.put(b);
        }
        if (!store.finish()) return false;
    }
    std::vector<char> buf(size < kChunk ? static_cast<size_t>(size) : kChunk);
    for (size_t n; size > 0; size -= n) {
        n = size < kChunk ? static_cast<size_t>(size) : kChunk;
        if (!readFull(session, buf.data(), n) || !writeFull(out, buf.data(), n)) return false;
    }
    return true;
}

// Takes half the bytes and drops the connection, as a service that dies mid-transfer.
void cutHalfWay(ServerTlsSession& session, int fd, unsigned long long size) {
    std::vector<char> buf(kChunk);
    unsigned long long left = size / 2;
    while (left > 0) {
        size_t want = left < kChunk ? static_cast<size_t>(left) : kChunk;
        int n = session.read(buf.data(), want);
        if (n <= 0) break;
        left -= static_cast<unsigned long long>(n);
    }
    LocalIo::resetOnClose(fd);
}

}  // namespace

void receiveUpload(const Request& request, CommandChannel& channel, ServiceContext& context) {
    std::string name = storageName(request.uploadName);
    std::string displayName = context.config.displayName(request.boxId);
    if (name.empty() || !request.uploadSizeValid || displayName.empty()) {
        channel.reply("error");
        channel.finish();
        return;
    }
    if (faultOn(context.config, Fault::UploadNo)) {
        channel.reply("NO");
        channel.handOver(false);
        return;
    }
    auto keyed = openKeySession(channel, context, "OK", request.uploadId, displayName);
    if (!keyed) return;
    ServerTlsSession& session = *keyed;

    if (faultOn(context.config, Fault::CutUpload)) {
        cutHalfWay(session, channel.fd(), request.uploadSize);
        return;
    }

    std::string finalPath = context.config.storeDir() + "/" + name;
    std::string partPath = context.config.storeDir() + "/.part." + std::to_string(getpid()) + "." +
                           std::to_string(reinterpret_cast<unsigned long>(&session));
    int out = open(partPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (out < 0) return;
    bool complete = receiveBytes(session, out, request.uploadSize);
    complete = close(out) == 0 && complete;
    if (!complete) {
        unlink(partPath.c_str());
        return;
    }
    writeWhole(context.config.headersDir() + "/" + name, request.line);
    if (rename(partPath.c_str(), finalPath.c_str()) != 0) {
        unlink(partPath.c_str());
        return;
    }
    if (session.writeAll(std::string("OK")) && LocalIo::readable(channel.fd(), 5000))
        session.expectCloseNotify();
}
