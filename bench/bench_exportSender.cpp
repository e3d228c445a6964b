// The export-directory sender against the bundled local service:
// 1. one pass over 1 000 settled DICOM files of 0.5 MB (files/s), beside the
//    same files uploaded one by one in a plain loop, each on its own
//    connection, measured in the same run (the floor the pass stands on);
// 2. the resident memory of the real agent's worker process (under its
//    supervising parent, -z) when idle, and how much it rises while one
//    400 MB file goes up.
// Usage: bench_exportSender [files] [rounds]   (default 1000 files, 3 rounds)
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "exportSender.h"
#include "files.h"
#include "localServiceProcess.h"
#include "sendFile.h"
#include "settings.h"
#include "testUtil.h"

namespace {

using Clock = std::chrono::steady_clock;
// 0.5 MB: one 8-bit frame of 512 x 1024; 400 MB: 400 frames of 1024 x 1024.
constexpr int BIG_FRAMES = 400;
// Bounds the waits on the real agent; a 400 MB upload over loopback takes seconds.
constexpr int AGENT_START_MS = 30000;
constexpr int BIG_UPLOAD_MS = 10 * 60 * 1000;
constexpr int IDLE_S = 15;
constexpr int SAMPLE_MS = 50;

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// A CT image of `frames` 8-bit frames of rows x columns, made by dump2dcm.
bool makeDicom(const std::string& dir, const std::string& out, int rows, int columns, int frames) {
    std::string raw = dir + "/pixels.raw", dump = dir + "/image.dump";
    {
        std::vector<char> frame((size_t)rows * columns);
        for (size_t i = 0; i < frame.size(); ++i) frame[i] = (char)(i * 7 + i / 4093);
        std::ofstream f(raw, std::ios::binary);
        for (int i = 0; i < frames; ++i) f.write(frame.data(), (std::streamsize)frame.size());
        if (!f) return false;
    }
    spit(dump, "(0008,0016) UI [1.2.840.10008.5.1.4.1.1.2]\n(0008,0060) CS [CT]\n"
               "(0010,0010) PN [BENCH^PATIENT]\n(0028,0002) US 1\n(0028,0004) CS [MONOCHROME2]\n"
               "(0028,0008) IS [" + std::to_string(frames) + "]\n(0028,0010) US " + std::to_string(rows) +
                   "\n(0028,0011) US " + std::to_string(columns) +
                   "\n(0028,0100) US 8\n(0028,0101) US 8\n(0028,0102) US 7\n(0028,0103) US 0\n"
                   "(7fe0,0010) OB =" + raw + "\n");
    int status = runProgram({"/usr/bin/dump2dcm", "+te", "+Ug", dump, out}, "", 300).status;
    unlink(raw.c_str());
    unlink(dump.c_str());
    return status == 0;
}

// Old enough that the sender takes them without waiting for them to settle.
void ageFile(const std::string& path) {
    struct utimbuf old{time(nullptr) - 60, time(nullptr) - 60};
    utime(path.c_str(), &old);
}

std::vector<std::string> dropCopies(const std::string& image, const std::string& dir, int files) {
    std::vector<std::string> names;
    for (int i = 0; i < files; ++i) {
        char name[32];
        snprintf(name, sizeof name, "img%04d.dcm", i);
        std::string path = dir + "/" + name;
        cpFile(image.c_str(), path.c_str());
        ageFile(path);
        names.push_back(name);
    }
    return names;
}

void clearStore(const LocalService& svc, const std::vector<std::string>& names) {
    for (const auto& name : names) unlink(svc.storedFile(name).c_str());
}

int storedCount(const LocalService& svc, const std::vector<std::string>& names) {
    int n = 0;
    for (const auto& name : names) n += exists(svc.storedFile(name));
    return n;
}

// Files/s of the plain loop: every file on its own connection.
double floorRound(const LocalService& svc, const std::string& dir, const std::vector<std::string>& names,
                  double bytes) {
    int failed = 0;
    auto start = Clock::now();
    for (const auto& name : names) {
        std::string path = dir + "/" + name;
        failed += SendFile::sendWFile(path.c_str(), name.c_str(), name.c_str(), "Export", "Export", dataDir,
                                      true, false) != 0;
    }
    double seconds = since(start);
    int stored = storedCount(svc, names);
    printf("  plain loop   : %4d files in %6.2f s  %7.1f files/s  %6.1f MB/s  (%d failed)\n", stored,
           seconds, names.size() / seconds, names.size() * bytes / seconds / 1e6, failed);
    return failed || stored != (int)names.size() ? 0 : names.size() / seconds;
}

// Files/s of one sender pass; every file must have been stored and deleted.
double senderRound(const LocalService& svc, const std::string& dir, const std::vector<std::string>& names,
                   double bytes) {
    int64_t timer = 0;
    auto start = Clock::now();
    vp_loop_proc(&timer);
    double seconds = since(start);
    int stored = storedCount(svc, names), left = 0;
    for (const auto& name : names) left += exists(dir + "/" + name);
    printf("  sender pass  : %4d files in %6.2f s  %7.1f files/s  %6.1f MB/s  (%d left behind)\n", stored,
           seconds, names.size() / seconds, names.size() * bytes / seconds / 1e6, left);
    return left || stored != (int)names.size() ? 0 : names.size() / seconds;
}

long rssKiB(int pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line))
        if (line.rfind("VmRSS:", 0) == 0) return atol(line.c_str() + 6);
    return -1;
}

bool throughput(LocalService& svc, const std::string& work, int files, int rounds) {
    std::string image = work + "/small.dcm", dir = work + "/export";
    mkdir(dir.c_str(), 0775);
    if (!makeDicom(work, image, 512, 1024, 1)) {
        fprintf(stderr, "dump2dcm could not make the 0.5 MB image\n");
        return false;
    }
    snprintf(viewpointDir, sizeof viewpointDir, "%s", dir.c_str());
    double bytes = (double)getFileSize(image.c_str(), "");
    printf("sender pass over %d DICOM files of %.0f bytes, beside a plain upload loop (%d rounds)\n", files,
           bytes, rounds);
    std::vector<double> loop, pass;
    for (int r = 0; r < rounds; ++r) {
        std::vector<std::string> names = dropCopies(image, dir, files);
        loop.push_back(floorRound(svc, dir, names, bytes));
        clearStore(svc, names);
        pass.push_back(senderRound(svc, dir, names, bytes));
        clearStore(svc, names);
        for (const auto& name : names) unlink((dir + "/" + name).c_str());
    }
    double l = median(loop), p = median(pass);
    printf("median: sender %.1f files/s, plain loop %.1f files/s, ratio %.2f (goal >= 0.85)\n", p, l,
           l > 0 ? p / l : 0);
    unlink(image.c_str());
    return l > 0 && p > 0;
}

bool agentMemory(LocalService& svc, const std::string& work) {
    TempDir data;
    std::string exportDir = work + "/agent-export", staging = work + "/staging";
    mkdir(exportDir.c_str(), 0775);
    mkdir(staging.c_str(), 0775);
    svc.prepareAgentDataDir(data.path(), "memory-box", "Memory Clinic");
    std::string big = staging + "/big.dcm";
    auto made = Clock::now();
    if (!makeDicom(staging, big, 1024, 1024, BIG_FRAMES)) {
        fprintf(stderr, "dump2dcm could not make the 400 MB image\n");
        return false;
    }
    long long size = getFileSize(big.c_str(), "");
    printf("\nagent's worker process (%lld-byte big.dcm made by dump2dcm in %.1f s)\n", size, since(made));
    ageFile(big);

    ChildProcess agent({HUBTALK_BIN, "-d", data.path(), "-V", exportDir, "-p", std::to_string(freePort()), "-z"},
                       "", data.file("agent.out"), data.file("agent.err"));
    int worker = 0;
    waitUntil([&] {
        std::vector<int> children = childrenOf(agent.pid());
        worker = children.empty() ? 0 : children[0];
        return worker != 0 && svc.countStartingWith("heartbeat|") > 0;
    }, AGENT_START_MS);
    if (!worker) {
        fprintf(stderr, "the agent's worker process did not start:\n%s%s\n", slurp(data.file("agent.out")).c_str(),
                slurp(data.file("agent.err")).c_str());
        return false;
    }
    std::this_thread::sleep_for(std::chrono::seconds(IDLE_S));
    long idle = rssKiB(worker);
    printf("  idle after %d s     : VmRSS %6.2f MiB (goal <= 8 MiB)\n", IDLE_S, idle / 1024.0);

    std::string dropped = exportDir + "/big.dcm";
    rename(big.c_str(), dropped.c_str());
    auto dropTime = Clock::now();
    Clock::time_point upStart{};
    long peak = idle;
    bool started = false, gone = false;
    while (since(dropTime) * 1000 < BIG_UPLOAD_MS) {
        long now = rssKiB(worker);
        if (now < 0) break;  // the worker ended
        peak = std::max(peak, now);
        if (!started && svc.countStartingWith("memory-box|big.dcm|") > 0) {
            started = true;
            upStart = Clock::now();
        }
        if (!exists(dropped)) {
            gone = true;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(SAMPLE_MS));
    }
    double upload = started ? since(upStart) : 0;
    bool stored = exists(svc.storedFile("big.dcm")) && getFileSize(svc.storedFile("big.dcm").c_str(), "") == size;
    unlink(svc.storedFile("big.dcm").c_str());
    unlink(dropped.c_str());
    if (!gone || !stored) {
        fprintf(stderr, "big.dcm was %s:\n%s\n", gone ? "deleted but not stored whole" : "not delivered in time",
                slurp(data.file("agent.err")).c_str());
        return false;
    }
    printf("  while big.dcm went  : peak VmRSS %6.2f MiB, rise %6.2f MiB (goal <= 4 MiB)\n", peak / 1024.0,
           (peak - idle) / 1024.0);
    printf("  upload to deletion  : %.1f s, %.1f MB/s (%.1f s from the drop, the pass pause included)\n", upload,
           upload > 0 ? size / upload / 1e6 : 0, since(dropTime));
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    int files = argc > 1 ? atoi(argv[1]) : 1000;
    int rounds = argc > 2 ? atoi(argv[2]) : 3;
    try {
        LocalService svc;
        TempDir data, work;
        svc.prepareAgentDataDir(data.path(), "benchbox", "Bench Clinic");
        snprintf(dataDir, sizeof dataDir, "%s", data.path().c_str());
        bool ok = throughput(svc, work.path(), files, rounds);
        ok = agentMemory(svc, work.path()) && ok;
        return ok ? 0 : 1;
    } catch (const std::exception& e) {
        fprintf(stderr, "%s\n", e.what());
        return 1;
    }
}
