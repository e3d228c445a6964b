// The router against the bundled local service and a real DICOM receiver:
// items per second for small files through whole passes (queue look-up,
// push, sender process, result), beside a plain loop of the sender alone
// (one process per file, the same file, the same receiver) in the same run.
// Usage: bench_router [items] [rounds]   (default 200 items, 3 rounds)
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "dicomReceiver.h"
#include "localServiceProcess.h"
#include "router.h"
#include "sendFile.h"
#include "settings.h"
#include "testUtil.h"

namespace {

using Clock = std::chrono::steady_clock;
const std::string SMALL = "/usr/lib/python3/dist-packages/pydicom/data/test_files/CT_small.dcm";

double since(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

// Seconds for the router to deliver `items` queued items in one pass.
double routerRound(LocalService& service, int items, int first) {
    for (int i = 0; i < items; ++i)
        service.queueReply("qDicom1", std::to_string(first + i) + "|STORESCP|bench/small.dcm");
    service.queueReply("qDicom1", "0|title|NONE");
    int64_t timestamp = 0;
    auto start = Clock::now();
    route_loop_proc(&timestamp);
    return since(start);
}

// Seconds for the same number of bare sender runs.
double senderRound(int items, int port) {
    std::string command = "TCP_NODELAY=1 /usr/bin/dcmsend -nuc --aetitle morva --call STORESCP 127.0.0.1 " +
                          std::to_string(port) + " " + SMALL;
    auto start = Clock::now();
    for (int i = 0; i < items; ++i)
        if (system(command.c_str()) != 0) throw std::runtime_error("dcmsend failed");
    return since(start);
}

// Seconds for one look at an empty queue: one command exchange, of which
// the router makes three per item (look-up, push, result).
double exchangeRound(int items) {
    auto start = Clock::now();
    for (int i = 0; i < items; ++i) {
        int status = 1;
        SendFile::sendQdicom1(dataDir, status, false, true);
    }
    return since(start);
}

// Seconds for the sender companion alone, as the router runs it.
double companionRound(int items, int port) {
    std::string command = std::string(PROCESS_DIR) + "/dcmsend -nuc --dict-path " + dataDir +
                          "/dicom.dic --aetitle morva --call STORESCP 127.0.0.1 " + std::to_string(port) + " " + SMALL;
    auto start = Clock::now();
    for (int i = 0; i < items; ++i)
        if (system(command.c_str()) != 0) throw std::runtime_error("dcmsend companion failed");
    return since(start);
}

}  // namespace

int main(int argc, char** argv) try {
    int items = argc > 1 ? atoi(argv[1]) : 200;
    int rounds = argc > 2 ? atoi(argv[2]) : 3;
    LocalService service;
    DicomReceiver receiver;
    TempDir data;
    service.prepareAgentDataDir(data.path(), "box7", "Bench Clinic");
    service.setPushFile("small.dcm", SMALL);
    snprintf(dataDir, sizeof dataDir, "%s", data.path().c_str());
    std::string bin = HUBTALK_BIN;
    snprintf(PROCESS_DIR, sizeof PROCESS_DIR, "%s", bin.substr(0, bin.rfind('/')).c_str());
    snprintf(ER_ip, sizeof ER_ip, "127.0.0.1");
    ER_port = receiver.port();

    std::vector<double> routed, bare, exchange, companion;
    for (int r = 0; r < rounds; ++r) {
        routed.push_back(routerRound(service, items, 1 + r * items));
        bare.push_back(senderRound(items, receiver.port()));
        exchange.push_back(exchangeRound(items));
        companion.push_back(companionRound(items, receiver.port()));
    }
    size_t reported = service.countStartingWith("box7|dDicom|id|");
    if (reported != static_cast<size_t>(items * rounds)) throw std::runtime_error("items were not all reported");
    double r = median(routed) / items, b = median(bare) / items;
    printf("router, %d small files (%ld bytes), median of %d rounds\n", items, (long)slurp(SMALL).size(), rounds);
    printf("  router pass        %7.1f ms/item  %6.1f items/s\n", r * 1000, 1 / r);
    printf("  bare sender loop   %7.1f ms/item  %6.1f items/s\n", b * 1000, 1 / b);
    printf("  router / bare      %7.2fx  (goal <= 1.2x)\n", r / b);
    printf("  of which: one command exchange %.1f ms (three per item), the sender companion %.1f ms\n",
           median(exchange) / items * 1000, median(companion) / items * 1000);
    return 0;
} catch (const std::exception& e) {
    fprintf(stderr, "bench_router: %s\n", e.what());
    return 1;
}
