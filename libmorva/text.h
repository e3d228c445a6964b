// Text helpers. Results live in the caller's arena, or in the InternalCache
// when no arena is given; trimming works in place.
#pragma once
#include <cstddef>
#include <string>

class Memory;

// In-place trimming of POSIX white space; null and "" are returned as given.
char* ltrim(char* text);
char* rtrim(char* text);
char* trim(char* text);
// A trimmed copy, up to the first zero byte.
std::string trimmed(const std::string& text);

// In-place case change; returns the argument.
char* tolower(char* text);
char* toupper(char* text);

// Writes the byte as two upper-case hex digits at out (no terminator); returns out + 2.
char* charToHex(unsigned char byte, char* out);
// Two hex digits to a byte; non-hex digits count as 0.
unsigned char hexToChar(const char* twoDigits);

// Percent-encoding; with spaceAsPlus a blank becomes "+". Returns a malloc'd
// copy, or null when nothing needs encoding.
char* encodeUrl(const char* text, bool spaceAsPlus);
// Decodes "%xx" and "+" in place; returns the argument.
char* decodeUrl(char* text);
// True when text ends with tail (null counts as "").
bool endsWith(const char* text, const char* tail);
// The same, ignoring ASCII case.
bool endsWithNoCase(const char* text, const char* tail);
// Last occurrence of needle in haystack, or null.
const char* strrstr(const char* haystack, const char* needle);
// True when the bytes are well-formed UTF-8.
bool utf8_check(const char* text);

// Appends formatted text to the zero-terminated buffer of the given size;
// whatever does not fit is cut. Returns the buffer.
char* appendf(char* buffer, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

namespace Util {
// Pieces at every separator (empty pieces kept). Null/"" give count 0 and null.
char** split(const char* text, char separator, int* count, Memory* memory);
// Every occurrence replaced; returns the same pointer when nothing changes.
char* replace(char* text, const char* pattern, const char* replacement, Memory* memory,
              bool caseSensitive);
// Membership in a comma-separated list (case-sensitive, no trimming).
bool isInList(const char* list, const char* item);
// URL-encoded copy (blanks as "+"); the same pointer when nothing to encode.
char* encodeUrl(const char* text, Memory* memory);
// Unsigned decimal text in the arena or the ring.
char* itoa(unsigned int value, Memory* memory);
// JSON string escaping: \ / " LF CR TAB FF BS as two-character escapes.
char* sanitize(const char* text, Memory* memory);
// Replaces bytes that are not printable ASCII or valid UTF-8 by blanks, in place.
char* makeWellFormed(char* text);
// Decodes the five XML entities and numeric character references in place.
char* decodeXML(char* text);
}
