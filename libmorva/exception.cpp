#include "exception.h"

#include <sys/time.h>

#include <cerrno>
#include <cstring>

MorvaExceptionTop::MorvaExceptionTop(const char* n) {
    text[0] = '\0';
    snprintf(name, sizeof name, "%.63s", n ? n : "");  // the buffer holds 63 and the zero
}

void MorvaExceptionTop::describe(const char* message, const char* detail) {
    if (detail)
        snprintf(text, sizeof text, "%.32s:  %.100s (%.100s)", name, message ? message : "", detail);
    else
        snprintf(text, sizeof text, "%.32s:  %.100s", name, message ? message : "");
    logLine(text);
}

void MorvaExceptionTop::describe(const char* message, unsigned int number) {
    char digits[16];
    int n = 0;
    bool started = false;
    for (unsigned int div = 1000000000u; div > 0; div /= 10) {
        unsigned int d = (number / div) % 10;
        if (d != 0 || started || div == 1) {
            started = true;
            digits[n++] = static_cast<char>('0' + d);
        }
    }
    digits[n] = '\0';
    describe(message, digits);
}

void throwFatal(const char* message, const char* detail) {
    MorvaExceptionTop e("MorvaFatalException");
    e.describe(message, detail);
    throw e;
}

static void stamp(char* buf, size_t size) {
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    strftime(buf, size, "%Y/%m/%d %H:%M", &tmv);
}

void logLine(const char* message) {
    char when[32];
    stamp(when, sizeof when);
    fprintf(stderr, "%s %s\n", when, message ? message : "");
    fflush(stderr);
}

void logSysError(const char* message) {
    int err = errno;
    char when[32];
    stamp(when, sizeof when);
    fprintf(stderr, "%s %s: %s\n", when, message ? message : "", strerror(err));
    fflush(stderr);
}

char* getUniversalDate(time_t t, char* buf, size_t size) {
    if (t == 0) t = time(nullptr);
    struct tm tmv;
    localtime_r(&t, &tmv);
    strftime(buf, size, "%Y%m%d%H%M%S", &tmv);
    return buf;
}

Timing Timing::now() {
    struct timeval tv;
    gettimeofday(&tv, nullptr);
    return Timing{static_cast<long long>(tv.tv_sec), static_cast<int>(tv.tv_usec / 1000)};
}

static int elapsedMs(const Timing& start, const Timing& end) {
    return static_cast<int>((end.seconds * 1000 + end.milliseconds) -
                            (start.seconds * 1000 + start.milliseconds));
}

void ptime(const Timing& start, const Timing& end) {
    printf("%dms\n\n", elapsedMs(start, end));
    fflush(stdout);
}

void ptime(const char* label, const Timing& start, const Timing& end, FILE* stream) {
    fprintf(stream, "%s : %dms\n\n", label, elapsedMs(start, end));
    fflush(stream);
}
