#include <gtest/gtest.h>
#include <mbedtls/chacha20.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "chacha.h"
#include "secretKeys.h"

namespace {

uint32_t le(const void* v) {
    auto* p = (const unsigned char*)v;
    return p[0] | (p[1] << 8) | (p[2] << 16) | ((uint32_t)p[3] << 24);
}

// Key stream written from the public algorithm (64-bit counter in words 12-13,
// 64-bit nonce in 14-15); itself checked against mbed TLS and published vectors.
std::string reference(const char* constant, const unsigned char* key, int keyBytes, const unsigned char nonce[8],
                      int rounds, size_t length) {
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
        s[12] = (uint32_t)counter, s[13] = (uint32_t)(counter >> 32), s[14] = le(nonce), s[15] = le(nonce + 4);
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

// The program's constant words end "-bytek" and a zero byte, not "-byte k".
std::string programStream(const unsigned char* key, int keyBytes, const unsigned char nonce[8], size_t length) {
    return reference(keyBytes == 32 ? "expand 32-bytek" : "expand 16-bytek", key, keyBytes, nonce, 8, length);
}

const unsigned char* u(const std::string& s) { return (const unsigned char*)s.data(); }

std::string xored(std::string stream, const std::string& text) {
    for (size_t i = 0; i < text.size(); ++i) stream[i] ^= text[i];
    return stream;
}

std::string randomText(std::mt19937& rng, size_t n) {
    std::string s(n, '\0');
    for (auto& c : s) c = (char)rng();
    return s;
}

std::string hex(const std::string& bytes) {
    std::string out;
    for (unsigned char c : bytes) out += "0123456789abcdef"[c >> 4], out += "0123456789abcdef"[c & 15];
    return out;
}

}  // namespace

TEST(ChaCha, ReferenceMatchesMbedTlsAndPublishedVectorsAndTheProgramMatchesIt) {
    unsigned char zero[32] = {0};
    // Published ChaCha8 key stream for an all-zero key and IV.
    EXPECT_EQ(hex(reference("expand 32-byte k", zero, 32, zero, 8, 64)),
              "3e00ef2f895f40d67f5bb8e81f09a5a12c840ec3ce9a7f3b181be188ef711a1e"
              "984ce172b9216f419f445367456d5619314a42a3da86b001387bfdb80e0cfe42");
    EXPECT_EQ(hex(reference("expand 16-byte k", zero, 16, zero, 8, 64)),
              "e28a5fa4a67f8c5defed3e6fb7303486aa8427d31419a729572d777953491120"
              "b64ab8e72b8deb85cd6aea7cb6089a101824beeb08814a428aab1fa2c816081b");
    std::mt19937 rng(11);
    ECRYPT_init();
    for (int i = 0; i < 200; ++i) {
        int keyBytes = i % 2 ? 32 : 16;
        std::string key = randomText(rng, 32), nonce = randomText(rng, 8), nonce12 = std::string(4, '\0') + nonce;
        size_t n = 1 + rng() % 400;
        std::string plain = randomText(rng, n), expected(n, '\0'), cipher(n, '\0');
        mbedtls_chacha20_crypt(u(key), u(nonce12), 0, n, u(plain), (unsigned char*)&expected[0]);
        ASSERT_EQ(xored(reference("expand 32-byte k", u(key), 32, u(nonce), 20, n), plain), expected) << i;
        ECRYPT_ctx x;
        ECRYPT_keysetup(&x, u(key), keyBytes * 8, 64);
        ECRYPT_ivsetup(&x, u(nonce));
        ECRYPT_encrypt_bytes(&x, u(plain), (uint8_t*)&cipher[0], (uint32_t)n);
        ASSERT_EQ(cipher, xored(programStream(u(key), keyBytes, u(nonce), n), plain)) << i;
    }
}

TEST(EncryptMorva, MessagesAndFilesInAnyPiecesUnderTheBuiltInKey) {
    auto decrypted = [](const std::string& message, int length, bool strip) {
        int n = -1;
        char* p = EncryptMorva::Decrypt(message.data(), length, n, strip);
        std::string s(p, n);
        free(p);
        return s;
    };
    const std::string text = "the same text \t\n ";
    std::string messages[2];
    for (auto& m : messages) {
        int n = 0;
        char* p = EncryptMorva::Encrypt(text.data(), (int)text.size(), n);
        m.assign(p, n);
        free(p);
        ASSERT_EQ(m.size(), text.size() + 8);  // the nonce in front
        EXPECT_EQ(m.substr(8), xored(programStream(CHACHA_KEY, 32, u(m), text.size()), text));
    }
    EXPECT_NE(messages[0].substr(0, 8), messages[1].substr(0, 8));
    EXPECT_EQ(decrypted(messages[0], (int)messages[0].size(), false), text);
    EXPECT_EQ(decrypted(messages[1], (int)messages[1].size(), true), "the same text");
    EXPECT_EQ(decrypted(messages[0], 8, false), "");

    // Files: every layout of written pieces, read back in pieces of every size.
    std::mt19937 rng(5);
    for (std::vector<int> layout : {std::vector<int>{30, 30, 40}, {63, 64, 65}, {64, 64, 1}, {65, 127, 128, 129},
                                    {1, 1, 1, 61, 1}, {0, 64, 0}, {200, 0}}) {
        std::string plain;
        for (int p : layout) plain += randomText(rng, p);
        FILE* f = tmpfile();
        ASSERT_NE(f, nullptr);
        {
            EncryptMorva writer(true);
            size_t at = 0;
            for (size_t i = 0; i < layout.size(); at += layout[i++])
                ASSERT_EQ(writer.encryptFwrite(plain.data() + at, layout[i], f, i + 1 == layout.size()), layout[i]);
        }
        std::string file(plain.size() + 9, '\0');
        rewind(f);
        file.resize(fread(&file[0], 1, file.size(), f));
        EXPECT_EQ(decrypted(file, (int)file.size(), false), plain);
        for (int readSize : {64, 1024, 7}) {
            SCOPED_TRACE(::testing::PrintToString(layout) + " read " + std::to_string(readSize));
            rewind(f);
            EncryptMorva reader(false);
            std::string back;
            std::vector<char> buf(readSize);
            int got;
            while ((got = reader.decryptFread(f, buf.data(), readSize)) > 0) back.append(buf.data(), got);
            EXPECT_EQ(got, 0);
            EXPECT_EQ(back, plain);
        }
        fclose(f);
    }
    FILE* f = tmpfile();
    fwrite("1234567", 1, 7, f);
    rewind(f);
    EncryptMorva reader(false);
    char buf[64];
    EXPECT_EQ(reader.decryptFread(f, buf, sizeof buf), -1) << "a file shorter than its nonce";
    fclose(f);
}
