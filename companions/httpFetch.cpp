#include "httpFetch.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <strings.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

bool startsWithNoCase(const std::string& text, const char* prefix) {
    return strncasecmp(text.c_str(), prefix, strlen(prefix)) == 0;
}

bool validPort(const std::string& port) {
    if (port.empty() || port.size() > 5) return false;
    for (char c : port)
        if (!isdigit(static_cast<unsigned char>(c))) return false;
    long n = strtol(port.c_str(), nullptr, 10);
    return n > 0 && n <= 65535;
}

std::string trimmedValue(const std::string& text) {
    size_t b = text.find_first_not_of(" \t");
    if (b == std::string::npos) return "";
    size_t e = text.find_last_not_of(" \t\r");
    return text.substr(b, e - b + 1);
}

}  // namespace

bool parseUrl(const std::string& text, Url& url, std::string& reason) {
    size_t rest;
    if (startsWithNoCase(text, "https://")) {
        url.secure = true;
        rest = 8;
    } else if (startsWithNoCase(text, "http://")) {
        url.secure = false;
        rest = 7;
    } else {
        size_t colon = text.find("://");
        reason = "unsupported scheme \"" + (colon == std::string::npos ? text : text.substr(0, colon)) +
                 "\": only https (and http on loopback)";
        return false;
    }
    // Nothing that could end the request line or start a header of our own.
    for (unsigned char c : text)
        if (c <= ' ' || c == 0x7f) {
            reason = "malformed address (blank or control character)";
            return false;
        }
    size_t end = text.find_first_of("/?#", rest);
    std::string authority = text.substr(rest, end == std::string::npos ? std::string::npos : end - rest);
    if (authority.find('@') != std::string::npos) {
        reason = "user names in addresses are not supported";
        return false;
    }
    std::string port;
    if (!authority.empty() && authority[0] == '[') {
        size_t close = authority.find(']');
        if (close == std::string::npos) {
            reason = "malformed address (unclosed \"[\")";
            return false;
        }
        url.host = authority.substr(1, close - 1);
        if (close + 1 < authority.size()) {
            if (authority[close + 1] != ':') {
                reason = "malformed address after \"]\"";
                return false;
            }
            port = authority.substr(close + 2);
        } else {
            port = "";
        }
    } else {
        size_t colon = authority.find(':');
        url.host = authority.substr(0, colon);
        if (colon != std::string::npos) port = authority.substr(colon + 1);
    }
    if (url.host.empty()) {
        reason = "no host in the address";
        return false;
    }
    if (port.empty()) port = url.secure ? "443" : "80";
    if (!validPort(port)) {
        reason = "bad port \"" + port + "\"";
        return false;
    }
    url.port = port;
    std::string target = end == std::string::npos ? "" : text.substr(end);
    target = target.substr(0, target.find('#'));
    if (target.empty() || target[0] != '/') target = "/" + target;
    url.target = target;
    unsigned char any[sizeof(in6_addr)];
    url.numericHost = inet_pton(AF_INET, url.host.c_str(), any) == 1 || inet_pton(AF_INET6, url.host.c_str(), any) == 1;
    return true;
}

std::string requestFor(const Url& url) {
    std::string host = url.host.find(':') != std::string::npos ? "[" + url.host + "]" : url.host;
    if (url.port != (url.secure ? "443" : "80")) host += ":" + url.port;
    return "GET " + url.target + " HTTP/1.1\r\nHost: " + host +
           "\r\nUser-Agent: download\r\nAccept: */*\r\nConnection: close\r\n\r\n";
}

size_t headLength(const char* bytes, size_t count) {
    for (size_t i = 3; i < count; ++i)
        if (bytes[i] == '\n' && bytes[i - 1] == '\r' && bytes[i - 2] == '\n' && bytes[i - 3] == '\r') return i + 1;
    return 0;
}

bool parseAnswerHead(const std::string& head, AnswerHead& answer, std::string& reason) {
    size_t lineEnd = head.find("\r\n");
    std::string status = head.substr(0, lineEnd);
    // "HTTP/1.x NNN text"
    if (!startsWithNoCase(status, "HTTP/1.") || status.size() < 12 || status[8] != ' ' ||
        !isdigit(static_cast<unsigned char>(status[9])) || !isdigit(static_cast<unsigned char>(status[10])) ||
        !isdigit(static_cast<unsigned char>(status[11]))) {
        reason = "not an HTTP answer";
        return false;
    }
    answer.status = atoi(status.substr(9, 3).c_str());
    answer.statusText = trimmedValue(status.substr(9));
    for (size_t at = lineEnd + 2; at < head.size();) {
        size_t next = head.find("\r\n", at);
        if (next == std::string::npos || next == at) break;
        std::string line = head.substr(at, next - at);
        at = next + 2;
        size_t colon = line.find(':');
        if (colon == std::string::npos) continue;
        std::string name = line.substr(0, colon), value = trimmedValue(line.substr(colon + 1));
        if (strcasecmp(name.c_str(), "Content-Length") == 0) {
            char* endp = nullptr;
            errno = 0;
            long long n = value.empty() || !isdigit(static_cast<unsigned char>(value[0]))
                              ? -1
                              : strtoll(value.c_str(), &endp, 10);
            if (n < 0 || errno || *endp || (answer.contentLength >= 0 && answer.contentLength != n)) {
                reason = "bad Content-Length \"" + value + "\"";
                return false;
            }
            answer.contentLength = n;
        } else if (strcasecmp(name.c_str(), "Location") == 0) {
            answer.location = value;
        } else if (strcasecmp(name.c_str(), "Transfer-Encoding") == 0) {
            answer.chunked = strcasecmp(value.c_str(), "identity") != 0;
        }
    }
    return true;
}

bool isLoopback(const sockaddr* address) {
    if (address->sa_family == AF_INET)
        return (ntohl(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr) >> 24) == 127;
    if (address->sa_family != AF_INET6) return false;
    const in6_addr& a = reinterpret_cast<const sockaddr_in6*>(address)->sin6_addr;
    if (IN6_IS_ADDR_LOOPBACK(&a)) return true;
    return IN6_IS_ADDR_V4MAPPED(&a) && a.s6_addr[12] == 127;
}
