// The EMR bridge's poll pass over a reply of many studies, per EMR kind:
// the time to turn them all into message files and the resident memory of
// the process doing it; then the time until every message's log line has
// reached the bundled local service (they go out behind the pass), beside
// the same number of bare log exchanges with the service. Beside each kind:
// the bare creation of as many files of the same size, right after its pass,
// which is the file system's floor for the pass. With --files-only each
// kind runs three rounds and the medians are printed.
// Usage: bench_emrPoll [studies] [--files-only]   (default 10000; with
// --files-only the log lines are not waited for and the bare exchanges are
// not measured: minutes less)
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <list>
#include <string>
#include <vector>

#include "emr/studyPoll.h"
#include "files.h"
#include "localServiceProcess.h"
#include "sendFile.h"
#include "serviceLog.h"
#include "settings.h"
#include "testUtil.h"

namespace {

using Clock = std::chrono::steady_clock;

std::string reply(int studies) {
    std::string r = "{\"Studies\": [";
    for (int i = 0; i < studies; ++i) {
        std::string n = std::to_string(i);
        r += (i ? ",\n" : "") + std::string("{\"uploaded_timestamp\": ") + std::to_string(1000 + i) +
             ", \"id\": \"S" + n + "\", \"study_datetime\": \"2026-11-23T08:09:10Z\", \"patient_dob\": \"1980-01-02\","
             " \"patient_id\": \"P" + n + "\", \"accession_number\": \"A" + n + "\", \"description\": \"US Pelvis\","
             " \"links\": {\"permalink_pdf\": \"https://x/permalinks/abcdefgh1.2.826.0.1." + n + ".pdf\"},"
             " \"patient\": {\"first_name\": \"JANE\", \"last_name\": \"DOE" + n + "\", \"patient_sex\": \"F\"},"
             " \"referring_physician\": {\"composite\": \"DR. SMITH^JOHN^MD\"}}";
    }
    return r + "]}";
}

// Seconds and the largest resident memory (MiB) of a child that runs body.
template <class F>
std::pair<double, double> inChildMeasured(F body) {
    auto start = Clock::now();
    pid_t pid = fork();
    if (pid == 0) _exit(body());
    int status = 0;
    rusage use{};
    wait4(pid, &status, 0, &use);
    return {std::chrono::duration<double>(Clock::now() - start).count(), use.ru_maxrss / 1024.0};
}

// The file system's own floor: creating, writing and closing `files` files
// of `bytes` bytes each in a fresh directory, with one syncfs at the end, as
// the pass does. Seconds.
double bareCreation(const std::string& dir, size_t files, size_t bytes) {
    std::string content(bytes, 'x');
    auto start = Clock::now();
    for (size_t i = 0; i < files; ++i) {
        std::string name = dir + "/" + std::to_string(i) + ".hl7";
        int fd = open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        bool whole = fd >= 0 && write(fd, content.data(), bytes) == static_cast<ssize_t>(bytes);
        if (fd >= 0) close(fd);
        if (!whole) return -1;
    }
    if (!syncFileSystemOf(dir.c_str())) return -1;
    return std::chrono::duration<double>(Clock::now() - start).count();
}

}  // namespace

int main(int argc, char** argv) {
    int studies = argc > 1 ? atoi(argv[1]) : 10000;
    bool drain = !(argc > 2 && std::string(argv[2]) == "--files-only");
    LocalService service;
    TempDir data;
    service.prepareAgentDataDir(data.path(), "box7", "Bench Clinic");
    snprintf(dataDir, sizeof dataDir, "%s", data.path().c_str());
    QUIET = true;
    std::string text = reply(studies);
    printf("EMR poll pass, %d studies (%.1f MB reply), each message logged to the local service\n", studies,
           text.size() / 1048576.0);
    auto floor = inChildMeasured([&] {
        for (int i = 0; drain && i < studies; ++i) {
            int status = 1;
            SendFile::sendLogMsg(dataDir, status, "bench", false, true);
        }
        return 0;
    });
    if (drain)
        printf("  %-22s %8.2f s  %7.2f ms/study\n", "bare log exchanges", floor.first, floor.first * 1000 / studies);
    const struct {
        int kind;
        const char* name;
    } kinds[] = {{EMR_HL7FILE, "link files"}, {EMR_CENTRICITY, "Centricity"}, {EMR_ALLSCRIPTS, "Allscripts"},
                 {EMR_ECLINICAL, "eClinical"}, {EMR_SEVOCITY, "Sevocity"},    {EMR_MEDENT, "Medent"},
                 {EMR_OSTI, "OSTI (no drop account)"}, {EMR_MEDITOUCH, "Meditouch"}};
    // Every kind's files stay until the end: on a file system without a
    // journal, ext4 passes over inodes freed in the last 30 s for each file it
    // creates, so removing one kind's 10 000 files would slow the next kind's
    // pass several times over, which a clinic's box never sees.
    std::list<TempDir> kept;
    // The file system's speed wanders by several times from minute to minute
    // on a shared machine: each kind runs in rounds beside its floor, and the
    // medians are printed.
    const int rounds = drain ? 1 : 3;
    for (const auto& k : kinds) {
        std::vector<double> passes, floors;
        double resident = 0, sent = 0;
        size_t fileCount = 0;
        for (int round = 0; round < rounds; ++round) {
            TempDir& out = kept.emplace_back();
            TempDir& cache = kept.emplace_back();
            snprintf(HL7_dir, sizeof HL7_dir, "%s", out.path().c_str());
            snprintf(HL7_cache, sizeof HL7_cache, "%s", cache.path().c_str());
            EMR_INTF = k.kind;
            unlink(data.file("timeSince.txt").c_str());
            double written = 0;
            int pipeEnds[2];
            if (pipe(pipeEnds) != 0) return 1;
            auto m = inChildMeasured([&] {
                auto start = Clock::now();
                doHl7Output(k.kind, 0, text.c_str());
                double seconds = std::chrono::duration<double>(Clock::now() - start).count();
                bool drained = !drain || flushServiceLog(3600);
                return write(pipeEnds[1], &seconds, sizeof seconds) == sizeof seconds && drained ? 0 : 1;
            });
            if (read(pipeEnds[0], &written, sizeof written) != sizeof written) written = -1;
            close(pipeEnds[0]);
            close(pipeEnds[1]);
            std::vector<std::string> files = entriesOf(out.path());
            size_t bytes = 0;
            for (const auto& f : files) bytes += slurp(out.file(f)).size();
            TempDir& peer = kept.emplace_back();
            floors.push_back(bareCreation(peer.path(), files.size(), files.empty() ? 0 : bytes / files.size()));
            passes.push_back(written);
            resident = std::max(resident, m.second);
            sent = m.first;
            fileCount = files.size();
        }
        double pass = median(passes);
        printf("  %-22s %8.2f s  %7.3f ms/study  %6.1f MiB resident at most  (%zu files; bare creation of as many: "
               "%.2f s", k.name, pass, pass * 1000 / studies, resident, fileCount, median(floors));
        if (drain) printf("; log lines sent after %.1f s", sent);
        printf(")\n");
    }
    printf("  goal: under 1 s and 32 MiB for 10 000 studies\n");
    return 0;
}
