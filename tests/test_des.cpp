#include <gtest/gtest.h>
#include <mbedtls/des.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "des.h"
#include "secretKeys.h"

namespace {

std::vector<unsigned char> hex(const char* text) {
    std::vector<unsigned char> out;
    for (size_t i = 0; text[i] && text[i + 1]; i += 2) {
        out.push_back((unsigned char)std::stoi(std::string(text + i, 2), nullptr, 16));
    }
    return out;
}

std::string bytes(const char* p, int n) { return std::string(p, n); }

std::string mbedEcb(const unsigned char key[8], const std::string& plain) {
    mbedtls_des_context ctx;
    mbedtls_des_init(&ctx);
    mbedtls_des_setkey_enc(&ctx, key);
    std::string out(plain.size(), '\0');
    for (size_t at = 0; at < plain.size(); at += 8)
        mbedtls_des_crypt_ecb(&ctx, (const unsigned char*)plain.data() + at, (unsigned char*)&out[at]);
    mbedtls_des_free(&ctx);
    return out;
}

std::string randomBytes(std::mt19937& rng, size_t n) {
    std::string s(n, '\0');
    for (auto& c : s) c = (char)(rng() & 0xff);
    return s;
}

}  // namespace

// FIPS 46-3 / NIST SP 800-17 single-block known answers, with the test key
// loaded in place of built-in key 1.
TEST(Des, KnownAnswerVectors) {
    struct Vector {
        const char *key, *plain, *cipher;
    } vectors[] = {
        {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
        {"0123456789ABCDEF", "4E6F772069732074", "3FA40E8A984D4815"},  // "Now is t"
        {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900"},
        {"0101010101010101", "4000000000000000", "DD7F121CA5015619"},
        {"0101010101010101", "2000000000000000", "2E8653104F3834EA"},
        {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},
        {"4001010101010101", "0000000000000000", "0EEC1487DD8C26D5"},
        {"10316E028C8F3B4A", "0000000000000000", "82DCBAFBDEAB6602"},
        {"0E329232EA6D0D73", "8787878787878787", "0000000000000000"},
    };
    for (const auto& v : vectors) {
        SCOPED_TRACE(v.key);
        auto key = hex(v.key), plain = hex(v.plain), cipher = hex(v.cipher);
        Des des;
        des.setKey(1, key.data());
        int n = 0;
        char* out = des.Encrypt((const char*)plain.data(), 8, n, 1);
        ASSERT_EQ(n, 8);
        EXPECT_EQ(bytes(out, 8), std::string(cipher.begin(), cipher.end()));
        char* back = des.Decrypt(out, 8, 1, n, false);
        EXPECT_EQ(bytes(back, n), std::string(plain.begin(), plain.end()));
        free(out);
        free(back);
    }
}

TEST(Des, MatchesMbedTlsForRandomKeysAndBlocks) {
    std::mt19937 rng(4631);
    for (int i = 0; i < 3000; ++i) {
        unsigned char key[8];
        for (auto& b : key) b = (unsigned char)rng();
        std::string plain = randomBytes(rng, 8 * (1 + rng() % 4));
        Des des;
        des.setKey(2, key);
        int n = 0;
        char* out = des.Encrypt(plain.data(), (int)plain.size(), n, 2);
        ASSERT_EQ(n, (int)plain.size());
        ASSERT_EQ(bytes(out, n), mbedEcb(key, plain)) << "case " << i;
        char* back = des.Decrypt(out, n, 2, n, false);
        ASSERT_EQ(bytes(back, n), plain);
        free(out);
        free(back);
    }
}

TEST(Des, TripleFormIsThreeKeyEde) {
    std::mt19937 rng(977);
    for (int i = 0; i < 500; ++i) {
        unsigned char keys[24];
        for (auto& b : keys) b = (unsigned char)rng();
        std::string plain = randomBytes(rng, 8 * (1 + rng() % 3));
        // Zero bytes would end the text early; a last non-blank byte keeps
        // stripping from taking any of it.
        for (auto& c : plain)
            if (c == 0) c = 1;
        plain.back() = 'x';
        Des des;
        des.setKey(1, keys);
        des.setKey(2, keys + 8);
        des.setKey(3, keys + 16);
        int n = 0;
        char* out = des.Encrypt3(plain.data(), (int)plain.size(), n);

        mbedtls_des3_context ctx;
        mbedtls_des3_init(&ctx);
        mbedtls_des3_set3key_enc(&ctx, keys);
        std::string expected(plain.size(), '\0');
        for (size_t at = 0; at < plain.size(); at += 8)
            mbedtls_des3_crypt_ecb(&ctx, (const unsigned char*)plain.data() + at,
                                   (unsigned char*)&expected[at]);
        mbedtls_des3_free(&ctx);

        ASSERT_EQ(bytes(out, n), expected) << "case " << i;
        char* back = des.Decrypt3(out, n);
        ASSERT_EQ(std::string(back), plain);
        free(out);
        free(back);
    }
    Des des;
    int n = 0;
    char* out = des.Encrypt3("pass word  ", 11, n);
    EXPECT_EQ(n, 16);
    char* back = des.Decrypt3(out, n);
    EXPECT_STREQ(back, "pass word");
    free(out);
    free(back);
}

TEST(Des, BuiltInKeysAreStandardDesUnderTheirNumbers) {
    const std::string plain = "16 bytes of text";
    Des des;
    int n = 0;
    const unsigned char* builtIn[] = {DES_KEY_1, DES_KEY_2, DES_KEY_3};
    for (int number = 1; number <= 3; ++number) {
        char* out = des.Encrypt(plain.data(), 16, n, number);
        EXPECT_EQ(bytes(out, n), mbedEcb(builtIn[number - 1], plain)) << number;
        free(out);
    }
    // Any other number means key 1.
    for (int number : {0, 7, -1}) {
        char* out = des.Encrypt(plain.data(), 16, n, number);
        EXPECT_EQ(bytes(out, n), mbedEcb(DES_KEY_1, plain)) << number;
        free(out);
    }
}

TEST(Des, BlankPaddingLengthsAndStripping) {
    Des des;
    int n = -1;
    char* out = des.Encrypt("", 0, n, 1);
    EXPECT_EQ(n, 0);
    EXPECT_STREQ(out, "");
    free(out);

    for (auto [in, expected] : {std::pair{1, 8}, {7, 8}, {8, 8}, {9, 16}, {16, 16}, {17, 24}}) {
        std::string plain(in, 'q');
        out = des.Encrypt(plain.data(), in, n, 1);
        EXPECT_EQ(n, expected) << in;
        EXPECT_EQ(out[n], '\0');
        free(out);
    }

    out = des.Encrypt("abc", 3, n, 1);
    EXPECT_EQ(bytes(out, n), mbedEcb(DES_KEY_1, "abc     "));
    int m = 0;
    char* raw = des.Decrypt(out, n, 1, m, false);
    EXPECT_EQ(bytes(raw, m), "abc     ");
    char* stripped = des.Decrypt(out, n, 1, m, true);
    EXPECT_STREQ(stripped, "abc");
    EXPECT_EQ(m, 3);
    free(out);
    free(raw);
    free(stripped);

    // The text's own trailing white space goes with the padding.
    out = des.Encrypt("ab \t\n", 5, n, 1);
    stripped = des.Decrypt(out, n, 1, m, true);
    EXPECT_STREQ(stripped, "ab");
    free(out);
    free(stripped);

    // An incomplete last block is not cipher text.
    out = des.Encrypt("0123456789", 10, n, 1);
    ASSERT_EQ(n, 16);
    raw = des.Decrypt(out, 12, 1, m, false);
    EXPECT_EQ(bytes(raw, m), "01234567");
    free(raw);
    raw = des.Decrypt(out, 5, 1, m, false);
    EXPECT_EQ(m, 0);
    EXPECT_STREQ(raw, "");
    free(raw);
    free(out);
}
