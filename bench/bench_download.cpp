// Download throughput from the bundled local service's file endpoint over
// loopback: the download tool beside curl (when installed) and openssl
// s_client fetching the same file, each a fresh process writing a file; and
// the share of the tool's time that its fsync before the rename takes.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <string>
#include <vector>

#include "localServiceProcess.h"

namespace {

using Clock = std::chrono::steady_clock;
const size_t kSize = 100u << 20;

void makeFile(const std::string& path, size_t size) {
    std::vector<char> block(1 << 20);
    for (size_t i = 0; i < block.size(); ++i) block[i] = (char)(i * 7 + 3);
    FILE* f = fopen(path.c_str(), "wb");
    for (size_t left = size; left > 0; left -= std::min(left, block.size()))
        fwrite(block.data(), 1, std::min(left, block.size()), f);
    fclose(f);
}


off_t sizeOf(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? st.st_size : -1;
}

// MB/s of one run of the command, 0 when it failed or wrote less than expected.
double timed(const std::vector<std::string>& argv, const std::string& output, off_t expected, const char* label) {
    unlink(output.c_str());
    auto t0 = Clock::now();
    RunResult r = runProgram(argv, "", 600);
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    off_t got = sizeOf(output);
    unlink(output.c_str());
    if (r.status != 0 || got < expected) {
        fprintf(stderr, "%s failed (status %d, %lld bytes): %s\n", label, r.status, (long long)got, r.err.c_str());
        return 0;
    }
    return (double)kSize / s / 1e6;
}

// Seconds of the fsync of a freshly written file of the size, written as the
// tool writes it.
double fsyncSeconds(const std::string& path) {
    std::vector<char> piece(1 << 20, 'x');
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0664);
    for (size_t left = kSize; fd >= 0 && left > 0; left -= piece.size())
        if (write(fd, piece.data(), piece.size()) != (ssize_t)piece.size()) break;
    auto t0 = Clock::now();
    int rc = fd >= 0 ? fsync(fd) : -1;
    double s = std::chrono::duration<double>(Clock::now() - t0).count();
    if (fd >= 0) close(fd);
    unlink(path.c_str());
    return rc == 0 ? s : 0;
}

}  // namespace

int main() {
    signal(SIGPIPE, SIG_IGN);
    try {
        LocalService svc;
        TempDir files;
        std::string source = files.file("source.bin"), output = files.file("out.bin");
        makeFile(source, kSize);
        svc.setWebFile("big.bin", source);
        unlink(source.c_str());
        const std::string bin = HUBTALK_BIN, program = bin.substr(0, bin.rfind('/')) + "/download";
        const std::string ca = pkiFile("ca.crt"), url = svc.webBase() + "/big.bin";
        const bool haveCurl = access("/usr/bin/curl", X_OK) == 0;
        const std::string port = std::to_string(svc.webPort());
        // curl checks the name the certificate carries; it dials 127.0.0.1 all the same.
        const std::string curlName = "local-service:" + port + ":127.0.0.1";
        // s_client writes the answer's head too; -quiet keeps it reading after its input ends.
        const std::string sClient = "printf 'GET /big.bin HTTP/1.1\\r\\nHost: 127.0.0.1:" + port +
                                    "\\r\\nConnection: close\\r\\n\\r\\n' | openssl s_client -quiet -connect 127.0.0.1:" +
                                    port + " -CAfile '" + ca + "' > '" + output + "' 2>/dev/null";

        // In alternation, so that a change in the machine's load falls on every side.
        double tool3[3], curl3[3] = {0, 0, 0}, ossl3[3], sync3[3];
        for (int round = 0; round < 3; ++round) {
            tool3[round] = timed({program, "--ca", ca, url, output}, output, (off_t)kSize, "download");
            if (haveCurl)
                curl3[round] = timed({"/usr/bin/curl", "-s", "-S", "--cacert", ca, "--resolve", curlName, "-o", output,
                                      "https://local-service:" + port + "/big.bin"},
                                     output, (off_t)kSize, "curl");
            ossl3[round] = timed({"/bin/sh", "-c", sClient}, output, (off_t)kSize, "openssl s_client");
            sync3[round] = fsyncSeconds(output);
            printf("round %d: download %7.1f MB/s  curl %7.1f MB/s  s_client %7.1f MB/s  fsync %.3f s\n", round + 1,
                   tool3[round], curl3[round], ossl3[round], sync3[round]);
        }
        double tool = median({tool3[0], tool3[1], tool3[2]}), curl = median({curl3[0], curl3[1], curl3[2]});
        double ossl = median({ossl3[0], ossl3[1], ossl3[2]}), sync = median({sync3[0], sync3[1], sync3[2]});
        printf("median of 3, 100 MB over loopback TLS:\n");
        printf("  download          %7.1f MB/s\n", tool);
        if (haveCurl) printf("  curl              %7.1f MB/s   download/curl     %.2f\n", curl, curl > 0 ? tool / curl : 0);
        printf("  openssl s_client  %7.1f MB/s   download/s_client %.2f\n", ossl, ossl > 0 ? tool / ossl : 0);
        double toolSeconds = tool > 0 ? (double)kSize / 1e6 / tool : 0;
        printf("  fsync of 100 MB   %.3f s = %.0f%% of the download's time\n", sync,
               toolSeconds > 0 ? 100 * sync / toolSeconds : 0);
    } catch (const std::exception& e) {
        fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
