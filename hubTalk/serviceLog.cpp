#include "serviceLog.h"

#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>

#include "bounds.h"
#include "sendFile.h"
#include "settings.h"
#include "threads.h"

namespace {

const size_t SERVICE_LINE_MOST = 2048;
const int SENDER_NICENESS = 10;

// A line with the settings it was queued under: the sender never reads the
// process-wide settings, which their owner may change meanwhile.
struct Line {
    std::string text;
    std::string dataDir;
    bool verbose;
    bool quiet;
};

struct Queue {
    std::mutex lock;
    std::condition_variable changed;
    std::deque<Line> lines;
    size_t bytes = 0;
    unsigned long dropped = 0;
    bool sending = false;
};

// Never destroyed: the detached sender may still wait on it while the
// process exits.
Queue* queue = nullptr;
pid_t queueOwner = 0;
std::mutex queueStart;

void send(const Line& line) {
    int status = 0;
    SendFile::sendLogMsg(line.dataDir.c_str(), status, line.text.c_str(), line.verbose, line.quiet);
}

Line now(const std::string& message) {
    return Line{message.substr(0, SERVICE_LINE_MOST), dataDir, VERBOSE, QUIET};
}

void* sender(void* arg) {
    Queue& q = *static_cast<Queue*>(arg);
    // Its handshakes yield the processor to the work the lines report on.
    if (setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), SENDER_NICENESS) != 0) {
        // Sent at the normal priority then.
    }
    for (;;) {
        Line line;
        unsigned long dropped;
        {
            std::unique_lock<std::mutex> hold(q.lock);
            q.changed.wait(hold, [&] { return !q.lines.empty(); });
            line = std::move(q.lines.front());
            q.lines.pop_front();
            q.bytes -= line.text.size();
            dropped = q.dropped;
            q.dropped = 0;
            q.sending = true;
            q.changed.notify_all();
        }
        if (dropped) {
            Line note = line;
            note.text = "Sundel:  " + std::to_string(dropped) + " log lines dropped: the log queue stayed full";
            send(note);
        }
        send(line);
        std::lock_guard<std::mutex> hold(q.lock);
        q.sending = false;
        q.changed.notify_all();
    }
    return nullptr;
}

// The queue of this process; a child forked after the sender started has no
// sender of its own and gets a fresh queue.
Queue* ownQueue() {
    std::lock_guard<std::mutex> hold(queueStart);
    if (queue && queueOwner == getpid()) return queue;
    Queue* fresh = new Queue;
    if (!startThread(sender, fresh, SERVICE_LOG_STACK)) {
        delete fresh;
        return nullptr;
    }
    queue = fresh;
    queueOwner = getpid();
    return queue;
}

}  // namespace

void logToService(const std::string& message) {
    send(now(message));
}

void logToServiceLater(const std::string& message) {
    Line line = now(message);
    Queue* q = ownQueue();
    if (!q) {
        send(line);
        return;
    }
    std::unique_lock<std::mutex> hold(q->lock);
    bool room = q->changed.wait_for(hold, std::chrono::seconds(Limits::SERVICE_LOG_ROOM_WAIT_S), [&] {
        return q->lines.empty() || q->bytes + line.text.size() <= Limits::SERVICE_LOG_QUEUE_BYTES;
    });
    if (!room) {
        ++q->dropped;
        return;
    }
    q->bytes += line.text.size();
    q->lines.push_back(std::move(line));
    q->changed.notify_all();
}

bool flushServiceLog(unsigned seconds) {
    Queue* q;
    {
        // Nothing was queued in this process: no sender to start, nothing to wait for.
        std::lock_guard<std::mutex> hold(queueStart);
        q = queueOwner == getpid() ? queue : nullptr;
    }
    if (!q) return true;
    std::unique_lock<std::mutex> hold(q->lock);
    return q->changed.wait_for(hold, std::chrono::seconds(seconds),
                               [&] { return q->lines.empty() && !q->sending && q->dropped == 0; });
}
