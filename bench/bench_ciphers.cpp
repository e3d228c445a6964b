// Throughput of the program's ciphers beside mbed TLS on the same buffer.
// Usage: bench_ciphers [MiB]   (default 16; the triple form runs on a
// quarter of it, since the bit-per-integer form is slow by nature)
#include <mbedtls/chacha20.h>
#include <mbedtls/des.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "chacha.h"
#include "des.h"
#include "secretKeys.h"

namespace {

double seconds(std::chrono::steady_clock::time_point start) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void report(const char* name, size_t bytes, double secs, unsigned char check) {
    printf("%-34s %8.1f MB/s  (%zu bytes in %.3f s, check %02x)\n", name, bytes / 1e6 / secs, bytes,
           secs, check);
}

}  // namespace

int main(int argc, char** argv) {
    size_t mib = argc > 1 ? strtoul(argv[1], nullptr, 10) : 16;
    if (mib == 0) mib = 16;
    size_t size = mib << 20;
    std::vector<unsigned char> in(size), out(size);
    for (size_t i = 0; i < size; ++i) in[i] = (unsigned char)(i * 2654435761u >> 13);
    unsigned char nonce[8] = {1, 2, 3, 4, 5, 6, 7, 8};

    {
        ECRYPT_ctx x;
        ECRYPT_keysetup(&x, CHACHA_KEY, 256, 64);
        ECRYPT_ivsetup(&x, nonce);
        auto t = std::chrono::steady_clock::now();
        ECRYPT_encrypt_bytes(&x, in.data(), out.data(), (uint32_t)size);
        report("ChaCha8 (ECRYPT_encrypt_bytes)", size, seconds(t), out[size - 1]);
    }
    {
        FILE* f = tmpfile();
        EncryptMorva writer(true);
        auto t = std::chrono::steady_clock::now();
        const size_t piece = 1 << 20;
        for (size_t at = 0; at < size; at += piece)
            writer.encryptFwrite(in.data() + at, (int)piece, f, at + piece >= size);
        fflush(f);
        report("ChaCha8 encryptFwrite to tmpfile", size, seconds(t), (unsigned char)ftell(f));
        fclose(f);
    }
    {
        unsigned char nonce12[12] = {0};
        memcpy(nonce12 + 4, nonce, 8);
        auto t = std::chrono::steady_clock::now();
        mbedtls_chacha20_crypt(CHACHA_KEY, nonce12, 0, size, in.data(), out.data());
        report("mbed TLS ChaCha20", size, seconds(t), out[size - 1]);
    }

    size_t desSize = size;
    {
        Des des;
        int n = 0;
        auto t = std::chrono::steady_clock::now();
        char* c = des.Encrypt((const char*)in.data(), (int)desSize, n, 1);
        report("DES (Des::Encrypt, key 1)", desSize, seconds(t), (unsigned char)c[n - 1]);
        free(c);
    }
    {
        Des des;
        int n = 0;
        auto t = std::chrono::steady_clock::now();
        char* c = des.Encrypt3((const char*)in.data(), (int)desSize / 4, n);
        report("3DES (Des::Encrypt3)", desSize / 4, seconds(t), (unsigned char)c[n - 1]);
        free(c);
    }
    {
        mbedtls_des_context ctx;
        mbedtls_des_init(&ctx);
        mbedtls_des_setkey_enc(&ctx, DES_KEY_1);
        auto t = std::chrono::steady_clock::now();
        for (size_t at = 0; at < size; at += 8) mbedtls_des_crypt_ecb(&ctx, in.data() + at, out.data() + at);
        report("mbed TLS DES (ECB)", size, seconds(t), out[size - 1]);
        mbedtls_des_free(&ctx);
    }
    return 0;
}
