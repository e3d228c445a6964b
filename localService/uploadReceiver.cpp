#include "uploadReceiver.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "channel.h"
#include "faults.h"
#include "keySession.h"
#include "request.h"
#include "serviceContext.h"
#include "socketIo.h"

namespace {

constexpr size_t kChunk = 1 << 20;

std::string storageName(std::string name) {
    for (char& c : name)
        if (c == '/' || c == '\0') c = '_';
    return isPlainName(name) ? name : "";
}

// Reads the announced bytes into the temporary; false when the box stops short.
bool receiveBytes(ServerTlsSession& session, FILE* out, unsigned long long size) {
    std::vector<char> buf(kChunk);
    while (size > 0) {
        size_t want = size < kChunk ? static_cast<size_t>(size) : kChunk;
        int n = session.read(buf.data(), want);
        if (n <= 0) return false;
        if (fwrite(buf.data(), 1, static_cast<size_t>(n), out) != static_cast<size_t>(n)) return false;
        size -= static_cast<unsigned long long>(n);
    }
    return true;
}

// Takes half the bytes and drops the connection, as a service that dies mid-transfer.
void cutHalfWay(ServerTlsSession& session, int fd, unsigned long long size) {
    std::vector<char> buf(kChunk);
    unsigned long long left = size / 2;
    while (left > 0) {
        size_t want = left < kChunk ? static_cast<size_t>(left) : kChunk;
        int n = session.read(buf.data(), want);
        if (n <= 0) break;
        left -= static_cast<unsigned long long>(n);
    }
    LocalIo::resetOnClose(fd);
}

}  // namespace

void receiveUpload(const Request& request, CommandChannel& channel, ServiceContext& context) {
    std::string name = storageName(request.uploadName);
    std::string displayName = context.config.displayName(request.boxId);
    if (name.empty() || !request.uploadSizeValid || displayName.empty()) {
        channel.reply("error");
        channel.finish();
        return;
    }
    if (faultOn(context.config, Fault::UploadNo)) {
        channel.reply("NO");
        channel.handOver(false);
        return;
    }
    auto keyed = openKeySession(channel, context, "OK", request.uploadId, displayName);
    if (!keyed) return;
    ServerTlsSession& session = *keyed;

    if (faultOn(context.config, Fault::CutUpload)) {
        cutHalfWay(session, channel.fd(), request.uploadSize);
        return;
    }

    std::string finalPath = context.config.storeDir() + "/" + name;
    std::string partPath = context.config.storeDir() + "/.part." + std::to_string(getpid()) + "." +
                           std::to_string(reinterpret_cast<unsigned long>(&session));
    FILE* out = fopen(partPath.c_str(), "wb");
    if (!out) return;
    bool complete = receiveBytes(session, out, request.uploadSize);
    complete = fclose(out) == 0 && complete;
    if (!complete) {
        unlink(partPath.c_str());
        return;
    }
    writeWhole(context.config.headersDir() + "/" + name, request.line);
    if (rename(partPath.c_str(), finalPath.c_str()) != 0) {
        unlink(partPath.c_str());
        return;
    }
    if (session.writeAll(std::string("OK")) && LocalIo::readable(channel.fd(), 5000))
        session.expectCloseNotify();
}
