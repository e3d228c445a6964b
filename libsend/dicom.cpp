#include "dicom.h"

#include <cstdint>
#include <cstdio>
#include <cstring>

char* getSopInstance(const char* path, char* out, int outSize) {
    FILE* f = fopen(path, "rbe");
    if (!f) return nullptr;
    char* found = nullptr;
    unsigned char magic[4];
    if (fseek(f, 128, SEEK_SET) == 0 && fread(magic, 1, 4, f) == 4 && !memcmp(magic, "DICM", 4)) {
        static const char* const shortVr = "AEASATCSDADSDTFLFDISLOPNSHSLSSSTTMUIULUS";
        for (;;) {
            unsigned char tag[6];
            if (fread(tag, 1, 6, f) != 6) break;
            unsigned group = tag[0] | (tag[1] << 8), element = tag[2] | (tag[3] << 8);
            bool isShort = false;
            for (int i = 0; shortVr[i]; i += 2)
                if (tag[4] == (unsigned char)shortVr[i] && tag[5] == (unsigned char)shortVr[i + 1])
                    isShort = true;
            unsigned char l[6];
            uint32_t length;
            if (isShort) {
                if (fread(l, 1, 2, f) != 2) break;
                length = l[0] | (l[1] << 8);
            } else {
                if (fread(l, 1, 6, f) != 6) break;
                length = l[2] | (l[3] << 8) | (l[4] << 16) | ((uint32_t)l[5] << 24);
            }
            if (length >= 1025) break;
            char value[1025];
            if (fread(value, 1, length, f) != length) break;
            value[length] = '\0';
            if (element == 3) {
                size_t n = strnlen(value, (size_t)outSize - 1);
                memcpy(out, value, n);
                out[n] = '\0';
                found = out;
                break;
            }
            if (group != 2) break;
        }
    }
    fclose(f);
    return found;
}
