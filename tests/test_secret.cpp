#include <gtest/gtest.h>
#include <mbedtls/base64.h>
#include <mbedtls/des.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "secretKeys.h"
#include "util.h"

namespace {

std::string randomBytes(std::mt19937& rng, size_t n) {
    std::string s(n, '\0');
    for (auto& c : s) c = (char)(rng() & 0xff);
    return s;
}

std::string mbedEncode(const std::string& in) {
    size_t n = 0;
    mbedtls_base64_encode(nullptr, 0, &n, (const unsigned char*)in.data(), in.size());
    std::string out(n, '\0');
    mbedtls_base64_encode((unsigned char*)&out[0], n, &n, (const unsigned char*)in.data(), in.size());
    out.resize(n);
    return out;
}

std::string urlSafe(std::string s) {
    for (auto& c : s) {
        if (c == '+') c = '-';
        if (c == '/') c = '_';
    }
    return s;
}

// The decoders' results as strings, freed; lengthOut must be read after the call.
std::string decoded(char* text, int lengthIn = 0) {
    int n = -1;
    char* p = decode(text, n, lengthIn);
    std::string s(p, n);
    free(p);
    return s;
}

std::string b64decoded(const char* text) {
    int n = -1;
    char* p = b64decode(text, n);
    std::string s(p, n);
    free(p);
    return s;
}

}  // namespace

TEST(Base64, BothAlphabetsAgreeWithMbedTls) {
    std::mt19937 rng(301);
    for (int len = 0; len <= 300; ++len) {
        std::string in = randomBytes(rng, len);
        std::string expected = mbedEncode(in);

        char* std64 = b64encode(in.data(), len);
        ASSERT_EQ(std::string(std64), expected) << len;
        char* url = encode(in.data(), len);
        ASSERT_EQ(std::string(url), urlSafe(expected)) << len;

        std::vector<unsigned char> dec(len + 1);
        size_t n = 0;
        ASSERT_EQ(mbedtls_base64_decode(dec.data(), dec.size(), &n, (const unsigned char*)std64,
                                        strlen(std64)), 0);
        ASSERT_EQ(std::string((char*)dec.data(), n), in);

        ASSERT_EQ(b64decoded(std64), in) << len;
        ASSERT_EQ(decoded(url), in) << len;
        free(std64);
        free(url);
    }
}

TEST(Base64, PaddingUrlMappingAndInPlaceChange) {
    for (auto [len, tail] : {std::pair{1, "=="}, {2, "="}, {3, ""}}) {
        char* out = b64encode("\xfb\xff\xfe", len);
        EXPECT_EQ(strlen(out), 4u);
        std::string s(out);
        EXPECT_EQ(s.size() - 1 - s.find_last_not_of('='), strlen(tail)) << s;
        free(out);
    }
    char* out = encode("\xfb\xff\xfe", 3);
    EXPECT_STREQ(out, "-__-");
    free(out);

    char text[] = "-__-";
    std::string back = decoded(text);
    EXPECT_EQ(back, "\xfb\xff\xfe");
    EXPECT_STREQ(text, "+//+");

    // Characters outside the alphabet are skipped; an explicit length bounds the read.
    char noisy[] = "Q Q\n=?=QkI=";
    EXPECT_EQ(decoded(noisy), "A\x04$");
    char bounded[] = "QUJDRA==";
    EXPECT_EQ(decoded(bounded, 4), "ABC");

    char* empty = b64encode(nullptr, 5);
    EXPECT_STREQ(empty, "");
    free(empty);
    EXPECT_EQ(b64decoded(nullptr), "");
}

TEST(SecretEncoding, RoundTripsOfBothForms) {
    std::mt19937 rng(77);
    for (int len = 0; len <= 100; ++len) {
        std::string text;
        for (int i = 0; i < len; ++i) text.push_back((char)(1 + rng() % 255));  // no zero bytes
        // Trailing white space never survives; everything before it does.
        std::string expected = text.substr(0, text.find_last_not_of(" \t\n\v\f\r") + 1);
        if (text.find_last_not_of(" \t\n\v\f\r") == std::string::npos) expected.clear();

        std::string block = Util::encrypt(text.c_str());
        std::string stream = Util::encrypt3(text.c_str());
        if (len == 0) {
            EXPECT_EQ(block, "");
            EXPECT_EQ(stream, "");
        } else {
            EXPECT_EQ(block.size(), ((size_t)(len + 7) / 8 * 8 + 2) / 3 * 4) << len;
            ASSERT_EQ(stream[0], '~');
            EXPECT_EQ(stream.size(), 1 + ((size_t)len + 8 + 2) / 3 * 4) << len;
            EXPECT_EQ(block.find_first_of("+/~"), std::string::npos);
            EXPECT_EQ(stream.find_first_of("+/", 1), std::string::npos);
        }
        EXPECT_EQ(std::string(Util::decrypt(block.c_str())), expected) << len;
        EXPECT_EQ(std::string(Util::decrypt(stream.c_str())), expected) << len;
    }
    EXPECT_STREQ(Util::decrypt(Util::encrypt("name with trailing   ")), "name with trailing");
    EXPECT_STREQ(Util::decrypt(Util::encrypt3("Zoë Ørsted — clinic")), "Zoë Ørsted — clinic");
    EXPECT_STREQ(Util::encrypt(nullptr), "");
    EXPECT_STREQ(Util::decrypt(nullptr), "");
}

TEST(SecretEncoding, BlockFormIsDesKeyOneUnderUrlSafeBase64) {
    // What the service derives the same pre-shared key from.
    for (const char* text : {"12345678", "123456789", "box-id_Clinic Name"}) {
        std::string code = Util::encrypt(text);
        std::string cipher = decoded(&code[0]);
        size_t padded = (strlen(text) + 7) / 8 * 8;
        ASSERT_EQ(cipher.size(), padded) << text;
        mbedtls_des_context ctx;
        mbedtls_des_init(&ctx);
        mbedtls_des_setkey_dec(&ctx, DES_KEY_1);
        std::string plain(padded, '\0');
        for (size_t at = 0; at < padded; at += 8)
            mbedtls_des_crypt_ecb(&ctx, (const unsigned char*)cipher.data() + at, (unsigned char*)&plain[at]);
        mbedtls_des_free(&ctx);
        EXPECT_EQ(plain, std::string(text) + std::string(padded - strlen(text), ' '));
    }
    EXPECT_NE(std::string(Util::encrypt3("x")), std::string(Util::encrypt3("x")));
}

TEST(SecretEncoding, DecryptOfTextNeverEncipheredStaysInBounds) {
    std::vector<std::string> inputs = {"~", "~~", "~=", "a", "ab", "abc", "abcdefg", "!!!!!!!!!",
                                       "====", "~-_-_", "plain text value", "~not base64 at all!",
                                       std::string(1000, '~'), std::string(999, 'A')};
    std::mt19937 rng(12);
    for (int i = 0; i < 300; ++i) {
        std::string s;
        size_t n = 1 + rng() % 70;
        for (size_t j = 0; j < n; ++j) s.push_back((char)(1 + rng() % 255));
        if (i % 3 == 0) s[0] = '~';
        inputs.push_back(s);
    }
    for (const auto& in : inputs) {
        // Exactly sized heap copy, so the sanitizer sees any read past it.
        char* exact = (char*)malloc(in.size() + 1);
        memcpy(exact, in.c_str(), in.size() + 1);
        const char* out = Util::decrypt(exact);
        ASSERT_NE(out, nullptr);
        EXPECT_LE(strlen(out), in.size());
        EXPECT_EQ(std::string(exact), in) << "decrypt must not change its argument";
        free(exact);
    }
    EXPECT_STREQ(Util::decrypt("~"), "");
}
