#include <gtest/gtest.h>
#include <mbedtls/chacha20.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "chacha.h"
#include "secretKeys.h"

namespace {

uint32_t le(const void* v) {
    auto* p = (const unsigned char*)v;
    return p[0] | (p[1] << 8) | (p[2] << 16) | ((uint32_t)p[3] << 24);
}

// Written from the public algorithm (64-bit counter in words 12-13, 64-bit
// nonce in 14-15); checked against mbed TLS and the published vectors first.
std::string reference(const char* constant, const unsigned char* key, int keyBytes,
                      const unsigned char nonce[8], int rounds, size_t length) {
    auto qr = [](uint32_t* x, int a, int b, int c, int d) {
        auto rotl = [](uint32_t v, int n) { return (v << n) | (v >> (32 - n)); };
        x[a] += x[b]; x[d] = rotl(x[d] ^ x[a], 16);
        x[c] += x[d]; x[b] = rotl(x[b] ^ x[c], 12);
        x[a] += x[b]; x[d] = rotl(x[d] ^ x[a], 8);
        x[c] += x[d]; x[b] = rotl(x[b] ^ x[c], 7);
    };
    std::string out;
    for (uint64_t counter = 0; out.size() < length; ++counter) {
        uint32_t s[16], x[16];
        for (int i = 0; i < 4; ++i) s[i] = le(constant + 4 * i);
        for (int i = 0; i < 8; ++i) s[4 + i] = le(key + (4 * i) % keyBytes);
        s[12] = (uint32_t)counter;
        s[13] = (uint32_t)(counter >> 32);
        s[14] = le(nonce);
        s[15] = le(nonce + 4);
        memcpy(x, s, sizeof x);
        for (int r = 0; r < rounds; r += 2) {
            qr(x, 0, 4, 8, 12); qr(x, 1, 5, 9, 13); qr(x, 2, 6, 10, 14); qr(x, 3, 7, 11, 15);
            qr(x, 0, 5, 10, 15); qr(x, 1, 6, 11, 12); qr(x, 2, 7, 8, 13); qr(x, 3, 4, 9, 14);
        }
        for (int i = 0; i < 16; ++i)
            for (int b = 0; b < 4; ++b) out.push_back((char)((x[i] + s[i]) >> (8 * b)));
    }
    out.resize(length);
    return out;
}

const char PUBLISHED_256[] = "expand 32-byte k";
const char PUBLISHED_128[] = "expand 16-byte k";
const char PROGRAM_256[] = "expand 32-bytek";  // the terminating zero is the 16th byte

std::string fromHex(const char* text) {
    std::string out;
    for (size_t i = 0; text[i]; i += 2) out.push_back((char)std::stoi(std::string(text + i, 2), nullptr, 16));
    return out;
}

const unsigned char* u(const std::string& s) { return (const unsigned char*)s.data(); }

std::string xored(std::string stream, const std::string& text) {
    for (size_t i = 0; i < text.size(); ++i) stream[i] ^= text[i];
    return stream;
}

std::string encrypted(const std::string& text) {
    int n = 0;
    char* p = EncryptMorva::Encrypt(text.data(), (int)text.size(), n);
    std::string s(p, n);
    free(p);
    return s;
}

std::string decrypted(const std::string& message, bool strip, int length = -1) {
    int n = -1;
    char* p = EncryptMorva::Decrypt(message.data(), length < 0 ? (int)message.size() : length, n, strip);
    std::string s(p, n);
    EXPECT_EQ(p[n], '\0');
    free(p);
    return s;
}

std::string randomText(std::mt19937& rng, size_t n) {
    std::string s(n, '\0');
    for (auto& c : s) c = (char)(rng() & 0xff);
    return s;
}

}  // namespace

TEST(ChaChaCore, MatchesReferenceAndPublishedVectorsOnlyWithPublishedConstant) {
    std::mt19937 rng(11);
    for (int i = 0; i < 100; ++i) {
        std::string key = randomText(rng, 32), nonce = randomText(rng, 8);
        std::string nonce12 = std::string(4, '\0') + nonce;  // 32-bit counter 0, then the nonce
        size_t n = 1 + rng() % 400;
        std::string plain = randomText(rng, n), expected(n, '\0'), cipher(n, '\0');
        mbedtls_chacha20_crypt(u(key), u(nonce12), 0, n, u(plain), (unsigned char*)&expected[0]);
        ASSERT_EQ(xored(reference(PUBLISHED_256, u(key), 32, u(nonce), 20, n), plain), expected) << i;

        ECRYPT_ctx x;
        ECRYPT_keysetup(&x, u(key), 256, 64);
        ECRYPT_ivsetup(&x, u(nonce));
        ECRYPT_encrypt_bytes(&x, u(plain), (uint8_t*)&cipher[0], (uint32_t)n);
        ASSERT_EQ(cipher, xored(reference(PROGRAM_256, u(key), 32, u(nonce), 8, n), plain)) << i;
        // A partial block uses up a whole block of key stream.
        ASSERT_EQ(x.input[12], (uint32_t)((n + 63) / 64));
    }

    // Published ChaCha8 key stream, all-zero key and IV (256- and 128-bit keys).
    const std::string k256 = fromHex(
        "3e00ef2f895f40d67f5bb8e81f09a5a12c840ec3ce9a7f3b181be188ef711a1e"
        "984ce172b9216f419f445367456d5619314a42a3da86b001387bfdb80e0cfe42");
    const std::string k128 = fromHex(
        "e28a5fa4a67f8c5defed3e6fb7303486aa8427d31419a729572d777953491120"
        "b64ab8e72b8deb85cd6aea7cb6089a101824beeb08814a428aab1fa2c816081b");
    unsigned char zero[32] = {0};
    ECRYPT_ctx x;
    auto keystream = [&x] {
        std::string out(64, '\0');
        ECRYPT_keystream_bytes(&x, (uint8_t*)&out[0], 64);
        return out;
    };
    ECRYPT_init();
    ECRYPT_keysetup(&x, zero, 256, 64);
    ECRYPT_ivsetup(&x, zero);
    EXPECT_NE(keystream(), k256) << "the program's constant must change the output";
    for (auto [bits, constant, expected] :
         {std::tuple{256, PUBLISHED_256, k256}, {128, PUBLISHED_128, k128}}) {
        EXPECT_EQ(reference(constant, zero, bits / 8, zero, 8, 64), expected) << bits;
        ECRYPT_keysetup(&x, zero, bits, 64);
        for (int i = 0; i < 4; ++i) x.input[i] = le(constant + 4 * i);
        ECRYPT_ivsetup(&x, zero);
        EXPECT_EQ(keystream(), expected) << bits;
    }
}

TEST(EncryptMorva, MessagesCarryFreshNoncesAndStrip) {
    const std::string text = "the same text \t\n ";
    std::string a = encrypted(text), b = encrypted(text);
    ASSERT_EQ(a.size(), text.size() + 8);
    EXPECT_NE(a, b);
    // Built-in key, nonce in front, counter from 0.
    EXPECT_EQ(a.substr(8), xored(reference(PROGRAM_256, CHACHA_KEY, 32, u(a), 8, text.size()), text));
    EXPECT_EQ(decrypted(a, false), text);
    EXPECT_EQ(decrypted(b, true), "the same text");
    // The nonce alone, or less: nothing.
    std::string empty = encrypted("");
    EXPECT_EQ(empty.size(), 8u);
    EXPECT_EQ(decrypted(empty, true), "");
    EXPECT_EQ(decrypted(empty, false, 3), "");
}

namespace {

// Writes text in the given pieces (last one final), checks the file against
// the message form, then reads it back in pieces of readSize.
void roundTripFile(const std::string& text, const std::vector<int>& pieces, int readSize) {
    FILE* f = tmpfile();
    ASSERT_NE(f, nullptr);
    {
        EncryptMorva writer(true);
        size_t at = 0;
        for (size_t i = 0; i < pieces.size(); ++i) {
            ASSERT_EQ(writer.encryptFwrite(text.data() + at, pieces[i], f, i + 1 == pieces.size()),
                      pieces[i]);
            at += pieces[i];
        }
    }
    std::string file(text.size() + 9, '\0');
    rewind(f);
    file.resize(fread(&file[0], 1, file.size(), f));
    ASSERT_EQ(file.size(), text.size() + 8);
    EXPECT_EQ(decrypted(file, false), text);

    rewind(f);
    EncryptMorva reader(false);
    std::string back;
    std::vector<char> buf(readSize);
    int got;
    while ((got = reader.decryptFread(f, buf.data(), readSize)) > 0) back.append(buf.data(), got);
    EXPECT_EQ(got, 0);
    EXPECT_EQ(back, text);
    fclose(f);
}

}  // namespace

TEST(EncryptMorva, FilePiecesKeepTheKeyStreamAligned) {
    std::mt19937 rng(5);
    std::vector<std::vector<int>> layouts = {{30, 30, 40},     {63, 64, 65}, {64, 64, 1},
                                             {65, 127, 128, 129}, {1, 1, 1, 61, 1}, {0, 64, 0},
                                             {200, 0}};
    for (const auto& layout : layouts) {
        size_t total = 0;
        for (int p : layout) total += p;
        std::string text = randomText(rng, total);
        for (int readSize : {64, 1024, 7}) {
            SCOPED_TRACE(::testing::PrintToString(layout) + " read " + std::to_string(readSize));
            roundTripFile(text, layout, readSize);
        }
    }

    FILE* f = tmpfile();
    ASSERT_NE(f, nullptr);
    fwrite("1234567", 1, 7, f);
    rewind(f);
    EncryptMorva reader(false);
    char buf[64];
    EXPECT_EQ(reader.decryptFread(f, buf, sizeof buf), -1) << "a file shorter than its nonce";
    fclose(f);
}
