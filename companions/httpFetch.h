// The text side of one HTTP GET: the address taken apart, the request, and
// the answer's head. No I/O here.
#pragma once
#include <sys/socket.h>

#include <string>

struct Url {
    bool secure = true;    // https (else http)
    std::string host;      // without the brackets of an IPv6 literal
    std::string port;      // "443"/"80" when the address names none
    std::string target;    // path and query, at least "/"
    bool numericHost = false;
};

// False with the reason when the text is no http or https address we fetch.
bool parseUrl(const std::string& text, Url& url, std::string& reason);

// "GET" for the target, asking the server to close after the answer.
std::string requestFor(const Url& url);

struct AnswerHead {
    int status = 0;
    std::string statusText;      // "404 Not Found"
    long long contentLength = -1;  // -1: not announced
    std::string location;
    bool chunked = false;
};

// Finds the end of the head ("\r\n\r\n") in the bytes so far: its length
// with the blank line, or 0 while it has not come.
size_t headLength(const char* bytes, size_t count);
// False with the reason when the head cannot be read.
bool parseAnswerHead(const std::string& head, AnswerHead& answer, std::string& reason);

// 127.0.0.0/8, ::1, or an IPv4-mapped loopback address.
bool isLoopback(const sockaddr* address);
