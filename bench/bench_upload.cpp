// Upload throughput to the bundled local service over loopback, beside the
// limit: a raw pre-shared-key TLS stream between two sockets of this process
// with the suite the data session negotiates.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>
#include <string>
#include <thread>
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

void benchUploads(const std::string& dataDir, const std::string& files, const LocalService& svc,
                  const char* label, size_t size, int count) {
    std::string path = files + "/payload.bin";
    makeFile(path, size);
    int failed = 0;
    auto t0 = Clock::now();
    for (int i = 0; i < count; ++i) {
        failed += SendFile::sendWFile(path.c_str(), ("f" + std::to_string(i) + ".bin").c_str(),
                                      nullptr, "A", "B", dataDir.c_str(), true, false) != 0;
        unlink(svc.storedFile("f" + std::to_string(i) + ".bin").c_str());
    }
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    printf("upload %-7s x %4d: %8.1f MB/s  %8.1f files/s  (%d failed)\n", label, count,
           (double)size * count / s / 1e6, count / s, failed);
    unlink(path.c_str());
}

// ---- the limit: one PSK TLS stream inside this process

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

void benchRawStream(size_t total) {
    int lst = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    inet_pton(AF_INET, "127.0.0.1", &a.sin_addr);
    bind(lst, (sockaddr*)&a, sizeof a);
    listen(lst, 1);
    socklen_t len = sizeof a;
    getsockname(lst, (sockaddr*)&a, &len);
    int c = socket(AF_INET, SOCK_STREAM, 0);
    connect(c, (sockaddr*)&a, sizeof a);
    int s = accept(lst, nullptr, nullptr);
    close(lst);
    const std::string key = "bench-key-0123456789";

    size_t received = 0;
    std::thread server([&] {
        Side srv(s, MBEDTLS_SSL_IS_SERVER, key);
        if (!srv.handshake()) return;
        std::vector<unsigned char> buf(1 << 20);
        while (received < total) {
            int n = mbedtls_ssl_read(&srv.ssl, buf.data(), buf.size());
            if (n <= 0) break;
            received += (size_t)n;
        }
    });
    Side cli(c, MBEDTLS_SSL_IS_CLIENT, key);
    if (!cli.handshake()) {
        fprintf(stderr, "raw handshake failed\n");
        server.join();
        return;
    }
    std::vector<unsigned char> buf(1 << 20, 0x5a);
    auto t0 = Clock::now();
    for (size_t sent = 0; sent < total;) {
        size_t want = total - sent < buf.size() ? total - sent : buf.size();
        int n = mbedtls_ssl_write(&cli.ssl, buf.data(), want);
        if (n <= 0) break;
        sent += (size_t)n;
    }
    server.join();
    double secs = std::chrono::duration<double>(Clock::now() - t0).count();
    printf("raw TLS stream %s: %8.1f MB/s\n", mbedtls_ssl_get_ciphersuite(&cli.ssl),
           (double)received / secs / 1e6);
    close(c);
    close(s);
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
        benchUploads(data.path(), files.path(), svc, "200 MB", 200u << 20, 2);
        benchRawStream(400u << 20);
    } catch (const std::exception& e) {
        fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
