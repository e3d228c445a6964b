#include "verbs.h"

#include "request.h"
#include "serviceContext.h"

bool isPushVerb(const std::string& verb) {
    return verb == "STUDIES" || verb == "WORKLIST" || verb == "QR" || verb == "GetPreshare" ||
           verb == "DICOM";
}

std::vector<std::string> replyKeys(const Request& request) {
    if (request.kind == Request::Kind::Api) {
        std::vector<std::string> keys;
        if (isPlainName(request.apiType)) keys.push_back("API." + request.apiType);
        keys.push_back("API");
        return keys;
    }
    if (request.verb == "ipsDNS") return {"ipsDNS", "ips"};
    if (request.verb.empty()) return {};
    return {request.verb};
}

static std::string defaultReply(const Request& request, ServiceContext& context) {
    const std::string& v = request.verb;
    switch (request.kind) {
    case Request::Kind::Api:
        return "success";
    case Request::Kind::Service:
        if (v == "ips" || v == "ipsDNS") return context.address;
        if (v == "init" || v == "heartbeat") {
            std::string name = context.config.displayName(request.boxId);
            return name.empty() ? "" : "display_name=" + name;
        }
        if (v == "echo") return request.line.size() > 5 ? request.line.substr(5) : "";
        return "OK";  // failure
    case Request::Kind::Identified:
        if (v == "LOG" || v == "dDicom") return "OK";
        if (v == "MOVE") return "0";
        if (v == "qDicomCt") return std::to_string(context.config.queued("qDicom"));
        if (v == "qDicom") return "0|NONE";
        if (v == "qDicom1") return "0|title|NONE";
        if (v == "REPEAT") return "no";
        return "error";
    default:
        return "error";
    }
}

std::string replyFor(const Request& request, ServiceContext& context) {
    std::string text;
    if (context.config.reply(replyKeys(request), text)) return text;
    return defaultReply(request, context);
}
