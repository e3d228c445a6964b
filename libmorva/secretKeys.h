// The keys built into the program: three DES keys (numbers 1, 2, 3) and the
// ChaCha key. Every secret kept in a state file, and the upload session's
// pre-shared key, depends on them; the service must hold the same DES key 1.
//
// A deployment replaces them by building with
//   -DCMAKE_CXX_FLAGS='-DHUBTALK_SECRET_KEYS_HEADER="\"/path/keys.h\""'
// where that header defines the same four arrays with the same sizes. Values
// already stored enciphered must be written again after a key change.
#pragma once

#ifdef HUBTALK_SECRET_KEYS_HEADER
#include HUBTALK_SECRET_KEYS_HEADER
#else
// Parity bits are ignored by DES; any 8 bytes will do.
inline constexpr unsigned char DES_KEY_1[8] = {0x4b, 0x31, 0xe1, 0x6f, 0x12, 0xa4, 0xb2, 0x22};
inline constexpr unsigned char DES_KEY_2[8] = {0x1b, 0xb1, 0x24, 0x77, 0x2f, 0x99, 0xb1, 0x04};
inline constexpr unsigned char DES_KEY_3[8] = {0x06, 0x6c, 0x4a, 0x38, 0x74, 0xcf, 0x16, 0x45};

inline constexpr unsigned char CHACHA_KEY[32] = {
    0xf5, 0xc4, 0xd3, 0x4e, 0xd1, 0x91, 0xec, 0x1d, 0x3a, 0x1e, 0x8a, 0xe0, 0xe1, 0xfb, 0x83, 0xe3,
    0x27, 0x3a, 0x7a, 0x98, 0xe0, 0xc0, 0xf5, 0x45, 0x12, 0xf6, 0x18, 0x7f, 0xff, 0x41, 0xb0, 0x02};
#endif
