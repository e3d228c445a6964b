// The program's one exception type, the standard-error log line, and time formats.
#pragma once
#include <cstdio>
#include <ctime>

// Thrown by value for fatal conditions (lock time-outs, thread creation,
// fork failure); its text is logged the moment it is described, so the
// reason survives even when nothing catches it.
class MorvaExceptionTop {
public:
    char text[256];
    char name[64];

    explicit MorvaExceptionTop(const char* name = "MorvaFatalException");
    virtual ~MorvaExceptionTop() = default;

    // text = "%.32s:  %.100s" or "%.32s:  %.100s (%.100s)"; then logged.
    void describe(const char* message, const char* detail = nullptr);
    // The number, in unsigned decimal, is the detail.
    void describe(const char* message, unsigned int number);
    const char* what() const { return text; }
};

// Builds a "MorvaFatalException" with the message, logs it and throws it.
[[noreturn]] void throwFatal(const char* message, const char* detail = nullptr);

// "%Y/%m/%d %H:%M <message>\n" on standard error.
void logLine(const char* message);
// The same, followed by ": " and the text of the current errno.
void logSysError(const char* message);

// Local time (now when t is 0) as "%Y%m%d%H%M%S"; returns buf.
char* getUniversalDate(time_t t, char* buf, size_t size);

struct Timing {
    long long seconds;
    int milliseconds;
    static Timing now();
};
// "%dms\n\n" on standard output.
void ptime(const Timing& start, const Timing& end);
// "%s : %dms\n\n" on the stream.
void ptime(const char* label, const Timing& start, const Timing& end, FILE* stream);
