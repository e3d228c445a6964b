// Small helpers shared by the cloud-link sources.
#pragma once

class Memory;

namespace LinkUtil {
// Copy of text in mem, or in the InternalCache when mem is null; there a
// text longer than Limits::RING_TEXT_MOST becomes "" (and is reported).
char* handOver(const char* text, Memory* mem);
// Reads the integer in a state file (missing or empty: 0).
long readCount(const char* dir, const char* name);
void writeCount(const char* dir, const char* name, long value);
}  // namespace LinkUtil
