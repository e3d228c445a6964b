#include "des.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

#include "secretKeys.h"

namespace {

// FIPS 46-3 tables, 1-based bit positions as published.
const unsigned char IP_TABLE[64] = {
    58, 50, 42, 34, 26, 18, 10, 2, 60, 52, 44, 36, 28, 20, 12, 4,
    62, 54, 46, 38, 30, 22, 14, 6, 64, 56, 48, 40, 32, 24, 16, 8,
    57, 49, 41, 33, 25, 17, 9,  1, 59, 51, 43, 35, 27, 19, 11, 3,
    61, 53, 45, 37, 29, 21, 13, 5, 63, 55, 47, 39, 31, 23, 15, 7};

const unsigned char FP_TABLE[64] = {
    40, 8, 48, 16, 56, 24, 64, 32, 39, 7, 47, 15, 55, 23, 63, 31,
    38, 6, 46, 14, 54, 22, 62, 30, 37, 5, 45, 13, 53, 21, 61, 29,
    36, 4, 44, 12, 52, 20, 60, 28, 35, 3, 43, 11, 51, 19, 59, 27,
    34, 2, 42, 10, 50, 18, 58, 26, 33, 1, 41, 9,  49, 17, 57, 25};

const unsigned char E_TABLE[48] = {
    32, 1,  2,  3,  4,  5,  4,  5,  6,  7,  8,  9,  8,  9,  10, 11,
    12, 13, 12, 13, 14, 15, 16, 17, 16, 17, 18, 19, 20, 21, 20, 21,
    22, 23, 24, 25, 24, 25, 26, 27, 28, 29, 28, 29, 30, 31, 32, 1};

const unsigned char P_TABLE[32] = {
    16, 7, 20, 21, 29, 12, 28, 17, 1,  15, 23, 26, 5,  18, 31, 10,
    2,  8, 24, 14, 32, 27, 3,  9,  19, 13, 30, 6,  22, 11, 4,  25};

const unsigned char PC1_TABLE[56] = {
    57, 49, 41, 33, 25, 17, 9,  1,  58, 50, 42, 34, 26, 18,
    10, 2,  59, 51, 43, 35, 27, 19, 11, 3,  60, 52, 44, 36,
    63, 55, 47, 39, 31, 23, 15, 7,  62, 54, 46, 38, 30, 22,
    14, 6,  61, 53, 45, 37, 29, 21, 13, 5,  28, 20, 12, 4};

const unsigned char PC2_TABLE[48] = {
    14, 17, 11, 24, 1,  5,  3,  28, 15, 6,  21, 10, 23, 19, 12, 4,
    26, 8,  16, 7,  27, 20, 13, 2,  41, 52, 31, 37, 47, 55, 30, 40,
    51, 45, 33, 48, 44, 49, 39, 56, 34, 53, 46, 42, 50, 36, 29, 32};

const unsigned char SHIFTS[16] = {1, 1, 2, 2, 2, 2, 2, 2, 1, 2, 2, 2, 2, 2, 2, 1};

const unsigned char S_BOX[8][4][16] = {
    {{14, 4, 13, 1, 2, 15, 11, 8, 3, 10, 6, 12, 5, 9, 0, 7},
     {0, 15, 7, 4, 14, 2, 13, 1, 10, 6, 12, 11, 9, 5, 3, 8},
     {4, 1, 14, 8, 13, 6, 2, 11, 15, 12, 9, 7, 3, 10, 5, 0},
     {15, 12, 8, 2, 4, 9, 1, 7, 5, 11, 3, 14, 10, 0, 6, 13}},
    {{15, 1, 8, 14, 6, 11, 3, 4, 9, 7, 2, 13, 12, 0, 5, 10},
     {3, 13, 4, 7, 15, 2, 8, 14, 12, 0, 1, 10, 6, 9, 11, 5},
     {0, 14, 7, 11, 10, 4, 13, 1, 5, 8, 12, 6, 9, 3, 2, 15},
     {13, 8, 10, 1, 3, 15, 4, 2, 11, 6, 7, 12, 0, 5, 14, 9}},
    {{10, 0, 9, 14, 6, 3, 15, 5, 1, 13, 12, 7, 11, 4, 2, 8},
     {13, 7, 0, 9, 3, 4, 6, 10, 2, 8, 5, 14, 12, 11, 15, 1},
     {13, 6, 4, 9, 8, 15, 3, 0, 11, 1, 2, 12, 5, 10, 14, 7},
     {1, 10, 13, 0, 6, 9, 8, 7, 4, 15, 14, 3, 11, 5, 2, 12}},
    {{7, 13, 14, 3, 0, 6, 9, 10, 1, 2, 8, 5, 11, 12, 4, 15},
     {13, 8, 11, 5, 6, 15, 0, 3, 4, 7, 2, 12, 1, 10, 14, 9},
     {10, 6, 9, 0, 12, 11, 7, 13, 15, 1, 3, 14, 5, 2, 8, 4},
     {3, 15, 0, 6, 10, 1, 13, 8, 9, 4, 5, 11, 12, 7, 2, 14}},
    {{2, 12, 4, 1, 7, 10, 11, 6, 8, 5, 3, 15, 13, 0, 14, 9},
     {14, 11, 2, 12, 4, 7, 13, 1, 5, 0, 15, 10, 3, 9, 8, 6},
     {4, 2, 1, 11, 10, 13, 7, 8, 15, 9, 12, 5, 6, 3, 0, 14},
     {11, 8, 12, 7, 1, 14, 2, 13, 6, 15, 0, 9, 10, 4, 5, 3}},
    {{12, 1, 10, 15, 9, 2, 6, 8, 0, 13, 3, 4, 14, 7, 5, 11},
     {10, 15, 4, 2, 7, 12, 9, 5, 6, 1, 13, 14, 0, 11, 3, 8},
     {9, 14, 15, 5, 2, 8, 12, 3, 7, 0, 4, 10, 1, 13, 11, 6},
     {4, 3, 2, 12, 9, 5, 15, 10, 11, 14, 1, 7, 6, 0, 8, 13}},
    {{4, 11, 2, 14, 15, 0, 8, 13, 3, 12, 9, 7, 5, 10, 6, 1},
     {13, 0, 11, 7, 4, 9, 1, 10, 14, 3, 5, 12, 2, 15, 8, 6},
     {1, 4, 11, 13, 12, 3, 7, 14, 10, 15, 6, 8, 0, 5, 9, 2},
     {6, 11, 13, 8, 1, 4, 10, 7, 9, 5, 0, 15, 14, 2, 3, 12}},
    {{13, 2, 8, 4, 6, 15, 11, 1, 10, 9, 3, 14, 5, 0, 12, 7},
     {1, 15, 13, 8, 10, 3, 7, 4, 12, 5, 6, 11, 0, 14, 9, 2},
     {7, 11, 4, 1, 9, 12, 14, 2, 0, 6, 10, 13, 15, 3, 5, 8},
     {2, 1, 14, 7, 4, 10, 8, 13, 15, 12, 9, 0, 3, 5, 6, 11}}};

void unpack(const unsigned char* bytes, int* bits, int count) {
    for (int i = 0; i < count; ++i) bits[i] = (bytes[i >> 3] >> (7 - (i & 7))) & 1;
}

void pack(const int* bits, unsigned char* bytes, int count) {
    memset(bytes, 0, count / 8);
    for (int i = 0; i < count; ++i) bytes[i >> 3] |= (unsigned char)(bits[i] << (7 - (i & 7)));
}

char* emptyResult(int& lengthOut) {
    lengthOut = 0;
    char* out = (char*)malloc(1);
    out[0] = 0;
    return out;
}

}  // namespace

Des::Des() {
    memcpy(m_keys[0], DES_KEY_1, 8);
    memcpy(m_keys[1], DES_KEY_2, 8);
    memcpy(m_keys[2], DES_KEY_3, 8);
    memset(m_key, 0, sizeof m_key);
    memset(m_cd, 0, sizeof m_cd);
    memset(m_subkeys, 0, sizeof m_subkeys);
    memset(m_block, 0, sizeof m_block);
    memset(m_left, 0, sizeof m_left);
    memset(m_right, 0, sizeof m_right);
    memset(m_expanded, 0, sizeof m_expanded);
    memset(m_sboxOut, 0, sizeof m_sboxOut);
    memset(m_pOut, 0, sizeof m_pOut);
}

int Des::slot(int keyNumber) {
    if (keyNumber == 3) return 2;
    if (keyNumber == 2) return 1;
    return 0;
}

void Des::setKey(int keyNumber, const unsigned char key[8]) {
    memcpy(m_keys[slot(keyNumber)], key, 8);
}

void Des::PermChoice1() {
    for (int i = 0; i < 56; ++i) m_cd[i] = m_key[PC1_TABLE[i] - 1];
}

// The shift schedule applied to C0 D0 from PermChoice1, then PC-2 for each
// of the 16 rounds.
void Des::PermChoice2() {
    for (int round = 0; round < 16; ++round) {
        for (int s = 0; s < SHIFTS[round]; ++s) {
            int c0 = m_cd[0], d0 = m_cd[28];
            memmove(m_cd, m_cd + 1, 27 * sizeof(int));
            memmove(m_cd + 28, m_cd + 29, 27 * sizeof(int));
            m_cd[27] = c0;
            m_cd[55] = d0;
        }
        for (int i = 0; i < 48; ++i) m_subkeys[round][i] = m_cd[PC2_TABLE[i] - 1];
    }
}

void Des::keygen(int keyNumber) {
    unpack(m_keys[slot(keyNumber)], m_key, 64);
    PermChoice1();
    PermChoice2();
}

void Des::IP() {
    for (int i = 0; i < 32; ++i) {
        m_left[i] = m_block[IP_TABLE[i] - 1];
        m_right[i] = m_block[IP_TABLE[i + 32] - 1];
    }
}

void Des::Expansion() {
    for (int i = 0; i < 48; ++i) m_expanded[i] = m_right[E_TABLE[i] - 1];
}

void Des::xor_oneE(int round) {
    for (int i = 0; i < 48; ++i) m_expanded[i] ^= m_subkeys[round][i];
}

void Des::xor_oneD(int round) {
    for (int i = 0; i < 48; ++i) m_expanded[i] ^= m_subkeys[15 - round][i];
}

void Des::substitution() {
    for (int box = 0; box < 8; ++box) {
        const int* b = m_expanded + 6 * box;
        int row = (b[0] << 1) | b[5];
        int column = (b[1] << 3) | (b[2] << 2) | (b[3] << 1) | b[4];
        int value = S_BOX[box][row][column];
        for (int i = 0; i < 4; ++i) m_sboxOut[4 * box + i] = (value >> (3 - i)) & 1;
    }
}

void Des::permutation() {
    for (int i = 0; i < 32; ++i) m_pOut[i] = m_sboxOut[P_TABLE[i] - 1];
}

void Des::xor_two() {
    for (int i = 0; i < 32; ++i) {
        int next = m_left[i] ^ m_pOut[i];
        m_left[i] = m_right[i];
        m_right[i] = next;
    }
}

void Des::inverse() {
    // The halves leave the last round swapped: the output is R16 L16.
    int preoutput[64];
    memcpy(preoutput, m_right, sizeof m_right);
    memcpy(preoutput + 32, m_left, sizeof m_left);
    for (int i = 0; i < 64; ++i) m_block[i] = preoutput[FP_TABLE[i] - 1];
}

void Des::cipherBlock(const unsigned char* in, unsigned char* out, bool decrypt) {
    unpack(in, m_block, 64);
    IP();
    for (int round = 0; round < 16; ++round) {
        Expansion();
        if (decrypt)
            xor_oneD(round);
        else
            xor_oneE(round);
        substitution();
        permutation();
        xor_two();
    }
    inverse();
    pack(m_block, out, 64);
}

char* Des::Encrypt(const char* bytes, int length, int& lengthOut, int keyNumber) {
    if (!bytes || length < 0) length = 0;
    int padded = (length + 7) / 8 * 8;
    keygen(keyNumber);
    if (padded < 8) return emptyResult(lengthOut);

    unsigned char* in = (unsigned char*)malloc(padded);
    memcpy(in, bytes, length);
    memset(in + length, ' ', padded - length);
    unsigned char* out = (unsigned char*)malloc(padded + 1);
    for (int at = 0; at < padded; at += 8) cipherBlock(in + at, out + at, false);
    out[padded] = 0;
    free(in);
    lengthOut = padded;
    return (char*)out;
}

char* Des::Decrypt(const char* bytes, int length, int keyNumber, int& lengthOut, bool strip) {
    if (!bytes || length < 0) length = 0;
    int whole = length / 8 * 8;
    keygen(keyNumber);
    unsigned char* out = (unsigned char*)malloc(whole + 1);
    const unsigned char* in = (const unsigned char*)bytes;
    for (int at = 0; at < whole; at += 8) cipherBlock(in + at, out + at, true);
    int n = whole;
    if (strip)
        while (n > 0 && isspace(out[n - 1])) --n;
    out[n] = 0;
    lengthOut = n;
    return (char*)out;
}

char* Des::Encrypt3(const char* bytes, int length, int& lengthOut) {
    int n1 = 0, n2 = 0;
    char* first = Encrypt(bytes, length, n1, 1);
    char* second = Decrypt(first, n1, 2, n2, false);
    free(first);
    char* third = Encrypt(second, n2, lengthOut, 3);
    free(second);
    return third;
}

char* Des::Decrypt3(const char* bytes, int length) {
    int n1 = 0, n2 = 0, n3 = 0;
    char* first = Decrypt(bytes, length, 3, n1, false);
    char* second = Encrypt(first, n1, n2, 2);
    free(first);
    char* third = Decrypt(second, n2, 1, n3, true);
    free(second);
    return third;
}
