// The processing chain with the reference companions: small real DICOM
// files dropped into the queue, anonymised and pixel-processed by 1, 2 and 4
// workers into the export directory (files/s), the cost of each step per
// file measured on its own on the same files, and the bytes the pixel
// processor saves on real CT, MR and RGB images.
// Usage: bench_processing [files]   (default 1000)
#include <sys/stat.h>
#include <unistd.h>
#include <utime.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "anonFile.h"
#include "companion.h"
#include "dicom.h"
#include "files.h"
#include "localServiceProcess.h"
#include "memory.h"
#include "processing.h"
#include "sendFile.h"
#include "settings.h"
#include "testUtil.h"

namespace {

using Clock = std::chrono::steady_clock;
const std::string REAL = "/usr/lib/python3/dist-packages/pydicom/data/test_files/";
const char* const SAMPLES[] = {"CT_small.dcm", "MR_small.dcm", "SC_rgb_small_odd.dcm"};

double since(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

int countFiles(const std::string& dir) {
    int count = 0;
    Memory mem;
    Util::listDir(dir.c_str(), &count, &mem);
    return count;
}

// Copies of the samples, old enough that no settle sleep applies.
void drop(const std::string& dir, int files) {
    for (int i = 0; i < files; ++i) {
        std::string path = dir + "/f" + std::to_string(i) + ".dcm";
        cpFile((REAL + SAMPLES[i % 3]).c_str(), path.c_str());
        struct utimbuf old{time(nullptr) - 60, time(nullptr) - 60};
        utime(path.c_str(), &old);
    }
}

double chain(const std::string& data, int workers, int files) {
    NUM_WORKERS = workers;
    std::string exportDir = data + "/export" + std::to_string(workers);
    mkdir(exportDir.c_str(), 0775);
    snprintf(viewpointDir, sizeof viewpointDir, "%s", exportDir.c_str());
    for (int k = 1; k <= workers; ++k) mkdir((std::string(qDir) + std::to_string(k)).c_str(), 0775);
    drop(qDir, files);
    auto start = Clock::now();
    int64_t stamp0 = 0;
    WorkerContext distributor{&stamp0, 0};
    processing_loop_proc(&distributor);  // hands everything out (or, alone, does it all)
    std::vector<std::thread> threads;
    for (int k = 1; workers >= 2 && k <= workers; ++k)
        threads.emplace_back([k] {
            int64_t stamp = 0;
            WorkerContext context{&stamp, static_cast<uint32_t>(k)};
            processing_loop_proc(&context);
        });
    for (auto& t : threads) t.join();
    double seconds = since(start);
    int done = countFiles(exportDir);
    printf("%d worker(s): %d of %d files in %.2f s, %.1f files/s\n", workers, done, files, seconds,
           done / seconds);
    return seconds;
}

}  // namespace

int main(int argc, char** argv) {
    int files = argc > 1 ? atoi(argv[1]) : 1000;
    std::string built = std::string(HUBTALK_BIN).substr(0, std::string(HUBTALK_BIN).rfind('/'));
    LocalService service;
    service.setReply("CROP", "0|0|0|0|0");
    TempDir data;
    service.prepareAgentDataDir(data.path(), "bench-box", "Bench Clinic");
    snprintf(dataDir, sizeof dataDir, "%s", data.path().c_str());
    snprintf(PROCESS_DIR, sizeof PROCESS_DIR, "%s", built.c_str());
    snprintf(qDir, sizeof qDir, "%s/Q", data.path().c_str());
    mkdir(qDir, 0775);
    anonExport = true;
    pixelProcessing = true;

    // Each step on its own, on the same kind of files.
    const int sample = 30;
    std::string work = data.path() + "/steps";
    mkdir(work.c_str(), 0775);
    drop(work, sample);
    const char* const tags[] = {"Manufacturer", "Modality", "SOPClassUID", "ManufacturerModelName",
                                "NumberOfFrames", "0035,0010", nullptr};
    double dump = 0, crop = 0, scrub = 0, pixels = 0, move = 0;
    for (int i = 0; i < sample; ++i) {
        std::string path = work + "/f" + std::to_string(i) + ".dcm";
        auto t = Clock::now();
        Memory mem;
        KeyValues<char> table;
        getAttrMap(path.c_str(), table, tags, dataDir, "ATTRS.0.txt", &mem);
        dump += since(t);
        t = Clock::now();
        int status = 0;
        SendFile::getCropInfo(dataDir, status, "CT", "NOTHING", false, true);
        crop += since(t);
        t = Clock::now();
        mvFile(path.c_str(), (path + ".T").c_str());
        move += since(t);
        t = Clock::now();
        runCompanion(dataDir, shellArg(built + "/scrubmill") + " --sundel --anonymize --clip-percent '0|0|0|0|0' " +
                                  shellArg(path + ".T") + " " + shellArg(path));
        scrub += since(t);
        t = Clock::now();
        runCompanion(dataDir, shellArg(built + "/imagemill") + " --sundel --repeat --data-dir " + shellArg(dataDir) +
                                  " --process-dir " + shellArg(built) + " " + shellArg(path));
        pixels += since(t);
    }
    double total = dump + crop + scrub + pixels + move;
    printf("per file, one worker: %.1f ms = dump %.0f%% | crop look-up %.0f%% | scrubmill %.0f%% | "
           "imagemill %.0f%% | moves %.1f%% (settle sleeps: none for files older than 7 s)\n",
           total / sample * 1e3, dump / total * 100, crop / total * 100, scrub / total * 100,
           pixels / total * 100, move / total * 100);

    for (int workers : {1, 2, 4}) chain(data.path(), workers, files);

    for (const char* name : SAMPLES) {
        std::string path = work + "/" + name;
        cpFile((REAL + name).c_str(), path.c_str());
        long long before = getFileSize(path.c_str(), "");
        runCompanion(dataDir, shellArg(built + "/imagemill") + " --sundel --repeat --data-dir " + shellArg(dataDir) +
                                  " --process-dir " + shellArg(built) + " " + shellArg(path));
        long long after = getFileSize(path.c_str(), "");
        printf("imagemill on %-22s %8lld -> %8lld bytes (%.0f%% saved)\n", name, before, after,
               100.0 * (before - after) / before);
    }
    return 0;
}
