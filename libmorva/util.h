// Encoding of secrets kept in state files, and the base64 codecs beneath it.
//
// Util::encrypt   DES with key 1, blank padding, URL-safe base64.
// Util::encrypt3  "~" + URL-safe base64 of an EncryptMorva message.
// Util::decrypt   either form, told apart by the leading "~"; trailing white
//                 space removed. Text that was never enciphered comes back as
//                 some (garbage) text, never as a fault.
// Their results live in the InternalCache ring: use at once or copy; never free.
#pragma once
#include <string>

// Streaming base64 core (standard alphabet, no line breaks). The encoder
// carries the bytes of an unfinished 3-byte group, the decoder the bits of an
// unfinished byte, so input may arrive in pieces of any size.
struct base64_encodestate {
    int step;  // bytes of the current group already consumed: 0, 1, 2
    char result;
};
struct base64_decodestate {
    int step;  // characters of the current group already consumed: 0..3
    char plainchar;
};

void base64_init_encodestate(base64_encodestate* state);
// The alphabet character of a 6-bit value (higher bits ignored).
char base64_encode_value(char value);
// Returns the number of characters written (no terminator).
int base64_encode_block(const char* plain, int length, char* code, base64_encodestate* state);
// Finishes a partial group with its last character and "=" padding; returns
// the number of characters written (no terminator).
int base64_encode_blockend(char* code, base64_encodestate* state);

void base64_init_decodestate(base64_decodestate* state);
// The 6-bit value of an alphabet character, -1 for any other ("=" included).
int base64_decode_value(char value);
// Skips characters outside the alphabet; returns the number of bytes written.
int base64_decode_block(const char* code, int length, char* plain, base64_decodestate* state);

// URL-safe base64 ("-" for "+", "_" for "/", "=" padding kept). Malloc'd.
char* encode(const void* bytes, int length);
// Decodes URL-safe or standard base64. Changes its input: "-" and "_" are
// turned into "+" and "/" in place. lengthIn 0: strlen(text). The result is
// malloc'd and zero-terminated after lengthOut bytes.
char* decode(char* text, int& lengthOut, int lengthIn = 0);
// Standard base64. Always malloc'd ("" for null input or length 0).
char* b64encode(const void* bytes, int length);
// Standard base64 to bytes, zero-terminated; lengthIn 0: strlen(text).
// Always malloc'd ("" with lengthOut 0 for a null text).
char* b64decode(const char* text, int& lengthOut, int lengthIn = 0);

namespace Util {
// "" for a null or empty text. These three put their result on the shared
// ring; texts of any length use the std::string forms below.
char* encrypt(const char* text);
char* encrypt3(const char* text);
char* decrypt(const char* text);
std::string encipher(const char* text);
std::string encipher3(const char* text);
std::string decipher(const char* text);
}
