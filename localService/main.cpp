// The bundled local service: the cloud service's side of the command, upload
// and push protocol, on loopback only, driven by a configuration directory.
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "buildConfig.h"
#include "commandLog.h"
#include "connection.h"
#include "listener.h"
#include "serviceConfig.h"
#include "serviceContext.h"
#include "socketIo.h"
#include "tlsServer.h"
#include "webServer.h"

namespace {

struct Options {
    std::string address = "127.0.0.1";
    int port = 4443;
    int webPort = -1;  // -1: no file endpoint
    std::string config;
    std::string cert = std::string(HUBTALK_PKI_DIR) + "/server.crt";
    std::string key = std::string(HUBTALK_PKI_DIR) + "/server.key";
    std::string foreignCert = std::string(HUBTALK_PKI_DIR) + "/foreign-server.crt";
    std::string foreignKey = std::string(HUBTALK_PKI_DIR) + "/foreign-server.key";
    std::string log;
};

void usage() {
    fprintf(stderr,
            "usage: localService --config DIR [--address 127.0.0.1] [--port N (0: any)]\n"
            "                    [--cert FILE --key FILE] [--foreign-cert FILE --foreign-key FILE]\n"
            "                    [--log FILE] [--web-port N (0: any)]\n");
}

bool parse(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        if (i + 1 >= argc) return false;
        std::string v = argv[++i];
        if (a == "--address")
            o.address = v;
        else if (a == "--port" || a == "--web-port") {
            char* end = nullptr;
            long p = strtol(v.c_str(), &end, 10);
            if (v.empty() || *end || p < 0 || p > 65535) return false;
            (a == "--port" ? o.port : o.webPort) = static_cast<int>(p);
        } else if (a == "--config")
            o.config = v;
        else if (a == "--cert")
            o.cert = v;
        else if (a == "--key")
            o.key = v;
        else if (a == "--foreign-cert")
            o.foreignCert = v;
        else if (a == "--foreign-key")
            o.foreignKey = v;
        else if (a == "--log")
            o.log = v;
        else
            return false;
    }
    return !o.config.empty();
}

extern "C" void onStop(int) { LocalIo::stopping() = true; }

}  // namespace

int main(int argc, char** argv) {
    Options o;
    if (!parse(argc, argv, o)) {
        usage();
        return 2;
    }
    signal(SIGPIPE, SIG_IGN);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = onStop;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    ServiceConfig config(o.config);
    if (!config.prepare()) {
        fprintf(stderr, "localService: cannot prepare %s\n", o.config.c_str());
        return 1;
    }
    CommandLog log(o.log.empty() ? config.path("commands.log") : o.log);
    if (!log.isOpen()) {
        fprintf(stderr, "localService: cannot open the command log\n");
        return 1;
    }
    Credentials own, foreign;
    std::string err = own.load(o.cert, o.key);
    if (err.empty()) err = foreign.load(o.foreignCert, o.foreignKey);
    if (!err.empty()) {
        fprintf(stderr, "localService: %s\n", err.c_str());
        return 1;
    }
    RandomSource random;
    if (!random.ready()) {
        fprintf(stderr, "localService: random generator not seeded\n");
        return 1;
    }
    Listener listener;
    Listener web;
    err = listener.open(o.address, o.port);
    if (err.empty() && o.webPort >= 0) err = web.open(o.address, o.webPort);
    if (!err.empty()) {
        fprintf(stderr, "localService: %s\n", err.c_str());
        return 1;
    }
    // Written last: whoever waits for these files may connect at once.
    if (o.webPort >= 0) writeWhole(config.path("webPort"), std::to_string(web.port()));
    writeWhole(config.path("port"), std::to_string(listener.port()));
    fprintf(stderr, "localService: listening on %s:%d\n", o.address.c_str(), listener.port());

    ServiceContext context{config, log, own, foreign, random, o.address};
    std::thread webThread;
    if (o.webPort >= 0) webThread = std::thread([&] { web.run(context, serveWebConnection); });
    listener.run(context, serveConnection);
    if (webThread.joinable()) webThread.join();
    return 0;
}
