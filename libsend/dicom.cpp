#include "dicom.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "bounds.h"
#include "files.h"
#include "memory.h"
#include "process.h"
#include "text.h"

namespace {

// Only regular files: a FIFO dropped into a watched directory must not block
// the thread that looks at it.
FILE* openRegularFile(const char* path) {
    int fd = openRegular(path);
    FILE* f = fd < 0 ? nullptr : fdopen(fd, "rb");
    if (!f && fd >= 0) close(fd);
    return f;
}

bool startsWith(const char* dir, const char* name, long offset, const char* magic) {
    std::string path = name && *name ? std::string(dir) + "/" + name : std::string(dir);
    FILE* f = openRegularFile(path.c_str());
    if (!f) return false;
    char head[4];
    bool yes = fseek(f, offset, SEEK_SET) == 0 && fread(head, 1, 4, f) == 4 &&
               memcmp(head, magic, 4) == 0;
    fclose(f);
    return yes;
}

int runDump(const std::string& command) {
    return runBounded(command.c_str(), Limits::DUMP_TIMEOUT_S);
}

char* readDump(const std::string& path) {
    return readTxt(path.c_str(), "", Limits::DUMP_TEXT_MOST);
}

void freeText(char* text) {
    if (text && text != EMPTY_TEXT) free(text);
}

// One dump line: "(gggg,eeee) VR value   #  len, vm Keyword". The last "#"
// starts the comment: sequence lines carry "#=" inside their value text.
void addDumpLine(char* line, KeyValues<char>& table) {
    char* hash = strrchr(line, '#');
    if (!hash) return;
    *hash = '\0';
    char* comment = rtrim(hash + 1);
    char* keyword = strrchr(comment, ' ');
    keyword = keyword ? keyword + 1 : comment;
    if (!*keyword) return;
    char* value = strlen(line) > 15 ? rtrim(line + 15) : line + strlen(line);
    if (strcmp(value, "(no value available)") == 0) return;
    if (*value == '[') {
        ++value;
        size_t n = strlen(value);
        if (n && value[n - 1] == ']') value[n - 1] = '\0';
    }
    table.addKeyValue(keyword, value);
}

const char* const CLASSIFIER_TAGS[] = {"SOPClassUID", "StudyInstanceUID",
                                       "MIMETypeOfEncapsulatedDocument", nullptr};

// Classifiers may run on several threads with the same directory: each call
// dumps to a name of its own.
std::string classifierDumpName() {
    static std::atomic<unsigned> counter{0};
    return "ATTRS." + std::to_string(getpid()) + "." + std::to_string(++counter) + ".txt";
}

char* copyIn(const char* text, Memory* mem) {
    size_t n = strlen(text);
    char* copy = static_cast<char*>(mem->malloc(n + 1));
    memcpy(copy, text, n + 1);
    return copy;
}

// The StudyInstanceUID when the dump of file passes isWanted, else "".
template <class Test>
char* classify(const char* file, const char* dir, Memory* mem, const char* const* tags,
               Test isWanted) {
    if (!mem || !isDicom(file, "")) return EMPTY_TEXT;
    KeyValues<char> table;
    if (getAttrMap(file, table, tags, dir, classifierDumpName().c_str(), mem) != 0)
        return EMPTY_TEXT;
    if (!isWanted(table)) return EMPTY_TEXT;
    const char* study = table.get("StudyInstanceUID");
    return study && *study ? copyIn(study, mem) : EMPTY_TEXT;
}

const char* valueOr(const KeyValues<char>& table, const char* key) {
    const char* v = table.get(key);
    return v ? v : "";
}

}  // namespace

bool isDicom(const char* dir, const char* name) { return startsWith(dir, name, 128, "DICM"); }

bool isHL7(const char* dir, const char* name) { return startsWith(dir, name, 0, "MSH|"); }

int getAttrMap(const char* file, KeyValues<char>& table, const char* const* tags,
               const char* dir, const char* outName, Memory* mem) {
    if (!file || !dir || !outName || !mem) return 1;
    std::string dumpPath = std::string(dir) + "/" + outName;
    std::string command =
        "dcmdump -ll error +E -vr  -M -ml +uc +Ep +rd --convert-to-utf8 --no-uid-names";
    for (int i = 0; tags && tags[i] && tags[i][0]; ++i) {
        command += " +P ";
        command += tags[i];
    }
    command += " " + shellArg(file) + " > " + shellArg(dumpPath);

    if (runDump(command) != 0) {
        // Files in a character set dcmdump cannot convert still dump without it.
        const std::string convert = "--convert-to-utf8 ";
        command.erase(command.find(convert), convert.size());
        if (runDump(command) != 0) {
            unlink(dumpPath.c_str());
            return 1;
        }
    }
    char* text = readDump(dumpPath);
    if (!*text) {
        freeText(text);
        runDump(command);
        sleep(1);
        text = readDump(dumpPath);
    }
    unlink(dumpPath.c_str());
    if (!*text) {
        freeText(text);
        return 1;
    }
    mem->add(text);
    for (char* line = text; line && *line;) {
        char* next = strchr(line, '\n');
        if (next) *next++ = '\0';
        addDumpLine(line, table);
        line = next;
    }
    return 0;
}

char* isSecondaryCapture(const char* file, const char* dir, Memory* mem) {
    return classify(file, dir, mem, CLASSIFIER_TAGS, [](const KeyValues<char>& t) {
        const char* sopClass = valueOr(t, "SOPClassUID");
        return strcmp(sopClass, "1.2.840.10008.5.1.4.1.1.7") == 0 ||
               strncmp(sopClass, "1.2.840.10008.5.1.4.1.1.7.", 26) == 0;
    });
}

char* isPdfFile(const char* file, const char* dir, Memory* mem) {
    return classify(file, dir, mem, CLASSIFIER_TAGS, [](const KeyValues<char>& t) {
        std::string mime = valueOr(t, "MIMETypeOfEncapsulatedDocument");
        for (char& c : mime) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
        return strcmp(valueOr(t, "SOPClassUID"), "1.2.840.10008.5.1.4.1.1.104.1") == 0 ||
               mime.find("/pdf") != std::string::npos || mime.find("\\pdf") != std::string::npos;
    });
}

namespace {

// A bounded little-endian reader over the head of a file.
struct Head {
    std::vector<unsigned char> bytes;
    size_t at = 0;
    bool ok = true;
    uint32_t u16() {
        if (at + 2 > bytes.size()) return ok = false, 0;
        at += 2;
        return bytes[at - 2] | (bytes[at - 1] << 8);
    }
    uint32_t u32() {
        uint32_t lo = u16();
        return lo | (u16() << 16);
    }
    bool skip(uint64_t n) {
        if (at + n > bytes.size()) return ok = false;
        at += n;
        return true;
    }
};

const uint32_t UNDEFINED = 0xFFFFFFFFu;

// Explicit VRs with a 4-byte length; any other one, unknown ones too, has
// 2 bytes (as dcmdump reads them).
bool longForm(const char vr[2]) {
    static const char* const longVrs[] = {"OB", "OD", "OF", "OL", "OV", "OW", "SQ", "SV", "UC", "UN", "UR", "UT", "UV"};
    for (const char* v : longVrs)
        if (vr[0] == v[0] && vr[1] == v[1]) return true;
    return false;
}

// One element header: tag and length; the VR only when explicit.
bool element(Head& h, bool explicitVr, uint32_t& group, uint32_t& elem, uint32_t& length,
             bool* unknownVr = nullptr) {
    if (unknownVr) *unknownVr = false;
    group = h.u16();
    elem = h.u16();
    if (!h.ok) return false;
    if (group == 0xFFFE || !explicitVr) {
        length = h.u32();
        return h.ok;
    }
    char vr[2] = {0, 0};
    if (h.at + 2 > h.bytes.size()) return h.ok = false;
    vr[0] = static_cast<char>(h.bytes[h.at]);
    vr[1] = static_cast<char>(h.bytes[h.at + 1]);
    h.at += 2;
    if (unknownVr) *unknownVr = vr[0] == 'U' && vr[1] == 'N';
    if (longForm(vr)) {
        h.u16();
        length = h.u32();
    } else {
        length = h.u16();
    }
    return h.ok;
}

// Skips a value of undefined length: items and their elements up to the
// sequence delimiter.
bool skipUndefined(Head& h, bool explicitVr, int depth) {
    if (depth > 16) return h.ok = false;
    uint32_t g, e, len;
    bool unknown;
    // A sequence of unknown VR holds its items in implicit VR.
    while (element(h, explicitVr, g, e, len, &unknown)) {
        if (g == 0xFFFE && (e == 0xE0DD || e == 0xE00D)) return true;  // end of sequence or item
        if (g == 0xFFFE && e == 0xE000) {
            if (len != UNDEFINED) {
                if (!h.skip(len)) return false;
            } else if (!skipUndefined(h, explicitVr, depth + 1)) {
                return false;
            }
            continue;
        }
        if (len == UNDEFINED ? !skipUndefined(h, explicitVr && !unknown, depth + 1) : !h.skip(len))
            return false;
    }
    return false;
}

template <size_t N>
void takeValue(const Head& h, uint32_t length, char (&out)[N]) {
    size_t n = length < N - 1 ? length : N - 1;
    memcpy(out, h.bytes.data() + h.at, n);
    out[n] = '\0';
    while (n && (out[n - 1] == ' ' || out[n - 1] == '\0')) out[--n] = '\0';
}

}  // namespace

namespace {

// The first `most` bytes of a regular file that has the "DICM" mark, the
// reader placed after it; false otherwise.
bool loadHead(const char* path, size_t most, Head& h) {
    FILE* f = openRegularFile(path);
    if (!f) return false;
    h.bytes.resize(most);
    h.bytes.resize(fread(h.bytes.data(), 1, h.bytes.size(), f));
    fclose(f);
    if (h.bytes.size() < 132 || memcmp(h.bytes.data() + 128, "DICM", 4) != 0) return false;
    h.at = 132;
    return true;
}

struct Meta {
    char syntax[65] = "";
    char sopClass[129] = "";
    char sopInstance[129] = "";
    bool hasInstance = false;
};

// The file-meta group (always explicit VR), the reader left at the data set.
// False when it ends early or holds an element longer than
// Limits::META_ELEMENT_MOST; the values seen until then are kept.
bool readMeta(Head& h, Meta& m) {
    uint32_t g, e, len;
    for (;;) {
        size_t start = h.at;
        if (!element(h, true, g, e, len)) return false;
        if (g != 2) {
            h.at = start;
            return true;
        }
        if (len > Limits::META_ELEMENT_MOST || h.at + len > h.bytes.size()) return false;
        if (e == 0x10) takeValue(h, len, m.syntax);
        if (e == 0x02) takeValue(h, len, m.sopClass);
        if (e == 0x03) {
            takeValue(h, len, m.sopInstance);
            m.hasInstance = true;
        }
        h.skip(len);
    }
}

}  // namespace

char* getSopInstance(const char* path, char* out, int outSize) {
    Head h;
    Meta m;
    if (!out || outSize < 1 || !loadHead(path, Limits::META_HEAD_MOST, h)) return nullptr;
    readMeta(h, m);
    if (!m.hasInstance) return nullptr;
    size_t n = strnlen(m.sopInstance, static_cast<size_t>(outSize) - 1);
    memcpy(out, m.sopInstance, n);
    out[n] = '\0';
    return out;
}

bool getStudyKeys(const char* path, StudyKeys* keys) {
    if (!keys) return false;
    keys->patientId[0] = keys->accession[0] = keys->studyUid[0] = '\0';
    keys->sopClass[0] = keys->sopInstance[0] = '\0';
    Head h;
    Meta m;
    if (!loadHead(path, Limits::STUDY_KEYS_HEAD_MOST, h)) return false;
    bool whole = readMeta(h, m);
    memcpy(keys->sopClass, m.sopClass, sizeof keys->sopClass);
    memcpy(keys->sopInstance, m.sopInstance, sizeof keys->sopInstance);
    if (!whole) return false;
    const char* syntax = m.syntax;
    if (strcmp(syntax, "1.2.840.10008.1.2.2") == 0 || strcmp(syntax, "1.2.840.10008.1.2.1.99") == 0)
        return false;  // big endian and deflated data sets are left to dumps
    bool explicitVr = strcmp(syntax, "1.2.840.10008.1.2") != 0;
    uint32_t g, e, len;
    bool unknown;
    while (element(h, explicitVr, g, e, len, &unknown)) {
        if (g > 0x0020 || (g == 0x0020 && e > 0x000D)) return true;
        if (len == UNDEFINED) {
            if (!skipUndefined(h, explicitVr && !unknown, 0)) return false;
            continue;
        }
        if (h.at + len > h.bytes.size()) return false;
        if (g == 0x0010 && e == 0x0020) takeValue(h, len, keys->patientId);
        if (g == 0x0008 && e == 0x0050) takeValue(h, len, keys->accession);
        if (g == 0x0020 && e == 0x000D) {
            takeValue(h, len, keys->studyUid);
            return true;
        }
        h.skip(len);
    }
    return false;
}
