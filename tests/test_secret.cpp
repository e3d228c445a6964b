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

// Random bytes no smaller than lowest.
std::string randomBytes(std::mt19937& rng, size_t n, int lowest = 0) {
    std::string s(n, '\0');
    for (auto& c : s) c = (char)(lowest + rng() % (256 - lowest));
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
    for (auto& c : s) c = c == '+' ? '-' : c == '/' ? '_' : c;
    return s;
}

std::string take(char* p, int n) {
    std::string s(p, n);
    free(p);
    return s;
}

std::string decoded(char* text, int lengthIn = 0) {
    int n = -1;
    char* p = decode(text, n, lengthIn);
    return take(p, n);
}

std::string b64decoded(const char* text) {
    int n = -1;
    char* p = b64decode(text, n);
    return take(p, n);
}

}  // namespace

TEST(Base64, BothAlphabetsAgreeWithMbedTls) {
    std::mt19937 rng(301);
    for (int len = 0; len <= 300; ++len) {
        std::string in = randomBytes(rng, len), expected = mbedEncode(in);
        char* p = b64encode(in.data(), len);
        std::string std64 = take(p, (int)strlen(p));
        p = encode(in.data(), len);
        std::string url = take(p, (int)strlen(p));
        ASSERT_EQ(std64, expected) << len;
        ASSERT_EQ(url, urlSafe(expected)) << len;
        ASSERT_EQ(b64decoded(std64.c_str()), in) << len;
        ASSERT_EQ(decoded(&url[0]), in) << len;
    }
}

TEST(Base64, DecodeSkipsNoiseAndChangesItsInput) {
    char text[] = "-__-";
    EXPECT_EQ(decoded(text), "\xfb\xff\xfe");
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
    mbedtls_des_context des;
    mbedtls_des_init(&des);
    mbedtls_des_setkey_dec(&des, DES_KEY_1);
    std::mt19937 rng(77);
    for (int len = 0; len <= 100; ++len) {
        std::string text = randomBytes(rng, len, 1);
        size_t kept = text.find_last_not_of(" \t\n\v\f\r");
        std::string expected = kept == std::string::npos ? "" : text.substr(0, kept + 1);

        // Block form: DES key 1 under URL-safe base64, what the service derives
        // the pre-shared key from.
        std::string block = Util::encrypt(text.c_str()), copy = block;
        std::string cipher = decoded(&copy[0]), plain(cipher.size(), '\0');
        ASSERT_EQ(cipher.size(), (size_t)(len + 7) / 8 * 8) << len;
        for (size_t at = 0; at < cipher.size(); at += 8)
            mbedtls_des_crypt_ecb(&des, (const unsigned char*)cipher.data() + at, (unsigned char*)&plain[at]);
        EXPECT_EQ(plain, text + std::string(cipher.size() - len, ' ')) << len;
        EXPECT_EQ(block.find_first_of("+/~"), std::string::npos);

        std::string stream = Util::encrypt3(text.c_str());
        if (len == 0) {
            EXPECT_EQ(stream, "");
        } else {
            ASSERT_EQ(stream[0], '~');
            EXPECT_EQ(stream.size(), 1 + ((size_t)len + 8 + 2) / 3 * 4) << len;
            EXPECT_EQ(stream.find_first_of("+/", 1), std::string::npos);
        }
        EXPECT_EQ(std::string(Util::decrypt(block.c_str())), expected) << len;
        EXPECT_EQ(std::string(Util::decrypt(stream.c_str())), expected) << len;
    }
    mbedtls_des_free(&des);
    EXPECT_STREQ(Util::decrypt(Util::encrypt("name with trailing   ")), "name with trailing");
    EXPECT_STREQ(Util::decrypt(Util::encrypt3("Zoë Ørsted — clinic")), "Zoë Ørsted — clinic");
    EXPECT_NE(std::string(Util::encrypt3("x")), std::string(Util::encrypt3("x")));
    EXPECT_STREQ(Util::encrypt(nullptr), "");
    EXPECT_STREQ(Util::decrypt(nullptr), "");
}

TEST(SecretEncoding, DecryptOfTextNeverEncipheredStaysInBounds) {
    std::vector<std::string> inputs = {"~", "~~", "~=", "a", "abcdefg", "====", "~-_-_",
                                       "~not base64 at all!", std::string(1000, '~'), std::string(999, 'A')};
    std::mt19937 rng(12);
    for (int i = 0; i < 300; ++i) {
        inputs.push_back(randomBytes(rng, 1 + rng() % 70, 1));
        if (i % 3 == 0) inputs.back()[0] = '~';
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
