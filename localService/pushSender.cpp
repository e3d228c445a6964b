#include "pushSender.h"

#include <cstdio>
#include <memory>
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

std::string dicomName(const Request& request) {
    const auto& f = request.fields;
    std::string uri = f.back();
    if (uri.empty() && f.size() >= 2) uri = f[f.size() - 2];
    size_t slash = uri.find_last_of('/');
    return slash == std::string::npos ? uri : uri.substr(slash + 1);
}

// Bytes to push, either held as text or read from a file.
struct Payload {
    std::string text;
    std::string path;
    unsigned long long size = 0;
};

bool findPayload(const Request& request, ServiceContext& context, Payload& payload) {
    if (request.verb == "DICOM") {
        payload.path = context.config.pushFile(dicomName(request));
        if (payload.path.empty()) return false;
        FILE* f = fopen(payload.path.c_str(), "rb");
        if (!f) return false;
        fseek(f, 0, SEEK_END);
        long size = ftell(f);
        fclose(f);
        payload.size = size > 0 ? static_cast<unsigned long long>(size) : 0;
    } else {
        payload.text = context.config.pushText(request.verb);
        payload.size = payload.text.size();
    }
    return payload.size > 0;
}

bool sendPayload(ServerTlsSession& session, const Payload& payload, unsigned long long limit) {
    if (payload.path.empty())
        return session.writeAll(payload.text.data(), static_cast<size_t>(limit));
    std::unique_ptr<FILE, int (*)(FILE*)> in(fopen(payload.path.c_str(), "rb"), fclose);
    if (!in) return false;
    std::vector<char> buf(kChunk);
    while (limit > 0) {
        size_t want = limit < kChunk ? static_cast<size_t>(limit) : kChunk;
        size_t n = fread(buf.data(), 1, want, in.get());
        if (n == 0 || !session.writeAll(buf.data(), n)) return false;
        limit -= n;
    }
    return true;
}

}  // namespace

void pushToBox(const Request& request, CommandChannel& channel, ServiceContext& context) {
    std::string displayName = context.config.displayName(request.boxId);
    Payload payload;
    if (displayName.empty() || !findPayload(request, context, payload)) {
        std::string text;
        channel.reply(context.config.reply({request.verb}, text) ? text : "error");
        channel.finish();
        return;
    }
    auto keyed = openKeySession(channel, context, "OK|" + std::to_string(payload.size), request.boxId,
                                displayName);
    if (!keyed) return;
    ServerTlsSession& session = *keyed;

    if (faultOn(context.config, Fault::CutPush)) {
        // An ordinary close, without a close notification: the box sees the
        // stream end early.
        sendPayload(session, payload, payload.size / 2);
        return;
    }
    bool sent = sendPayload(session, payload, payload.size);
    // Beyond what was announced: the box must stop at the announced size.
    if (sent && faultOn(context.config, Fault::OverPush))
        sent = session.writeAll(std::string(100000, 'X'));
    // The box closes once it has every byte; its close notification ends the session.
    if (sent && LocalIo::readable(channel.fd(), 5000)) session.expectCloseNotify();
}
