#include <gtest/gtest.h>
#include <mbedtls/des.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

#include "des.h"
#include "secretKeys.h"

namespace {

const unsigned char* u(const std::string& s) { return (const unsigned char*)s.data(); }

std::string fromHex(const char* text) {
    std::string out;
    for (size_t i = 0; text[i]; i += 2) out.push_back((char)std::stoi(std::string(text + i, 2), nullptr, 16));
    return out;
}

std::string take(char* p, int n) {
    std::string s(p, n);
    free(p);
    return s;
}

// Key number 0: the triple form.
std::string enc(Des& des, const std::string& plain, int number) {
    int n = -1;
    char* p = number ? des.Encrypt(plain.data(), (int)plain.size(), n, number)
                     : des.Encrypt3(plain.data(), (int)plain.size(), n);
    return take(p, n);
}

std::string dec(Des& des, const std::string& cipher, int number, bool strip, int length = -1) {
    int n = -1;
    char* p = des.Decrypt(cipher.data(), length < 0 ? (int)cipher.size() : length, number, n, strip);
    return take(p, n);
}

// mbed TLS three-key E-D-E; an 8-byte key three times over is single DES.
std::string mbedEcb(std::string key, const std::string& plain) {
    if (key.size() == 8) key += key + key;
    std::string out(plain.size(), '\0');
    mbedtls_des3_context des;
    mbedtls_des3_init(&des);
    mbedtls_des3_set3key_enc(&des, u(key));
    for (size_t at = 0; at < plain.size(); at += 8) mbedtls_des3_crypt_ecb(&des, u(plain) + at, (unsigned char*)&out[at]);
    mbedtls_des3_free(&des);
    return out;
}

}  // namespace

// Published FIPS 46-3 / SP 800-17 blocks, then random keys and texts against mbed TLS.
TEST(Des, PublishedVectorsAndMbedTlsSingleAndTriple) {
    struct { const char *key, *plain, *cipher; } vectors[] = {
        {"133457799BBCDFF1", "0123456789ABCDEF", "85E813540F0AB405"},
        {"0123456789ABCDEF", "4E6F772069732074", "3FA40E8A984D4815"},
        {"0101010101010101", "8000000000000000", "95F8A5E5DD31D900"},
        {"8001010101010101", "0000000000000000", "95A8D72813DAA94D"},
        {"0E329232EA6D0D73", "8787878787878787", "0000000000000000"},
    };
    for (const auto& v : vectors) {
        Des des;
        des.setKey(1, u(fromHex(v.key)));
        EXPECT_EQ(enc(des, fromHex(v.plain), 1), fromHex(v.cipher)) << v.key;
        EXPECT_EQ(dec(des, fromHex(v.cipher), 1, false), fromHex(v.plain)) << v.key;
    }
    std::mt19937 rng(4631);
    for (int i = 0; i < 3000; ++i) {
        std::string keys(24, '\0'), plain(8 * (1 + rng() % 4), '\0');
        for (auto& b : keys) b = (char)rng();
        for (auto& c : plain) c = (char)(1 + rng() % 255);  // the triple form returns text
        plain.back() = 'x';
        Des des;
        for (int k = 0; k < 3; ++k) des.setKey(k + 1, u(keys) + 8 * k);
        std::string single = enc(des, plain, 2), triple = enc(des, plain, 0);
        ASSERT_EQ(single, mbedEcb(keys.substr(8, 8), plain)) << i;
        ASSERT_EQ(dec(des, single, 2, false), plain);
        ASSERT_EQ(triple, mbedEcb(keys, plain)) << i;
        char* p = des.Decrypt3(triple.data(), (int)triple.size());
        ASSERT_EQ(take(p, (int)strlen(p)), plain);
    }
}

TEST(Des, BuiltInKeysBlankPaddingAndStripping) {
    Des des;
    const unsigned char* keys[] = {DES_KEY_1, DES_KEY_1, DES_KEY_2, DES_KEY_3};
    for (int number : {1, 2, 3, 7, -1}) {  // any other number is key 1
        std::string key((const char*)keys[number >= 1 && number <= 3 ? number : 0], 8);
        EXPECT_EQ(enc(des, "16 bytes of text", number), mbedEcb(key, "16 bytes of text")) << number;
    }
    std::string abc = enc(des, "abc", 1);
    EXPECT_EQ(abc, mbedEcb(std::string((const char*)DES_KEY_1, 8), "abc     "));
    EXPECT_EQ(dec(des, abc, 1, false), "abc     ");
    EXPECT_EQ(dec(des, enc(des, "ab \t\n", 1), 1, true), "ab");
    EXPECT_EQ(enc(des, "", 1), "");
    EXPECT_EQ(enc(des, "12345678", 1).size(), 8u);
    std::string triple = enc(des, "pass word  ", 0);
    char* text = des.Decrypt3(triple.data(), (int)triple.size());
    EXPECT_STREQ(text, "pass word");
    free(text);
    // An incomplete last block is not cipher text.
    std::string ten = enc(des, "0123456789", 1);
    EXPECT_EQ(dec(des, ten, 1, false, 12), "01234567");
    EXPECT_EQ(dec(des, ten, 1, false, 5), "");
}
