// Upload throughput to the bundled local service over loopback, beside the
// limit: a raw pre-shared-key TLS stream with the suite the data session
// negotiates, from memory in this process to a forked reader, so that, as
// with the service, sender and receiver are two processes.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>
#include <mbedtls/ssl.h>

#include "localServiceProcess.h"
#include "sendFile.h"

namespace {

using Clock = std::chrono::steady_clock;

void makeFile(const std::string& path, size_t size) {
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) block[i] = (char)(i * 7 + 3);
    FILE* f = fopen(path.c_str(), "wb");
    for (size_t left = size; left > 0;) {
        size_t n = left < block.size() ? left : block.size();
        fwrite(block.data(), 1, n, f);
        left -= n;
    }
    fclose(f);
}

// Rate in MB/s of count uploads of one file (0 when any failed); only the
// uploads are timed, not removing what was stored.
double timeUploads(const std::string& dataDir, const std::string& path, const LocalService& svc,
                   size_t size, int count, int* failed) {
    *failed = 0;
    double s = 0;
    for (int i = 0; i < count; ++i) {
        std::string name = "f" + std::to_string(i) + ".bin";
        auto t0 = Clock::now();
        *failed += SendFile::sendWFile(path.c_str(), name.c_str(), nullptr, "A", "B",
                                       dataDir.c_str(), true, false) != 0;
        s += std::chrono::duration<double>(Clock::now() - t0).count();
        unlink(svc.storedFile(name).c_str());
    }
    return *failed ? 0 : (double)size * count / s / 1e6;
}

void benchUploads(const std::string& dataDir, const std::string& files, const LocalService& svc,
                  const char* label, size_t size, int count) {
    std::string path = files + "/payload.bin";
    makeFile(path, size);
    int failed;
    double rate = timeUploads(dataDir, path, svc, size, count, &failed);
    printf("upload %-7s x %4d: %8.1f MB/s  %8.1f files/s  (%d failed)\n", label, count, rate,
           rate * 1e6 / (double)size, failed);
    unlink(path.c_str());
}

// ---- the limit: one PSK TLS stream from memory to a forked reader

struct Side {
    mbedtls_ssl_context ssl;
    mbedtls_ssl_config conf;
    mbedtls_ctr_drbg_context drbg;
    mbedtls_entropy_context entropy;
    int fd;

    Side(int f, int endpoint, const std::string& key) : fd(f) {
        mbedtls_ssl_init(&ssl);
        mbedtls_ssl_config_init(&conf);
        mbedtls_ctr_drbg_init(&drbg);
        mbedtls_entropy_init(&entropy);
        mbedtls_ssl_config_defaults(&conf, endpoint, MBEDTLS_SSL_TRANSPORT_STREAM,
                                    MBEDTLS_SSL_PRESET_DEFAULT);
        mbedtls_ctr_drbg_seed(&drbg, mbedtls_entropy_func, &entropy, nullptr, 0);
        mbedtls_ssl_conf_rng(&conf, mbedtls_ctr_drbg_random, &drbg);
        mbedtls_ssl_conf_psk(&conf, (const unsigned char*)key.data(), key.size(),
                             (const unsigned char*)"Nothing", 7);
        mbedtls_ssl_setup(&ssl, &conf);
        mbedtls_ssl_set_bio(&ssl, &fd, sendCb, recvCb, nullptr);
    }
    ~Side() {
        mbedtls_ssl_free(&ssl);
        mbedtls_ssl_config_free(&conf);
        mbedtls_ctr_drbg_free(&drbg);
        mbedtls_entropy_free(&entropy);
    }
    static int sendCb(void* ctx, const unsigned char* b, size_t n) {
        ssize_t r = send(*(int*)ctx, b, n, MSG_NOSIGNAL);
        return r < 0 ? MBEDTLS_ERR_SSL_INTERNAL_ERROR : (int)r;
    }
    static int recvCb(void* ctx, unsigned char* b, size_t n) {
        ssize_t r = recv(*(int*)ctx, b, n, 0);
        return r < 0 ? MBEDTLS_ERR_SSL_INTERNAL_ERROR : (int)r;
    }
    bool handshake() {
        int rc;
        while ((rc = mbedtls_ssl_handshake(&ssl)) != 0)
            if (rc != MBEDTLS_ERR_SSL_WANT_READ && rc != MBEDTLS_ERR_SSL_WANT_WRITE) return false;
        return true;
    }
};

// Bounds the reader's life and every blocking socket call of the stream.
constexpr int kPeerWaitMs = 60000;

// The reader: takes total bytes, then answers "OK" as the service confirms
// an upload. Its exit status says whether everything arrived.
int rawReader(int fd, size_t total, const std::string& key) {
    Side srv(fd, MBEDTLS_SSL_IS_SERVER, key);
    if (!srv.handshake()) return 2;
    std::vector<unsigned char> buf(1 << 20);
    size_t received = 0;
    while (received < total) {
        int n = mbedtls_ssl_read(&srv.ssl, buf.data(), buf.size());
        if (n <= 0) return 1;
        received += (size_t)n;
    }
    return mbedtls_ssl_write(&srv.ssl, (const unsigned char*)"OK", 2) == 2 ? 0 : 1;
}

// Rate in MB/s from the first byte sent to the reader's confirmation.
double benchRawStream(size_t total) {
    int lst = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    socklen_t len = sizeof a;
    int c = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (lst < 0 || c < 0 || bind(lst, (sockaddr*)&a, sizeof a) != 0 || listen(lst, 1) != 0 ||
        getsockname(lst, (sockaddr*)&a, &len) != 0 || connect(c, (sockaddr*)&a, sizeof a) != 0) {
        fprintf(stderr, "raw stream: loopback connection failed\n");
        if (lst >= 0) close(lst);
        if (c >= 0) close(c);
        return 0;
    }
    int s = accept4(lst, nullptr, nullptr, SOCK_CLOEXEC);
    close(lst);
    timeval limit{kPeerWaitMs / 1000, 0};
    for (int fd : {c, s}) {
        setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    }
    const std::string key = "bench-key-0123456789";

    fflush(nullptr);
    pid_t pid = fork();
    if (pid == 0) {
        close(c);
        _exit(rawReader(s, total, key));
    }
    close(s);
    double rate = 0;
    std::string suite = "?";
    if (pid > 0) {
        Side cli(c, MBEDTLS_SSL_IS_CLIENT, key);
        if (cli.handshake()) {
            suite = mbedtls_ssl_get_ciphersuite(&cli.ssl);
            std::vector<unsigned char> buf(1 << 20, 0x5a);
            auto t0 = Clock::now();
            size_t sent = 0;
            while (sent < total) {
                size_t want = total - sent < buf.size() ? total - sent : buf.size();
                int n = mbedtls_ssl_write(&cli.ssl, buf.data(), want);
                if (n <= 0) break;
                sent += (size_t)n;
            }
            unsigned char ok[2];
            if (sent == total && mbedtls_ssl_read(&cli.ssl, ok, sizeof ok) == 2)
                rate = (double)total / std::chrono::duration<double>(Clock::now() - t0).count() / 1e6;
        }
    }
    close(c);
    int status = -1;
    if (pid > 0 && !waitUntil([&] { return waitpid(pid, &status, WNOHANG) == pid; }, kPeerWaitMs)) {
        kill(pid, SIGKILL);
        waitpid(pid, &status, 0);
    }
    if (pid < 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        fprintf(stderr, "raw stream: the reader failed\n");
        return 0;
    }
    printf("raw TLS stream %s, two processes: %8.1f MB/s\n", suite.c_str(), rate);
    return rate;
}

}  // namespace

int main() {
    signal(SIGPIPE, SIG_IGN);
    try {
        LocalService svc;
        TempDir data, files;
        svc.prepareAgentDataDir(data.path(), "benchbox", "Bench Clinic");

        benchUploads(data.path(), files.path(), svc, "1 KB", 1024, 300);
        benchUploads(data.path(), files.path(), svc, "1 MB", 1 << 20, 50);

        // One large file against the raw stream, in alternation, so that a
        // change in the machine's load falls on both sides of the ratio.
        const size_t big = 400u << 20;
        std::string path = files.file("large.bin");
        makeFile(path, big);
        double upload[3], raw[3], ratio[3];
        for (int round = 0; round < 3; ++round) {
            int failed;
            upload[round] = timeUploads(data.path(), path, svc, big, 1, &failed);
            printf("upload 400 MB  x    1: %8.1f MB/s  (%d failed)\n", upload[round], failed);
            raw[round] = benchRawStream(big);
            ratio[round] = raw[round] > 0 ? upload[round] / raw[round] : 0;
        }
        unlink(path.c_str());
        printf("median of 3: upload 400 MB %.1f MB/s, raw stream %.1f MB/s\n",
               median({upload[0], upload[1], upload[2]}), median({raw[0], raw[1], raw[2]}));
        printf("upload/raw ratio: %.2f\n", median({ratio[0], ratio[1], ratio[2]}));
    } catch (const std::exception& e) {
        fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
