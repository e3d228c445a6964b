#include "text.h"

#include <strings.h>

#include <cstdlib>
#include <cstdarg>
#include <cstring>

#include "memory.h"

namespace {
// The POSIX-locale space class, independent of the process locale.
inline bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r';
}

inline bool isUnreserved(unsigned char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '_' || c == '.' || c == '~';
}

inline int hexValue(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

char* scratch(size_t size, Memory* memory) {
    return memory ? static_cast<char*>(memory->malloc(size)) : InternalCache::getCacheReturn(nullptr, size, false);
}

// Length of the well-formed UTF-8 sequence at p, or 0 when it is not one.
int utf8Length(const unsigned char* p) {
    unsigned char c = p[0];
    if (c < 0x80) return 1;
    int n;
    unsigned int cp;
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
        cp = c & 0x1F;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        cp = c & 0x0F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        cp = c & 0x07;
    } else {
        return 0;
    }
    for (int i = 1; i < n; ++i) {
        if ((p[i] & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    if ((n == 3 && cp < 0x800) || (n == 4 && cp < 0x10000) || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
        return 0;
    return n;
}

int putUtf8(unsigned int cp, char* out) {
    if (cp < 0x80) {
        out[0] = static_cast<char>(cp);
        return 1;
    }
    if (cp < 0x800) {
        out[0] = static_cast<char>(0xC0 | (cp >> 6));
        out[1] = static_cast<char>(0x80 | (cp & 0x3F));
        return 2;
    }
    if (cp < 0x10000) {
        out[0] = static_cast<char>(0xE0 | (cp >> 12));
        out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out[2] = static_cast<char>(0x80 | (cp & 0x3F));
        return 3;
    }
    out[0] = static_cast<char>(0xF0 | (cp >> 18));
    out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
    out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[3] = static_cast<char>(0x80 | (cp & 0x3F));
    return 4;
}
}  // namespace

char* ltrim(char* text) {
    if (!text || !*text) return text;
    char* p = text;
    while (*p && isBlank(*p)) ++p;
    if (p != text) memmove(text, p, strlen(p) + 1);
    return text;
}

char* rtrim(char* text) {
    if (!text || !*text) return text;
    char* end = text + strlen(text);
    while (end > text && isBlank(end[-1])) *--end = '\0';
    return text;
}

char* trim(char* text) { return rtrim(ltrim(text)); }

std::string trimmed(const std::string& text) {
    std::string copy = text;
    return trim(&copy[0]);
}

char* tolower(char* text) {
    if (text)
        for (char* p = text; *p; ++p)
            if (*p >= 'A' && *p <= 'Z') *p = static_cast<char>(*p + ('a' - 'A'));
    return text;
}

char* toupper(char* text) {
    if (text)
        for (char* p = text; *p; ++p)
            if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - ('a' - 'A'));
    return text;
}

char* charToHex(unsigned char byte, char* out) {
    static const char digits[] = "0123456789ABCDEF";
    out[0] = digits[byte >> 4];
    out[1] = digits[byte & 0x0F];
    return out + 2;
}

unsigned char hexToChar(const char* twoDigits) {
    int hi = hexValue(twoDigits[0]);
    int lo = twoDigits[0] ? hexValue(twoDigits[1]) : -1;
    return static_cast<unsigned char>(((hi < 0 ? 0 : hi) << 4) | (lo < 0 ? 0 : lo));
}

char* encodeUrl(const char* text, bool spaceAsPlus) {
    if (!text) return nullptr;
    size_t extra = 0;
    bool change = false;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        if (isUnreserved(*p)) continue;
        change = true;
        if (!(spaceAsPlus && *p == ' ')) extra += 2;
    }
    if (!change) return nullptr;
    char* out = static_cast<char*>(::malloc(strlen(text) + extra + 1));
    if (!out) return nullptr;
    char* o = out;
    for (const unsigned char* p = reinterpret_cast<const unsigned char*>(text); *p; ++p) {
        if (isUnreserved(*p)) {
            *o++ = static_cast<char>(*p);
        } else if (spaceAsPlus && *p == ' ') {
            *o++ = '+';
        } else {
            *o++ = '%';
            o = charToHex(*p, o);
        }
    }
    *o = '\0';
    return out;
}

char* decodeUrl(char* text) {
    if (!text) return text;
    char* o = text;
    for (char* p = text; *p; ++p) {
        if (*p == '+') {
            *o++ = ' ';
        } else if (*p == '%' && hexValue(p[1]) >= 0 && hexValue(p[2]) >= 0) {
            *o++ = static_cast<char>(hexToChar(p + 1));
            p += 2;
        } else {
            *o++ = *p;
        }
    }
    *o = '\0';
    return text;
}

bool endsWith(const char* text, const char* tail) {
    size_t n = text ? strlen(text) : 0, m = tail ? strlen(tail) : 0;
    return n >= m && (m == 0 || memcmp(text + n - m, tail, m) == 0);
}

bool endsWithNoCase(const char* text, const char* tail) {
    size_t n = text ? strlen(text) : 0, m = tail ? strlen(tail) : 0;
    return n >= m && (m == 0 || strcasecmp(text + n - m, tail) == 0);
}

const char* strrstr(const char* haystack, const char* needle) {
    if (!haystack || !needle) return nullptr;
    size_t hl = strlen(haystack), nl = strlen(needle);
    if (nl > hl) return nullptr;
    for (const char* p = haystack + (hl - nl);; --p) {
        if (strncmp(p, needle, nl) == 0) return p;
        if (p == haystack) break;
    }
    return nullptr;
}

bool utf8_check(const char* text) {
    if (!text) return true;
    const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
    while (*p) {
        int n = utf8Length(p);
        if (n == 0) return false;
        p += n;
    }
    return true;
}

namespace Util {

char** split(const char* text, char separator, int* count, Memory* memory) {
    *count = 0;
    if (!text || !*text) return nullptr;
    int separators = 0;
    for (const char* p = text; *p; ++p)
        if (*p == separator) ++separators;
    int n = separators + 1;
    size_t len = strlen(text);
    char** pieces;
    char* copy;
    if (memory) {
        pieces = static_cast<char**>(memory->malloc(sizeof(char*) * n + len + 1));
        copy = reinterpret_cast<char*>(pieces + n);
        memcpy(copy, text, len + 1);
    } else {
        pieces = reinterpret_cast<char**>(InternalCache::getCacheReturn(nullptr, sizeof(char*) * n, false));
        // Without a separator the caller's own text is the only piece.
        copy = separators ? InternalCache::getCacheReturn(text) : const_cast<char*>(text);
    }
    *count = n;
    pieces[0] = copy;
    if (separators == 0) return pieces;
    int i = 1;
    for (char* p = copy; *p; ++p) {
        if (*p == separator) {
            *p = '\0';
            pieces[i++] = p + 1;
        }
    }
    return pieces;
}

char* replace(char* text, const char* pattern, const char* replacement, Memory* memory, bool caseSensitive) {
    if (!text || !pattern || !replacement || !*text || !*pattern) return text;
    size_t plen = strlen(pattern), rlen = strlen(replacement), tlen = strlen(text);
    auto matches = [&](const char* p) {
        return caseSensitive ? strncmp(p, pattern, plen) == 0 : strncasecmp(p, pattern, plen) == 0;
    };
    size_t occurrences = 0;
    for (const char* p = text; *p; ++p)
        if (matches(p)) ++occurrences;
    if (occurrences == 0) return text;
    size_t size = tlen + 100;
    if (rlen > plen) size += occurrences * (rlen - plen);
    char* out = scratch(size, memory);
    char* o = out;
    for (const char* p = text; *p;) {
        if (matches(p)) {
            memcpy(o, replacement, rlen);
            o += rlen;
            p += plen;
        } else {
            *o++ = *p++;
        }
    }
    *o = '\0';
    return out;
}

bool isInList(const char* list, const char* item) {
    if (!list || !item) return false;
    if (strcmp(list, item) == 0) return true;
    size_t ll = strlen(list), il = strlen(item);
    if (ll > il && strncmp(list, item, il) == 0 && list[il] == ',') return true;
    if (ll > il && list[ll - il - 1] == ',' && strcmp(list + ll - il, item) == 0) return true;
    for (const char* p = strchr(list, ','); p; p = strchr(p + 1, ','))
        if (strncmp(p + 1, item, il) == 0 && p[1 + il] == ',') return true;
    return false;
}

char* encodeUrl(const char* text, Memory* memory) {
    if (!text) return nullptr;
    if (!*text) return const_cast<char*>(text);
    char* encoded = ::encodeUrl(text, true);
    if (!encoded) return const_cast<char*>(text);
    size_t n = strlen(encoded) + 1;
    char* out = scratch(n, memory);
    memcpy(out, encoded, n);
    ::free(encoded);
    return out;
}

char* itoa(unsigned int value, Memory* memory) {
    char digits[16];
    int i = sizeof digits;
    digits[--i] = '\0';
    do {
        digits[--i] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value);
    size_t n = sizeof digits - i;
    char* out = scratch(n, memory);
    memcpy(out, digits + i, n);
    return out;
}

// One pass; gives what escaping backslash, "/", quote, LF, CR, TAB, FF, BS in
// that order would, since only the backslash itself can be re-escaped.
char* sanitize(const char* text, Memory* memory) {
    if (!text) return nullptr;
    auto escapeOf = [](char c) -> char {
        switch (c) {
        case '\\': return '\\';
        case '/': return '/';
        case '"': return '"';
        case '\n': return 'n';
        case '\r': return 'r';
        case '\t': return 't';
        case '\f': return 'f';
        case '\b': return 'b';
        default: return 0;
        }
    };
    size_t size = 1;
    for (const char* p = text; *p; ++p) size += escapeOf(*p) ? 2 : 1;
    char* out = scratch(size, memory);
    char* o = out;
    for (const char* p = text; *p; ++p) {
        if (char e = escapeOf(*p)) {
            *o++ = '\\';
            *o++ = e;
        } else {
            *o++ = *p;
        }
    }
    *o = '\0';
    return out;
}

char* makeWellFormed(char* text) {
    if (!text) return text;
    unsigned char* p = reinterpret_cast<unsigned char*>(text);
    while (*p) {
        if (*p < 0x20 && *p != '\t' && *p != '\n' && *p != '\r') {
            *p++ = ' ';
        } else if (*p == 0x7F) {
            *p++ = ' ';
        } else if (int n = utf8Length(p)) {
            p += n;
        } else {
            *p++ = ' ';
        }
    }
    return text;
}

char* decodeXML(char* text) {
    if (!text) return text;
    static const struct {
        const char* name;
        char value;
    } entities[] = {{"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
    char* o = text;
    for (char* p = text; *p;) {
        if (*p != '&') {
            *o++ = *p++;
            continue;
        }
        bool done = false;
        for (const auto& e : entities) {
            size_t n = strlen(e.name);
            if (strncmp(p, e.name, n) == 0) {
                *o++ = e.value;
                p += n;
                done = true;
                break;
            }
        }
        if (!done && p[1] == '#') {
            bool hex = p[2] == 'x' || p[2] == 'X';
            char* digits = p + (hex ? 3 : 2);
            char* end = nullptr;
            unsigned long cp = strtoul(digits, &end, hex ? 16 : 10);
            bool leadsWithDigit = hex ? hexValue(*digits) >= 0 : (*digits >= '0' && *digits <= '9');
            if (leadsWithDigit && *end == ';' && cp > 0 && cp <= 0x10FFFF &&
                !(cp >= 0xD800 && cp <= 0xDFFF)) {
                // The encoding is never longer than the reference it replaces.
                o += putUtf8(static_cast<unsigned int>(cp), o);
                p = end + 1;
                done = true;
            }
        }
        if (!done) *o++ = *p++;
    }
    *o = '\0';
    return text;
}

}  // namespace Util

char* appendf(char* buffer, size_t size, const char* format, ...) {
    size_t used = strnlen(buffer, size);
    if (used + 1 >= size) return buffer;
    va_list args;
    va_start(args, format);
    vsnprintf(buffer + used, size - used, format, args);
    va_end(args);
    return buffer;
}
