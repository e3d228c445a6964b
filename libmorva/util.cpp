#include "util.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include "chacha.h"
#include "des.h"
#include "memory.h"

namespace {

const char ALPHABET[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

char* emptyText() {
    char* text = (char*)malloc(1);
    text[0] = 0;
    return text;
}

// Room for the encoded text of length bytes and its zero byte.
int encodedSize(int length) { return (length + 2) / 3 * 4 + 1; }

char* encodeStandard(const void* bytes, int length) {
    char* code = (char*)malloc(encodedSize(length));
    base64_encodestate state;
    base64_init_encodestate(&state);
    int n = base64_encode_block((const char*)bytes, length, code, &state);
    n += base64_encode_blockend(code + n, &state);
    code[n] = 0;
    return code;
}

char* decodeBytes(const char* text, int length, int& lengthOut) {
    char* plain = (char*)malloc(length + 1);
    base64_decodestate state;
    base64_init_decodestate(&state);
    lengthOut = base64_decode_block(text, length, plain, &state);
    plain[lengthOut] = 0;
    return plain;
}

char* cached(const char* text) { return InternalCache::getCacheReturn(text); }

}  // namespace

void base64_init_encodestate(base64_encodestate* state) {
    state->step = 0;
    state->result = 0;
}

char base64_encode_value(char value) { return ALPHABET[(unsigned char)value & 0x3f]; }

int base64_encode_block(const char* plain, int length, char* code, base64_encodestate* state) {
    const unsigned char* in = (const unsigned char*)plain;
    char* out = code;
    int step = state->step;
    int carried = (unsigned char)state->result;
    for (int i = 0; i < length; ++i) {
        int b = in[i];
        switch (step) {
        case 0:
            *out++ = base64_encode_value((char)(b >> 2));
            carried = (b & 0x03) << 4;
            step = 1;
            break;
        case 1:
            *out++ = base64_encode_value((char)(carried | (b >> 4)));
            carried = (b & 0x0f) << 2;
            step = 2;
            break;
        default:
            *out++ = base64_encode_value((char)(carried | (b >> 6)));
            *out++ = base64_encode_value((char)(b & 0x3f));
            carried = 0;
            step = 0;
            break;
        }
    }
    state->step = step;
    state->result = (char)carried;
    return (int)(out - code);
}

int base64_encode_blockend(char* code, base64_encodestate* state) {
    char* out = code;
    if (state->step == 1) {
        *out++ = base64_encode_value(state->result);
        *out++ = '=';
        *out++ = '=';
    } else if (state->step == 2) {
        *out++ = base64_encode_value(state->result);
        *out++ = '=';
    }
    base64_init_encodestate(state);
    return (int)(out - code);
}

void base64_init_decodestate(base64_decodestate* state) {
    state->step = 0;
    state->plainchar = 0;
}

int base64_decode_value(char value) {
    unsigned char c = (unsigned char)value;
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

int base64_decode_block(const char* code, int length, char* plain, base64_decodestate* state) {
    unsigned char* out = (unsigned char*)plain;
    int step = state->step;
    int partial = (unsigned char)state->plainchar;
    for (int i = 0; i < length; ++i) {
        int v = base64_decode_value(code[i]);
        if (v < 0) continue;
        switch (step) {
        case 0:
            partial = v << 2;
            step = 1;
            break;
        case 1:
            *out++ = (unsigned char)(partial | (v >> 4));
            partial = (v & 0x0f) << 4;
            step = 2;
            break;
        case 2:
            *out++ = (unsigned char)(partial | (v >> 2));
            partial = (v & 0x03) << 6;
            step = 3;
            break;
        default:
            *out++ = (unsigned char)(partial | v);
            partial = 0;
            step = 0;
            break;
        }
    }
    state->step = step;
    state->plainchar = (char)partial;
    return (int)(out - (unsigned char*)plain);
}

char* encode(const void* bytes, int length) {
    if (!bytes || length < 0) length = 0;
    char* code = encodeStandard(bytes, length);
    for (char* p = code; *p; ++p) {
        if (*p == '+')
            *p = '-';
        else if (*p == '/')
            *p = '_';
    }
    return code;
}

char* decode(char* text, int& lengthOut, int lengthIn) {
    if (!text) {
        lengthOut = 0;
        return emptyText();
    }
    int length = lengthIn > 0 ? lengthIn : (int)strlen(text);
    for (int i = 0; i < length; ++i) {
        if (text[i] == '-')
            text[i] = '+';
        else if (text[i] == '_')
            text[i] = '/';
    }
    return decodeBytes(text, length, lengthOut);
}

char* b64encode(const void* bytes, int length) {
    if (!bytes || length <= 0) return emptyText();
    return encodeStandard(bytes, length);
}

char* b64decode(const char* text, int& lengthOut, int lengthIn) {
    if (!text) {
        lengthOut = 0;
        return emptyText();
    }
    return decodeBytes(text, lengthIn > 0 ? lengthIn : (int)strlen(text), lengthOut);
}

namespace Util {

std::string encipher(const char* text) {
    if (!text || !*text) return "";
    Des des;
    int length = 0;
    char* cipher = des.Encrypt(text, (int)strlen(text), length, 1);
    char* code = encode(cipher, length);
    std::string result = code;
    free(cipher);
    free(code);
    return result;
}

std::string encipher3(const char* text) {
    if (!text || !*text) return "";
    int length = 0;
    char* message = EncryptMorva::Encrypt(text, (int)strlen(text), length);
    char* code = encode(message, length);
    std::string result = std::string("~") + code;
    free(message);
    free(code);
    return result;
}

std::string decipher(const char* text) {
    if (!text || !*text) return "";
    // decode works in place; the caller's text stays as it was.
    bool stream = text[0] == '~';
    char* copy = strdup(stream ? text + 1 : text);
    int length = 0;
    char* bytes = decode(copy, length);
    int plainLength = 0;
    char* plain;
    if (stream) {
        plain = EncryptMorva::Decrypt(bytes, length, plainLength, true);
    } else {
        Des des;
        plain = des.Decrypt(bytes, length, 1, plainLength, true);
    }
    std::string result = plain ? plain : "";
    free(plain);
    free(bytes);
    free(copy);
    return result;
}

char* encrypt(const char* text) { return cached(encipher(text).c_str()); }
char* encrypt3(const char* text) { return cached(encipher3(text).c_str()); }
char* decrypt(const char* text) { return cached(decipher(text).c_str()); }

}  // namespace Util
