#include "linkUtil.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "files.h"
#include "bounds.h"
#include "memory.h"
#include "morvaNet.h"

namespace LinkUtil {

char* handOver(const char* text, Memory* mem) {
    if (!text) text = "";
    size_t n = strlen(text) + 1;
    if (!mem && n > Limits::RING_TEXT_MOST) {
        Network::report("Reply too long for the shared buffer", false, false);
        return InternalCache::getCacheReturn("", 1, false);
    }
    if (!mem) return InternalCache::getCacheReturn(text, n, false);
    char* p = static_cast<char*>(mem->malloc(n));
    memcpy(p, text, n);
    return p;
}

long readCount(const char* dir, const char* name) {
    return strtol(readTrimmed(dir, name), nullptr, 10);
}

void writeCount(const char* dir, const char* name, long value) {
    writeTxt(dir, name, std::to_string(value).c_str());
}

}  // namespace LinkUtil
