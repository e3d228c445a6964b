#include "request.h"

#include <strings.h>

#include <cstring>

static std::vector<std::string> splitBars(const std::string& line) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (;;) {
        size_t bar = line.find('|', start);
        parts.push_back(line.substr(start, bar == std::string::npos ? std::string::npos : bar - start));
        if (bar == std::string::npos) break;
        start = bar + 1;
    }
    return parts;
}

static bool startsWithNoCase(const std::string& s, const char* prefix) {
    size_t n = strlen(prefix);
    return s.size() >= n && strncasecmp(s.c_str(), prefix, n) == 0;
}

static bool endsWith(const std::string& s, const std::string& tail) {
    return s.size() >= tail.size() && s.compare(s.size() - tail.size(), tail.size(), tail) == 0;
}

bool completeCommand(const std::string& received, std::string& line) {
    if (!endsWith(received, "|~~")) return false;
    line = received.substr(0, received.size() - 3);
    return true;
}

std::string Request::queryValue(const std::string& query, const std::string& key) {
    size_t start = 0;
    while (start <= query.size()) {
        size_t amp = query.find('&', start);
        std::string item = query.substr(start, amp == std::string::npos ? std::string::npos : amp - start);
        size_t eq = item.find('=');
        if (eq != std::string::npos && item.compare(0, eq, key) == 0) return item.substr(eq + 1);
        if (amp == std::string::npos) break;
        start = amp + 1;
    }
    return "";
}

// The quoted value after "key": in an information text, "" when absent.
static std::string infoValue(const std::string& text, const char* key) {
    size_t at = text.find(std::string("\"") + key + "\":");
    size_t open = at == std::string::npos ? at : text.find('"', at + strlen(key) + 3);
    size_t close = open == std::string::npos ? open : text.find('"', open + 1);
    return close == std::string::npos ? "" : text.substr(open + 1, close - open - 1);
}

static void parseUpload(Request& r) {
    r.kind = Request::Kind::Upload;
    r.verb = "upload";
    r.uploadId = r.fields[0];
    r.boxId = r.uploadId.substr(0, r.uploadId.find('/'));
    r.uploadName = r.fields[1];
    if (!r.uploadName.empty() && r.uploadName[0] == '{')
        r.uploadName = infoValue(r.uploadName, "sop_instance_id") + infoValue(r.uploadName, "file_suffix");
    const std::string& size = r.fields[2];
    r.uploadSizeValid = !size.empty() && size.size() <= 19 &&
                        size.find_first_not_of("0123456789") == std::string::npos;
    if (r.uploadSizeValid) r.uploadSize = std::stoull(size);
}

Request parseRequest(const std::string& line) {
    Request r;
    r.line = line;
    r.fields = splitBars(line);
    const std::string& first = r.fields[0];

    if (r.fields.size() >= 7 && endsWith(line, "|~~|1")) {
        parseUpload(r);
    } else if (first.compare(0, 4, "API/") == 0) {
        r.kind = Request::Kind::Api;
        r.verb = "API";
        std::string rest = first.substr(4);
        r.boxId = rest.substr(0, rest.find('/'));
        if (r.fields.size() >= 2) r.apiType = r.fields[1];
    } else if (startsWithNoCase(first, "ipsDNS")) {
        r.kind = Request::Kind::Service;
        r.verb = "ipsDNS";
        size_t slash = first.find('/');
        if (slash != std::string::npos) r.boxId = first.substr(slash + 1);
    } else if (startsWithNoCase(first, "ips") && (first.size() == 3 || first[3] == '/')) {
        r.kind = Request::Kind::Service;
        r.verb = "ips";
        if (first.size() > 3) r.boxId = first.substr(4);
    } else if (first == "init" || first == "heartbeat" || first == "failure" || first == "echo") {
        r.kind = Request::Kind::Service;
        r.verb = first;
        if (first == "echo") {
            if (r.fields.size() >= 4) r.boxId = r.fields[3];
        } else if (r.fields.size() >= 2) {
            r.boxId = Request::queryValue(r.fields[1], "fqdn");
        }
    } else if (r.fields.size() >= 2 && !first.empty() && !r.fields[1].empty()) {
        r.kind = Request::Kind::Identified;
        r.boxId = first;
        r.verb = r.fields[1];
    }
    return r;
}
