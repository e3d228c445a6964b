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

}  // namespace

TEST(Base64, BothAlphabetsAgreeWithMbedTls) {
    std::mt19937 rng(301);
    for (int len = 0; len <= 300; ++len) {
        std::string in = randomBytes(rng, len), expected(len * 2 + 4, '\0');
        size_t n = 0;
        mbedtls_base64_encode((unsigned char*)&expected[0], expected.size(), &n, (const unsigned char*)in.data(), len);
        expected.resize(n);
        std::string url = expected;
        for (auto& c : url) c = c == '+' ? '-' : c == '/' ? '_' : c;
        char* p = b64encode(in.data(), len);
        ASSERT_EQ(take(p, (int)strlen(p)), expected) << len;
        p = encode(in.data(), len);
        ASSERT_EQ(take(p, (int)strlen(p)), url) << len;
        int got = -1;
        p = b64decode(expected.c_str(), got);
        ASSERT_EQ(take(p, got), in) << len;
        ASSERT_EQ(decoded(url), in) << len;
    }
    // Characters outside the alphabet are skipped; an explicit length bounds the read.
    EXPECT_EQ(decoded("Q Q\n=?=QkI="), "A\x04$");
    EXPECT_EQ(decoded("QUJDRA==", 4), "ABC");
}

TEST(SecretEncoding, BothFormsReadBackAndTheBlockFormIsDesKeyOne) {
    mbedtls_des_context des;
    mbedtls_des_init(&des);
    mbedtls_des_setkey_dec(&des, DES_KEY_1);
    std::mt19937 rng(77);
    for (int len = 0; len <= 100; ++len) {
        std::string text = randomBytes(rng, len, 1);
        size_t kept = text.find_last_not_of(" \t\n\v\f\r");
        std::string expected = kept == std::string::npos ? "" : text.substr(0, kept + 1);
        // Block form: what the service derives the pre-shared key from.
        std::string block = Util::encrypt(text.c_str());
        std::string cipher = decoded(block), plain(cipher.size(), '\0');
        ASSERT_EQ(cipher.size(), (size_t)(len + 7) / 8 * 8) << len;
        for (size_t at = 0; at < cipher.size(); at += 8)
            mbedtls_des_crypt_ecb(&des, (const unsigned char*)cipher.data() + at, (unsigned char*)&plain[at]);
        EXPECT_EQ(plain, text + std::string(cipher.size() - len, ' ')) << len;
        std::string stream = Util::encrypt3(text.c_str());
        EXPECT_EQ(stream.empty(), len == 0);
        EXPECT_TRUE(len == 0 || stream[0] == '~');
        for (const std::string& code : {block, stream}) {
            EXPECT_EQ(code.find_first_of("+/", 1), std::string::npos) << code;
            EXPECT_EQ(std::string(Util::decrypt(code.c_str())), expected) << len;
        }
    }
    mbedtls_des_free(&des);
    EXPECT_STREQ(Util::decrypt(Util::encrypt3("Zoë Ørsted — clinic")), "Zoë Ørsted — clinic");
    EXPECT_NE(std::string(Util::encrypt3("x")), std::string(Util::encrypt3("x")));
    EXPECT_STREQ(Util::encrypt(nullptr), "");
    EXPECT_STREQ(Util::decrypt(nullptr), "");
}

TEST(SecretEncoding, DecryptOfTextNeverEncipheredStaysInBounds) {
    std::vector<std::string> inputs = {"~", "~~", "~=", "a", "====", "~-_-_", "~not base64!", std::string(999, 'A')};
    std::mt19937 rng(12);
    for (int i = 0; i < 300; ++i) inputs.push_back((i % 3 ? "" : "~") + randomBytes(rng, 1 + rng() % 70, 1));
    for (const auto& in : inputs) {
        // Exactly sized on the heap, so the sanitizer sees any read past it.
        char* exact = strdup(in.c_str());
        EXPECT_LE(strlen(Util::decrypt(exact)), in.size());
        EXPECT_EQ(std::string(exact), in) << "decrypt must not change its argument";
        free(exact);
    }
}
