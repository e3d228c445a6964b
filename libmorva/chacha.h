// ChaCha with 8 rounds and this program's own constant words, in the eSTREAM
// interface, and EncryptMorva: messages and files enciphered under the built-in
// key (secretKeys.h) with a random 64-bit nonce sent in front.
//
// The constant words are "expand 32-bytek" (or "expand 16-bytek") followed by
// a zero byte, not the published "expand 32-byte k": the output is therefore
// not published ChaCha8, and must stay as it is to read what was written.
#pragma once
#include <cstdint>
#include <cstdio>

// Words 0-3 constants, 4-11 key, 12-13 block counter, 14-15 nonce; all
// little-endian.
struct ECRYPT_ctx {
    uint32_t input[16];
};

void ECRYPT_init();
// keyBits 256 or 128 (a 128-bit key is used twice); ivBits is ignored (64).
void ECRYPT_keysetup(ECRYPT_ctx* x, const uint8_t* key, uint32_t keyBits, uint32_t ivBits);
// Nonce from 8 bytes, block counter 0.
void ECRYPT_ivsetup(ECRYPT_ctx* x, const uint8_t* iv);
// XOR with the key stream. The counter advances once per 64-byte block; a
// final partial block uses up a whole block of key stream.
void ECRYPT_encrypt_bytes(ECRYPT_ctx* x, const uint8_t* plain, uint8_t* cipher, uint32_t bytes);
void ECRYPT_decrypt_bytes(ECRYPT_ctx* x, const uint8_t* cipher, uint8_t* plain, uint32_t bytes);
void ECRYPT_keystream_bytes(ECRYPT_ctx* x, uint8_t* stream, uint32_t bytes);

// Message form: 8 nonce bytes, then the cipher text, as long as the plain text.
// File form: the same, written in pieces by encryptFwrite and read back in
// pieces by decryptFread. One object serves one message or one file.
class EncryptMorva {
public:
    // withNonce: a fresh random nonce (writing); without, the nonce comes from
    // the file being read.
    explicit EncryptMorva(bool withNonce = true);
    ~EncryptMorva();
    EncryptMorva(const EncryptMorva&) = delete;
    EncryptMorva& operator=(const EncryptMorva&) = delete;

    // Nonce + cipher text; lengthOut = length + 8. Malloc'd, caller frees.
    static char* Encrypt(const char* text, int length, int& lengthOut);
    // Plain text of a message (nothing for 8 bytes or fewer), zero-terminated;
    // strip removes trailing white space. Malloc'd, caller frees.
    static char* Decrypt(const char* message, int length, int& lengthOut, bool strip);

    // Writes one piece of a file; the first call writes the nonce first. Every
    // piece but the one marked final holds back its incomplete 64-byte block
    // for the next call, so the key stream stays aligned: the last piece must
    // be marked final. Returns length, or -1 on a short write.
    int encryptFwrite(const void* bytes, int length, FILE* file, bool final);
    // Reads and deciphers up to length bytes; the first call reads the nonce.
    // Returns the count (0 at end of file), or -1 when the nonce is missing.
    // Pieces of any size may be read.
    int decryptFread(FILE* file, void* buffer, int length);

    const unsigned char* nonce() const { return m_nonce; }

private:
    void reserve(unsigned char** buffer, int* capacity, int needed);

    ECRYPT_ctx m_ctx;
    unsigned char m_nonce[8];
    bool m_first = true;
    unsigned char* m_out = nullptr;
    int m_outCapacity = 0;
    unsigned char* m_in = nullptr;
    int m_inCapacity = 0;
    // Writing: the held-back tail of the last piece. Reading: unused key
    // stream of the last block, at m_carry[64 - m_carryLength].
    unsigned char* m_carry = nullptr;
    int m_carryLength = 0;
    int m_carryCapacity = 0;
};
