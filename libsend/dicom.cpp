#include "dicom.h"

#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

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

char* getSopInstance(const char* path, char* out, int outSize) {
    FILE* f = openRegularFile(path);
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
