#include "linkUtil.h"

#include <cstdlib>
#include <cstring>

#include "files.h"
#include "memory.h"

namespace LinkUtil {

namespace {
bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}
}  // namespace

std::string trimmed(const std::string& text) {
    size_t b = 0, e = text.size();
    while (b < e && isBlank(text[b])) ++b;
    while (e > b && isBlank(text[e - 1])) --e;
    return text.substr(b, e - b);
}

static std::string readWhole(const char* dir, const char* name) {
    char* text = readTxt(dir, name);
    std::string out = text ? text : "";
    if (text && text != EMPTY_TEXT) free(text);
    return out;
}

std::string readState(const char* dir, const char* name) {
    return trimmed(readWhole(dir, name));
}

std::string readStateRight(const char* dir, const char* name) {
    std::string s = readWhole(dir, name);
    size_t e = s.size();
    while (e > 0 && isBlank(s[e - 1])) --e;
    return s.substr(0, e);
}

char* handOver(const char* text, Memory* mem) {
    if (!text) text = "";
    size_t n = strlen(text) + 1;
    if (!mem) return InternalCache::getCacheReturn(text, n, false);
    char* p = static_cast<char*>(mem->malloc(n));
    memcpy(p, text, n);
    return p;
}

long readCount(const char* dir, const char* name) {
    return strtol(readState(dir, name).c_str(), nullptr, 10);
}

void writeCount(const char* dir, const char* name, long value) {
    writeTxt(dir, name, std::to_string(value).c_str());
}

}  // namespace LinkUtil
