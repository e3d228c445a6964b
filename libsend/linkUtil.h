// Small helpers shared by the cloud-link sources.
#pragma once
#include <string>

class Memory;

namespace LinkUtil {
// A state file's text, trimmed of surrounding white space ("" when missing).
std::string readState(const char* dir, const char* name);
// The same, trimmed on the right only.
std::string readStateRight(const char* dir, const char* name);
std::string trimmed(const std::string& text);
// Copy of text in mem, or in the InternalCache when mem is null.
char* handOver(const char* text, Memory* mem);
// Reads the integer in a state file (missing or empty: 0).
long readCount(const char* dir, const char* name);
void writeCount(const char* dir, const char* name, long value);
}  // namespace LinkUtil
