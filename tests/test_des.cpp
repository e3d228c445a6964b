#include <gtest/gtest.h>
#include <mbedtls/des.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "des.h"
#include "secretKeys.h"

namespace {

std::string hex(const char* text) {
    std::string out;
    for (size_t i = 0; text[i] && text[i + 1]; i += 2)
        out.push_back((char)std::stoi(std::string(text + i, 2), nullptr, 16));
    return out;
}

const unsigned char* u(const std::string& s) { return (const unsigned char*)s.data(); }

std::string take(char* p, int n) {
    std::string s(p, n);
    free(p);
    return s;
}

std::string enc(Des& des, const std::string& plain, int number) {
    int n = -1;
    char* p = des.Encrypt(plain.data(), (int)plain.size(), n, number);
    EXPECT_EQ(p[n], '\0');
    return take(p, n);
}

std::string dec(Des& des, const std::string& cipher, int number, bool strip, int length = -1) {
    int n = -1;
    char* p = des.Decrypt(cipher.data(), length < 0 ? (int)cipher.size() : length, number, n, strip);
    return take(p, n);
}

// Single DES for an 8-byte key, three-key E-D-E for 24 bytes.
std::string mbedEcb(const std::string& key, const std::string& plain) {
    std::string out(plain.size(), '\0');
    mbedtls_des_context one;
    mbedtls_des3_context three;
    mbedtls_des_init(&one);
    mbedtls_des3_init(&three);
    mbedtls_des_setkey_enc(&one, u(key));
    if (key.size() == 24) mbedtls_des3_set3key_enc(&three, u(key));
    for (size_t at = 0; at < plain.size(); at += 8) {
        auto* o = (unsigned char*)&out[at];
        if (key.size() == 24)
            mbedtls_des3_crypt_ecb(&three, u(plain) + at, o);
        else
            mbedtls_des_crypt_ecb(&one, u(plain) + at, o);
    }
    mbedtls_des_free(&one);
    mbedtls_des3_free(&three);
    return out;
}

}  // namespace

// FIPS 46-3 / NIST SP 800-17 single blocks, the test key in place of built-in key 1.
TEST(Des, KnownAnswerVectors) {
    struct {
        const char *key, *plain, *cipher;
    } vectors[] = {
        {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
        {"0123456789ABCDEF", "4E6F772069732074", "3FA40E8A984D4815"},
        {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900"},
        {"0101010101010101", "2000000000000000", "2E8653104F3834EA"},
        {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},
        {"10316E028C8F3B4A", "0000000000000000", "82DCBAFBDEAB6602"},
        {"0E329232EA6D0D73", "8787878787878787", "0000000000000000"},
    };
    for (const auto& v : vectors) {
        SCOPED_TRACE(v.key);
        Des des;
        des.setKey(1, u(hex(v.key)));
        EXPECT_EQ(enc(des, hex(v.plain), 1), hex(v.cipher));
        EXPECT_EQ(dec(des, hex(v.cipher), 1, false), hex(v.plain));
    }
}

TEST(Des, SingleAndTripleMatchMbedTlsForRandomKeysAndBlocks) {
    std::mt19937 rng(4631);
    for (int i = 0; i < 3000; ++i) {
        std::string keys(24, '\0'), plain(8 * (1 + rng() % 4), '\0');
        for (auto& b : keys) b = (char)rng();
        for (auto& c : plain) c = (char)rng();
        Des des;
        for (int k = 0; k < 3; ++k) des.setKey(k + 1, u(keys) + 8 * k);
        std::string single = enc(des, plain, 2);
        ASSERT_EQ(single, mbedEcb(keys.substr(8, 8), plain)) << "case " << i;
        ASSERT_EQ(dec(des, single, 2, false), plain);

        // The triple form returns zero-terminated, stripped text.
        for (auto& c : plain) c = c ? c : '\1';
        plain.back() = 'x';
        int n = 0;
        char* p = des.Encrypt3(plain.data(), (int)plain.size(), n);
        std::string triple = take(p, n);
        ASSERT_EQ(triple, mbedEcb(keys, plain)) << "case " << i;
        p = des.Decrypt3(triple.data(), n);
        ASSERT_EQ(take(p, (int)strlen(p)), plain);
    }
}

TEST(Des, KeyNumbersPaddingAndStripping) {
    Des des;
    const std::string plain = "16 bytes of text";
    const unsigned char* builtIn[] = {DES_KEY_1, DES_KEY_2, DES_KEY_3};
    for (int number : {1, 2, 3, 0, 7, -1}) {
        const unsigned char* key = number >= 1 && number <= 3 ? builtIn[number - 1] : DES_KEY_1;
        EXPECT_EQ(enc(des, plain, number), mbedEcb(std::string((const char*)key, 8), plain)) << number;
    }

    for (auto [in, out] : {std::pair{0, 0}, {1, 8}, {7, 8}, {8, 8}, {9, 16}, {17, 24}})
        EXPECT_EQ(enc(des, std::string(in, 'q'), 1).size(), (size_t)out) << in;

    std::string abc = enc(des, "abc", 1);
    EXPECT_EQ(abc, mbedEcb(std::string((const char*)DES_KEY_1, 8), "abc     "));
    EXPECT_EQ(dec(des, abc, 1, false), "abc     ");
    EXPECT_EQ(dec(des, abc, 1, true), "abc");
    EXPECT_EQ(dec(des, enc(des, "ab \t\n", 1), 1, true), "ab");
    int n = 0;
    char* p = des.Encrypt3("pass word  ", 11, n);
    char* text = des.Decrypt3(p, n);
    EXPECT_STREQ(text, "pass word");
    free(p);
    free(text);

    // An incomplete last block is not cipher text.
    std::string ten = enc(des, "0123456789", 1);
    EXPECT_EQ(dec(des, ten, 1, false, 12), "01234567");
    EXPECT_EQ(dec(des, ten, 1, false, 5), "");
}
