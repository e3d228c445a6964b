// DES (FIPS 46-3) in ECB mode over byte strings, with the keys built into the
// program (secretKeys.h) chosen by number, and the triple form E-D-E.
//
// Plain text is padded with blanks to a multiple of 8 bytes (none when it is
// already one), so a deciphered text normally ends in blanks: Decrypt with
// strip removes all trailing white space, padding and the text's own alike.
//
// Every result is malloc'd, zero-terminated after lengthOut bytes, and freed
// by the caller. An object carries no state from one call to the next.
#pragma once

class Des {
public:
    Des();

    // Enciphers length bytes with key number keyNumber (3, 2, anything else
    // means 1); lengthOut = 8 x blocks. Empty input: "" with lengthOut 0.
    char* Encrypt(const char* bytes, int length, int& lengthOut, int keyNumber);
    // Deciphers the whole 8-byte blocks of bytes (an incomplete tail is not
    // cipher text and is dropped). strip: trailing white space removed and
    // lengthOut shortened to match.
    char* Decrypt(const char* bytes, int length, int keyNumber, int& lengthOut, bool strip);
    // E(key 1), D(key 2, raw), E(key 3).
    char* Encrypt3(const char* bytes, int length, int& lengthOut);
    // D(key 3, raw), E(key 2), D(key 1, stripped): a zero-terminated text.
    char* Decrypt3(const char* bytes, int length);

    // Fills the 16 round subkeys for the key number.
    void keygen(int keyNumber);
    // This object uses these 8 bytes wherever the key number would select a
    // built-in key (same number rule as keygen). For tests and key tools.
    void setKey(int keyNumber, const unsigned char key[8]);

    // The steps of one block, on the working arrays below.
    void IP();
    void PermChoice1();
    void PermChoice2();
    void Expansion();
    void xor_oneE(int round);
    void xor_oneD(int round);
    void substitution();
    void permutation();
    void xor_two();
    void inverse();

private:
    static int slot(int keyNumber);
    void cipherBlock(const unsigned char* in, unsigned char* out, bool decrypt);

    unsigned char m_keys[3][8];
    // One integer per bit, most significant bit of the first byte first.
    int m_key[64];
    int m_cd[56];
    int m_subkeys[16][48];
    int m_block[64];
    int m_left[32];
    int m_right[32];
    int m_expanded[48];
    int m_sboxOut[32];
    int m_pOut[32];
};
