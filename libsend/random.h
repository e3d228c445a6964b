// The process-wide cryptographic random source, version-4 UUIDs and DICOM
// UIDs under the root "1.3.6.1.4.1.64523".
#pragma once
#include <cstdint>

// len bytes from the CTR-DRBG; seeded once, thread-safe.
void getRandomNumber(unsigned char* buf, int len);
// One-time seeding; run through a once-flag by the first getRandomNumber.
void randomInit();
// Fallback source: /dev/urandom, topped up with rand() when it fails.
void get_random_bytes(void* buf, int len);

// Writes a version-4 UUID into out[0..15]. useGiven: the 16 bytes already at
// out are the random input; otherwise they come from get_random_bytes.
void uuid_generate(unsigned char* out, bool useGiven);

struct uuid {
    uint32_t time_low;
    uint16_t time_mid;
    uint16_t time_hi_and_version;
    uint16_t clock_seq;
    uint8_t node[6];
};
// Big-endian conversion between the record and its 16-byte form.
void uuid_pack(const struct uuid* uu, unsigned char* out);
void uuid_unpack(const unsigned char* in, struct uuid* uu);

// A new SOP instance UID (at most 62 characters). The text lives in the
// InternalCache ring: use it at once or copy it; never free it.
char* genSopInstanceId();
// A deterministic UID from up to four texts (null or empty ones add
// nothing). Same ownership as genSopInstanceId.
char* genInstanceFromParts(const char* a, const char* b, const char* c, const char* d);
