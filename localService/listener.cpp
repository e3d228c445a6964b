#include "listener.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

#include "serviceContext.h"
#include "socketIo.h"

bool isLoopbackAddress(const std::string& address) {
    in_addr a{};
    return inet_pton(AF_INET, address.c_str(), &a) == 1 && (ntohl(a.s_addr) >> 24) == 127;
}

Listener::~Listener() {
    if (m_fd >= 0) close(m_fd);
}

std::string Listener::open(const std::string& address, int port) {
    if (!isLoopbackAddress(address)) return "refusing to listen on " + address + ": loopback only";
    m_fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (m_fd < 0) return std::string("socket: ") + strerror(errno);
    int one = 1;
    setsockopt(m_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    inet_pton(AF_INET, address.c_str(), &a.sin_addr);
    if (bind(m_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0)
        return "bind " + address + ":" + std::to_string(port) + ": " + strerror(errno);
    if (listen(m_fd, 128) != 0) return std::string("listen: ") + strerror(errno);
    socklen_t len = sizeof a;
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &len);
    m_port = ntohs(a.sin_port);
    return "";
}

namespace {

struct Worker {
    std::thread thread;
    int fd;
    bool done = false;
};

}  // namespace

void Listener::run(ServiceContext& context, Handler serve) {
    std::mutex lock;
    std::list<Worker> workers;

    auto reap = [&](bool all) {
        std::list<Worker> finished;
        {
            std::lock_guard<std::mutex> hold(lock);
            for (auto it = workers.begin(); it != workers.end();) {
                auto next = std::next(it);
                if (all || it->done) finished.splice(finished.end(), workers, it);
                it = next;
            }
        }
        for (auto& w : finished) w.thread.join();
    };

    while (!LocalIo::stopping()) {
        pollfd p{m_fd, POLLIN, 0};
        if (poll(&p, 1, 200) <= 0) {
            reap(false);
            continue;
        }
        int fd = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        std::lock_guard<std::mutex> hold(lock);
        workers.emplace_back();
        Worker* w = &workers.back();
        w->fd = fd;
        w->thread = std::thread([w, fd, &context, &lock, serve] {
            serve(fd, context);
            std::lock_guard<std::mutex> done(lock);
            close(fd);
            w->done = true;
        });
    }
    close(m_fd);
    m_fd = -1;
    // Connection threads notice the stop flag within one poll period; a send
    // blocked on a box that reads nothing is released by the shutdown.
    {
        std::lock_guard<std::mutex> hold(lock);
        for (auto& w : workers)
            if (!w.done) shutdown(w.fd, SHUT_RDWR);
    }
    reap(true);
}
