#include "random.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <mbedtls/ctr_drbg.h>
#include <mbedtls/entropy.h>

#include "locks.h"
#include "memory.h"

namespace {
mbedtls_ctr_drbg_context g_drbg;
mbedtls_entropy_context g_entropy;
pthread_once_t g_once = PTHREAD_ONCE_INIT;
pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
bool g_seeded = false;

int g_urandom = -2;
pthread_mutex_t g_urandomMutex = PTHREAD_MUTEX_INITIALIZER;

const char UID_ROOT[] = "1.3.6.1.4.1.64523";

void initOnce() { randomInit(); }
}  // namespace

void randomInit() {
    mbedtls_ctr_drbg_init(&g_drbg);
    mbedtls_entropy_init(&g_entropy);
    g_seeded = mbedtls_ctr_drbg_seed(&g_drbg, mbedtls_entropy_func, &g_entropy, nullptr, 0) == 0;
}

void getRandomNumber(unsigned char* buf, int len) {
    if (!buf || len <= 0) return;
    pthread_once(&g_once, initOnce);
    bool ok = g_seeded;
    if (ok) {
        Util::setMutexLock(&g_mutex);
        // The generator hands out at most MBEDTLS_CTR_DRBG_MAX_REQUEST bytes a call.
        for (int done = 0; ok && done < len;) {
            int n = len - done;
            if (n > MBEDTLS_CTR_DRBG_MAX_REQUEST) n = MBEDTLS_CTR_DRBG_MAX_REQUEST;
            ok = mbedtls_ctr_drbg_random(&g_drbg, buf + done, (size_t)n) == 0;
            done += n;
        }
        pthread_mutex_unlock(&g_mutex);
    }
    // Never hand out unseeded generator output.
    if (!ok) get_random_bytes(buf, len);
}

void get_random_bytes(void* buf, int len) {
    unsigned char* p = (unsigned char*)buf;
    if (!p || len <= 0) return;
    int got = 0;
    Util::setMutexLock(&g_urandomMutex);
    if (g_urandom == -2) {
        g_urandom = open("/dev/urandom", O_RDONLY | O_CLOEXEC);
        srand((unsigned int)time(nullptr) ^ ((unsigned int)getuid() ^ ((unsigned int)getpid() << 16)));
    }
    while (g_urandom >= 0 && got < len) {
        ssize_t n = read(g_urandom, p + got, (size_t)(len - got));
        if (n > 0)
            got += (int)n;
        else if (n < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        else
            break;
    }
    pthread_mutex_unlock(&g_urandomMutex);
    for (; got < len; got++) p[got] = (unsigned char)(rand() & 0xFF);
}

void uuid_generate(unsigned char* out, bool useGiven) {
    unsigned char in[16];
    if (useGiven)
        memcpy(in, out, 16);
    else
        get_random_bytes(in, 16);
    memcpy(out, in, 16);
    out[6] = (unsigned char)((in[6] & 0x0F) | 0x40);
    out[8] = (unsigned char)((in[8] & 0x3F) | 0x80);
}

void uuid_pack(const struct uuid* uu, unsigned char* out) {
    uint32_t v = uu->time_low;
    out[0] = (unsigned char)(v >> 24);
    out[1] = (unsigned char)(v >> 16);
    out[2] = (unsigned char)(v >> 8);
    out[3] = (unsigned char)v;
    out[4] = (unsigned char)(uu->time_mid >> 8);
    out[5] = (unsigned char)uu->time_mid;
    out[6] = (unsigned char)(uu->time_hi_and_version >> 8);
    out[7] = (unsigned char)uu->time_hi_and_version;
    out[8] = (unsigned char)(uu->clock_seq >> 8);
    out[9] = (unsigned char)uu->clock_seq;
    memcpy(out + 10, uu->node, 6);
}

void uuid_unpack(const unsigned char* in, struct uuid* uu) {
    uu->time_low = ((uint32_t)in[0] << 24) | ((uint32_t)in[1] << 16) | ((uint32_t)in[2] << 8) | in[3];
    uu->time_mid = (uint16_t)((in[4] << 8) | in[5]);
    uu->time_hi_and_version = (uint16_t)((in[6] << 8) | in[7]);
    uu->clock_seq = (uint16_t)((in[8] << 8) | in[9]);
    memcpy(uu->node, in + 10, 6);
}

char* genSopInstanceId() {
    unsigned char u[16];
    getRandomNumber(u, 16);
    uuid_generate(u, true);
    uint32_t now = (uint32_t)time(nullptr);
    // This choice and packing of bytes is what makes our UIDs recognisable;
    // u[8] carries the variant bits, so the fifth number starts 128..191.
    uint32_t fourth = ((uint32_t)u[4] << 24) + ((uint32_t)u[3] << 16);
    uint32_t fifth = ((uint32_t)u[8] << 24) + ((uint32_t)u[7] << 16) + ((uint32_t)u[11] << 8);
    char buf[128];
    snprintf(buf, sizeof buf, "%s.%u.%u.%u.%u.%u.%u", UID_ROOT, (unsigned)u[0], (unsigned)u[1],
             (unsigned)u[2], fourth, fifth, now);
    return InternalCache::getCacheReturn(buf);
}

char* genInstanceFromParts(const char* a, const char* b, const char* c, const char* d) {
    char buf[128];
    size_t len = (size_t)snprintf(buf, sizeof buf, "%s", UID_ROOT);
    const char* parts[4] = {a, b, c, d};
    for (const char* part : parts) {
        if (!part || !*part) continue;
        uint32_t h = 0;
        for (const char* p = part; *p; p++) h = h * 31u + (uint32_t)(int32_t)(signed char)*p;
        len += (size_t)snprintf(buf + len, sizeof buf - len, ".%u", (unsigned)(h % 100000u));
    }
    return InternalCache::getCacheReturn(buf);
}
