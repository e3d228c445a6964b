// The delivery ledger's cost per record beside the upload it records: a
// small file to the bundled local service over loopback, measured in the same
// run and in alternation, so that the machine's load falls on both sides.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <exception>
#include <string>

#include "ledger.h"
#include "localServiceProcess.h"
#include "sendFile.h"

namespace {

using Clock = std::chrono::steady_clock;

// Microseconds per upload of path; -1 when any failed.
double uploadMicros(const std::string& dataDir, const std::string& path, const LocalService& svc, int count) {
    double s = 0;
    for (int i = 0; i < count; ++i) {
        std::string name = "f" + std::to_string(i) + ".bin";
        auto t0 = Clock::now();
        bool failed = SendFile::sendWFile(path.c_str(), name.c_str(), nullptr, "A", "B", dataDir.c_str(), true,
                                          false) != 0;
        s += std::chrono::duration<double>(Clock::now() - t0).count();
        unlink(svc.storedFile(name).c_str());
        if (failed) return -1;
    }
    return s * 1e6 / count;
}

// Microseconds per ledger record of an upload like the one above.
double recordMicros(const std::string& dataDir, int count) {
    LedgerEntry e;
    e.kind = "upload";
    e.item = "1.3.6.1.4.1.64523.1.2.3.4.5.6.7.8.9.dcm";
    e.sopUid = "1.3.6.1.4.1.64523.1.2.3.4.5.6.7.8.9";
    e.bytes = 1024;
    e.seconds = 0.012;
    auto t0 = Clock::now();
    for (int i = 0; i < count; ++i) ledgerRecord(dataDir.c_str(), e);
    return std::chrono::duration<double>(Clock::now() - t0).count() * 1e6 / count;
}

}  // namespace

int main() {
    signal(SIGPIPE, SIG_IGN);
    try {
        LocalService svc;
        TempDir data, files;
        svc.prepareAgentDataDir(data.path(), "benchbox", "Bench Clinic");
        std::string path = files.file("small.bin");
        spit(path, std::string(1024, 'x'));

        double upload[3], record[3], ratio[3];
        for (int round = 0; round < 3; ++round) {
            upload[round] = uploadMicros(data.path(), path, svc, 100);
            record[round] = recordMicros(data.path(), 5000);
            if (upload[round] <= 0) {
                fprintf(stderr, "the uploads failed\n");
                return 1;
            }
            ratio[round] = record[round] / upload[round];
            printf("round %d: upload 1 KB %9.1f us, ledger record %6.2f us, %.3f%%\n", round + 1, upload[round],
                   record[round], 100 * ratio[round]);
        }
        printf("median of 3: upload 1 KB %.1f us, ledger record %.2f us, record/upload %.3f%% (goal < 1%%)\n",
               median({upload[0], upload[1], upload[2]}), median({record[0], record[1], record[2]}),
               100 * median({ratio[0], ratio[1], ratio[2]}));
    } catch (const std::exception& e) {
        fprintf(stderr, "%s\n", e.what());
        return 1;
    }
    return 0;
}
