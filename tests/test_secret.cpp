// Ciphers and the encoding of secrets in state files, against mbed TLS and
// published vectors.
#include <gtest/gtest.h>
#include <mbedtls/base64.h>
#include <mbedtls/chacha20.h>
#include <mbedtls/des.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "des.h"
#include "secretKeys.h"
#include "util.h"

namespace {

const unsigned char* u(const std::string& s) { return (const unsigned char*)s.data(); }

std::string randomBytes(std::mt19937& rng, size_t n, int lowest = 0) {
    std::string s(n, '\0');
    for (auto& c : s) c = (char)(lowest + rng() % (256 - lowest));
    return s;
}

std::string take(char* p, int n) {
    std::string s(p, n);
    free(p);
    return s;
}

std::string decoded(std::string text, int lengthIn = 0) {
    int n = -1;
    char* p = decode(&text[0], n, lengthIn);
    return take(p, n);
}

// Single DES in ECB mode, by mbed TLS.
std::string mbedDes(const unsigned char* key, const std::string& in) {
    std::string out(in.size(), '\0');
    mbedtls_des_context des;
    mbedtls_des_init(&des);
    mbedtls_des_setkey_enc(&des, key);
    for (size_t at = 0; at + 8 <= in.size(); at += 8) mbedtls_des_crypt_ecb(&des, u(in) + at, (unsigned char*)&out[at]);
    mbedtls_des_free(&des);
    return out;
}

uint32_t le(const void* v) {
    auto* p = (const unsigned char*)v;
    return p[0] | (p[1] << 8) | (p[2] << 16) | ((uint32_t)p[3] << 24);
}

// The text under the key stream written from the public algorithm (64-bit
// counter in words 12-13, 64-bit nonce in 14-15, 256-bit key); itself checked
// against mbed TLS and a published vector. The program's constant words end
// "-bytek" and a zero byte, not "-byte k", and it runs 8 rounds.
std::string chacha(const char* constant, int rounds, const unsigned char* key, const unsigned char* nonce,
                   const std::string& text) {
    auto qr = [](uint32_t* x, int a, int b, int c, int d) {
        auto rotl = [](uint32_t v, int n) { return (v << n) | (v >> (32 - n)); };
        x[a] += x[b]; x[d] = rotl(x[d] ^ x[a], 16);
        x[c] += x[d]; x[b] = rotl(x[b] ^ x[c], 12);
        x[a] += x[b]; x[d] = rotl(x[d] ^ x[a], 8);
        x[c] += x[d]; x[b] = rotl(x[b] ^ x[c], 7);
    };
    std::string out;
    for (uint64_t counter = 0; out.size() < text.size(); ++counter) {
        uint32_t s[16], x[16];
        for (int i = 0; i < 4; ++i) s[i] = le(constant + 4 * i);
        for (int i = 0; i < 8; ++i) s[4 + i] = le(key + 4 * i);
        s[12] = (uint32_t)counter, s[13] = (uint32_t)(counter >> 32), s[14] = le(nonce), s[15] = le(nonce + 4);
        memcpy(x, s, sizeof x);
        for (int r = 0; r < rounds; r += 2) {
            qr(x, 0, 4, 8, 12); qr(x, 1, 5, 9, 13); qr(x, 2, 6, 10, 14); qr(x, 3, 7, 11, 15);
            qr(x, 0, 5, 10, 15); qr(x, 1, 6, 11, 12); qr(x, 2, 7, 8, 13); qr(x, 3, 4, 9, 14);
        }
        for (int i = 0; i < 16; ++i)
            for (int b = 0; b < 4 && out.size() < text.size(); ++b)
                out.push_back((char)(text[out.size()] ^ (char)((x[i] + s[i]) >> (8 * b))));
    }
    return out;
}

}  // namespace

// The program's cipher is checked against this reference in SecretEncoding.
TEST(ChaCha, ReferenceMatchesMbedTlsAndAPublishedVector) {
    unsigned char zero[32] = {0};
    // Published ChaCha8 key stream for an all-zero key and IV (first 16 bytes).
    EXPECT_EQ(chacha("expand 32-byte k", 8, zero, zero, std::string(16, '\0')),
              std::string("\x3e\x00\xef\x2f\x89\x5f\x40\xd6\x7f\x5b\xb8\xe8\x1f\x09\xa5\xa1", 16));
    std::mt19937 rng(11);
    for (int i = 0; i < 200; ++i) {
        std::string key = randomBytes(rng, 32), nonce = randomBytes(rng, 8), plain = randomBytes(rng, 1 + rng() % 400);
        std::string expected(plain.size(), '\0');
        mbedtls_chacha20_crypt(u(key), u(std::string(4, '\0') + nonce), 0, plain.size(), u(plain),
                               (unsigned char*)&expected[0]);
        ASSERT_EQ(chacha("expand 32-byte k", 20, u(key), u(nonce), plain), expected) << i;
    }
}

// Published FIPS 46-3 / SP 800-17 blocks; the key the program uses is checked
// against mbed TLS in SecretEncoding.
TEST(Des, PublishedVectors) {
    auto hex = [](const char* text) {
        std::string out;
        for (size_t i = 0; text[i]; i += 2) out.push_back((char)std::stoi(std::string(text + i, 2), nullptr, 16));
        return out;
    };
    auto check = [](const std::string& key, const std::string& plain, const std::string& cipher) {
        Des des;
        des.setKey(1, u(key));
        int n = -1, m = -1;
        char* enciphered = des.Encrypt(plain.data(), (int)plain.size(), n, 1);
        char* deciphered = des.Decrypt(cipher.data(), (int)cipher.size(), 1, m, false);
        return take(enciphered, n) == cipher && take(deciphered, m) == plain;
    };
    const char* vectors[][3] = {{"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
                                {"0E329232EA6D0D73", "8787878787878787", "0000000000000000"}};
    for (const auto& v : vectors) EXPECT_TRUE(check(hex(v[0]), hex(v[1]), hex(v[2]))) << v[0];
}

// The block form, what the service derives the pre-shared key from, is DES
// under key one in base64 with the URL alphabet; the stream form is "~", then
// a fresh nonce and the text under the built-in key. Both read back, and text
// never enciphered is read in bounds and left as it was.
TEST(SecretEncoding, BlockFormIsDesKeyOneStreamFormIsChaChaBothReadBack) {
    std::mt19937 rng(77);
    for (int len = 0; len <= 100; ++len) {
        std::string text = randomBytes(rng, len, 1);
        size_t kept = text.find_last_not_of(" \t\n\v\f\r");
        std::string expected = kept == std::string::npos ? "" : text.substr(0, kept + 1);
        std::string cipher = mbedDes(DES_KEY_1, text + std::string((8 - len % 8) % 8, ' ')), url(len * 2 + 16, '\0');
        size_t n = 0;
        mbedtls_base64_encode((unsigned char*)&url[0], url.size(), &n, u(cipher), cipher.size());
        url.resize(n);
        for (auto& c : url) c = c == '+' ? '-' : c == '/' ? '_' : c;
        std::string block = Util::encrypt(text.c_str());
        EXPECT_EQ(block, url) << len;
        std::string stream = Util::encrypt3(text.c_str()), message = stream.empty() ? "" : decoded(stream.substr(1));
        EXPECT_EQ(stream.empty(), len == 0);
        EXPECT_TRUE(len == 0 || (stream[0] == '~' && message.size() == (size_t)len + 8 &&
                                 message.substr(8) == chacha("expand 32-bytek", 8, CHACHA_KEY, u(message), text)));
        for (const std::string& code : {block, stream}) EXPECT_EQ(std::string(Util::decrypt(code.c_str())), expected) << len;
    }
    EXPECT_NE(std::string(Util::encrypt3("x")), std::string(Util::encrypt3("x")));
    EXPECT_STREQ(Util::encrypt(nullptr), "");
    EXPECT_STREQ(Util::decrypt(nullptr), "");
    // Characters outside the alphabet are skipped; an explicit length bounds the read.
    EXPECT_EQ(decoded("Q Q\n=?=QkI="), "A\x04$");
    EXPECT_EQ(decoded("QUJDRA==", 4), "ABC");

    std::vector<std::string> inputs = {"~", "~~", "~=", "a", "====", "~-_-_", "~not base64!", std::string(999, 'A')};
    for (int i = 0; i < 300; ++i) inputs.push_back((i % 3 ? "" : "~") + randomBytes(rng, 1 + rng() % 70, 1));
    for (const auto& in : inputs) {
        char* exact = strdup(in.c_str());  // exactly sized, so the sanitizer sees any read past it
        EXPECT_LE(strlen(Util::decrypt(exact)), in.size());
        EXPECT_EQ(std::string(exact), in) << "decrypt must not change its argument";
        free(exact);
    }
}
