// Throughput and latency of the local request listener on loopback: ping
// requests and MLLP messages from several client threads at once; then the
// tokenizer on sharing documents, deep and wide, each size beside the one a
// quarter of it (linear: four times the time).
// Usage: bench_listener [clients] [requests per client] [worker threads]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "jsn.h"
#include "listener.h"
#include "settings.h"
#include "testUtil.h"

namespace {

using Clock = std::chrono::steady_clock;

// One connection, one request, the answer until close; false on any failure.
bool exchange(int port, const std::string& request, std::string& answer) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    answer.clear();
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0 &&
              send(fd, request.data(), request.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(request.size());
    char buf[1024];
    ssize_t n;
    while (ok && (n = recv(fd, buf, sizeof buf, 0)) > 0) answer.append(buf, static_cast<size_t>(n));
    close(fd);
    return ok && !answer.empty();
}

// The request of client c, number i.
using MakeRequest = std::string (*)(int c, int i);

void run(const char* label, int port, int clients, int perClient, MakeRequest make,
         const char* expected) {
    std::vector<std::vector<double>> latencies(clients);
    std::atomic<int> failures{0};
    auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; c++) {
        threads.emplace_back([&, c] {
            std::string answer;
            latencies[c].reserve(perClient);
            for (int i = 0; i < perClient; i++) {
                std::string request = make(c, i);
                auto t0 = Clock::now();
                bool ok = exchange(port, request, answer);
                latencies[c].push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
                if (!ok || answer.find(expected) == std::string::npos) failures++;
            }
        });
    }
    for (auto& t : threads) t.join();
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();

    std::vector<double> all;
    for (auto& l : latencies) all.insert(all.end(), l.begin(), l.end());
    std::sort(all.begin(), all.end());
    size_t n = all.size();
    printf("%-6s clients %3d  requests %6zu  %9.0f req/s  median %8.1f us  p99 %8.1f us  failures %d\n",
           label, clients, n, n / seconds, all[n / 2], all[std::min(n - 1, n * 99 / 100)], failures.load());
}

std::string ping(int, int) { return R"({"request_type": "ping"})"; }

std::atomic<unsigned int> nextControlId{0};

std::string hl7Message(int, int) {
    return "\x0bMSH|^~\\&|REPORTS|CLINIC|HUB|BOX|20240101120000||ORU^R01|B" + std::to_string(nextControlId++) +
           "|P|2.4\rPID|1||4711||Doe^Jane\rOBR|1||ACC1|US^Ultrasound\rOBX|1|TX|||Normal findings\r\x1c\r";
}

// A sharing document of about kb KiB: half nesting, half a list of studies.
std::string sharingDocument(size_t kb) {
    size_t depth = kb * 256;
    std::string doc = R"({"request_type": "sharing", "nest": )" + std::string(depth, '[') + "7" +
                      std::string(depth, ']') + R"(, "studies": [)";
    for (int i = 0; doc.size() < kb * 1024; i++)
        doc += std::string(i ? "," : "") + R"({"uid": "1.2.)" + std::to_string(i) + R"(", "n": [1, 2]})";
    return doc + "]}";
}

// Best of five parses, in milliseconds.
double parseMs(std::string& doc) {
    double best = 1e9;
    for (int i = 0; i < 5; i++) {
        auto t0 = Clock::now();
        JsnParser parser(&doc[0], static_cast<int>(doc.size()));
        double ms = std::chrono::duration<double, std::milli>(Clock::now() - t0).count();
        if (parser.failed) return -1;
        best = std::min(best, ms);
    }
    return best;
}

void tokenizer() {
    double previous = 0;
    for (size_t kb : {100, 400, 1600}) {
        std::string doc = sharingDocument(kb);
        double ms = parseMs(doc);
        printf("jsn    sharing document %5zu KiB  parse %8.2f ms", kb, ms);
        if (previous > 0) printf("  %.1f times the quarter size", ms / previous);
        printf("\n");
        previous = ms;
    }
}

}  // namespace

int main(int argc, char** argv) {
    int clients = argc > 1 ? atoi(argv[1]) : 4;
    int perClient = argc > 2 ? atoi(argv[2]) : 2000;
    int workers = argc > 3 ? atoi(argv[3]) : 3;
    if (clients < 1 || perClient < 1 || workers < 1) {
        fprintf(stderr, "usage: bench_listener [clients] [requests per client] [worker threads]\n");
        return 1;
    }

    TempDir data;
    std::string hl7 = data.file("HL7");
    mkdir(hl7.c_str(), 0775);
    snprintf(dataDir, sizeof dataDir, "%s", data.path().c_str());
    snprintf(HL7_inputDir, sizeof HL7_inputDir, "%s", hl7.c_str());
    PORT = freePort();
    REMOTE = false;
    NumTcpThreads = workers;
    startListener();
    std::string answer;
    for (int i = 0; i < 500 && !exchange(PORT, "{}", answer); i++) usleep(10000);

    printf("listener: %d worker threads, loopback\n", workers);
    for (int c : {1, clients}) {
        run("ping", PORT, c, perClient, ping, "success");
        run("mllp", PORT, c, perClient, hl7Message, "MSA|AA|B");
    }
    tokenizer();
    return 0;
}
