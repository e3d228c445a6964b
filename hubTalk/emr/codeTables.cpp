#include "codeTables.h"

#include <unistd.h>

#include <cctype>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "bounds.h"
#include "files.h"
#include "serviceLog.h"
#include "settings.h"
#include "text.h"

namespace {

using Table = std::map<std::string, std::string>;

Table codeList;
time_t codeListTimeStamp = 0;
bool codeListLoaded = false;
std::string codeListPath;
Table testList;
time_t testListTimeStamp = 0;
std::string testListPath;

bool isSpace(char c) { return isspace(static_cast<unsigned char>(c)) != 0; }

std::string lower(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string withoutBlanks(std::string s) {
    std::string out;
    for (char c : s)
        if (c != ' ') out += c;
    return out;
}

// One line without its end; a longer line than the limit is cut there and
// the rest skipped, so a file of binary data costs no more than text. Zero
// bytes read as blanks. False at the end of the file.
bool readLine(FILE* f, std::string& line) {
    line.clear();
    int c;
    bool any = false;
    while ((c = getc(f)) != EOF) {
        any = true;
        if (c == '\n') return true;
        if (line.size() < Limits::CODE_LINE_MOST) line += c ? static_cast<char>(c) : ' ';
    }
    return any;
}

FILE* openText(const char* path) {
    int fd = path && *path ? openRegular(path) : -1;
    if (fd < 0) return nullptr;
    FILE* f = fdopen(fd, "r");
    if (!f) close(fd);
    return f;
}

// Each pair of double quotes, and the commas between them, become blanks.
void neutraliseQuotes(std::string& line) {
    for (size_t open = line.find('"'); open != std::string::npos; open = line.find('"', open + 1)) {
        size_t close = line.find('"', open + 1);
        if (close == std::string::npos) return;
        for (size_t i = open; i <= close; ++i)
            if (line[i] == '"' || line[i] == ',') line[i] = ' ';
        open = close;
    }
}

std::vector<std::string> splitAt(const std::string& s, char separator) {
    std::vector<std::string> pieces;
    if (s.empty()) return pieces;
    size_t start = 0;
    for (size_t at; (at = s.find(separator, start)) != std::string::npos; start = at + 1)
        pieces.push_back(s.substr(start, at - start));
    pieces.push_back(s.substr(start));
    return pieces;
}

std::string column(const std::vector<std::string>& fields, int i) {
    return i >= 0 && static_cast<size_t>(i) < fields.size() ? fields[i] : "";
}

std::string numbered(const std::string& key, int n) { return key + "-" + std::to_string(n); }

// A table read from another file than the one named now is stale as well.
bool stale(time_t loaded, const std::string& loadedPath, const char* path) {
    return loadedPath != path || time(nullptr) - loaded >= Limits::CODE_RELOAD_AGE_S ||
           getFileModTime(path, "") > loaded;
}

void report(const char* format, const char* path) {
    char message[512];
    snprintf(message, sizeof message, format, path);
    logToService(message);
}

// The name text and code of a stored value "name|code"; false unless it has
// exactly those two parts.
bool parts(const std::string& value, std::string& name, std::string& code) {
    size_t bar = value.find('|');
    if (bar == std::string::npos || value.find('|', bar + 1) != std::string::npos) return false;
    name = value.substr(0, bar);
    code = value.substr(bar + 1);
    return true;
}

}  // namespace

int loadCodes(const char* path, int fields, int codeColumn, int keyColumn, int firstNameColumn,
              int secondNameColumn, int nameColumn, char separator) {
    FILE* f = openText(path);
    if (!f) {
        fprintf(stderr, "CodeFile (%s) cannot be found\n", path ? path : "");
        return -1;
    }
    Table table;
    // Where the numbering of each repeated key goes on: every lower number is taken.
    std::map<std::string, int> nextNumber;
    bool tabs = false, first = true;
    std::string line;
    while (readLine(f, line)) {
        if (line.find('\t') != std::string::npos) tabs = true;
        char sep = tabs ? '\t' : separator;
        if (sep == ',') neutraliseQuotes(line);
        std::vector<std::string> cols = splitAt(trimmed(line), sep);
        if (first && cols.size() != static_cast<size_t>(fields)) {
            fclose(f);
            return -2;
        }
        first = false;
        if (cols.empty()) break;
        if (cols.size() != static_cast<size_t>(fields)) continue;

        std::string key = lower(trimmed(column(cols, keyColumn)));
        std::string name;
        if (nameColumn >= 0) {
            name = lower(trimmed(column(cols, nameColumn)));
        } else if (firstNameColumn >= 0) {
            char joined[128];
            if (secondNameColumn >= 0)
                snprintf(joined, sizeof joined, "%.60s %.50s", column(cols, firstNameColumn).c_str(),
                         column(cols, secondNameColumn).c_str());
            else
                snprintf(joined, sizeof joined, "%.60s", column(cols, firstNameColumn).c_str());
            name = trimmed(lower(joined));
        } else {
            name = key;
        }
        std::string value = name + "|" + trimmed(column(cols, codeColumn));
        if (table.count(key)) {
            int& n = nextNumber[key];
            if (n == 0) n = 1;
            while (table.count(numbered(key, n))) ++n;
            key = numbered(key, n++);
        }
        table.emplace(key, value);
    }
    fclose(f);
    codeList.swap(table);
    codeListTimeStamp = time(nullptr);
    codeListLoaded = true;
    codeListPath = path;
    return 0;
}

int loadTests(const char* path) {
    FILE* f = openText(path);
    if (!f) {
        fprintf(stderr, "TestCodeFile (%s) cannot be found\n", path ? path : "");
        return -1;
    }
    Table table;
    bool first = true;
    std::string line;
    while (readLine(f, line)) {
        std::string text;
        for (char c : line)
            if (c != '"') text += c;
        text = trimmed(text);
        size_t caret = text.find('^');
        if (first && caret == std::string::npos) {
            fclose(f);
            return -2;
        }
        first = false;
        if (text.empty()) break;
        if (caret == std::string::npos) continue;
        table[withoutBlanks(trimmed(lower(text.substr(caret + 1))))] = trimmed(text.substr(0, caret));
    }
    fclose(f);
    testList.swap(table);
    testListTimeStamp = time(nullptr);
    testListPath = path;
    return 0;
}

std::string getTestCode(const char* description) {
    if (!description || !*description) return "";
    std::string key = withoutBlanks(trimmed(lower(description)));
    for (const auto& escape : {std::make_pair("\\u003c", "<"), std::make_pair("\\u003e", ">")})
        for (size_t at; (at = key.find(escape.first)) != std::string::npos;)
            key.replace(at, strlen(escape.first), escape.second);
    auto it = testList.find(key);
    return it == testList.end() ? "" : it->second;
}

std::string getShortCode(const char* first, const char* middle, const char* last,
                         std::string* matchedName) {
    if (!codeListLoaded) return "";
    std::string lastName = lower(trimmed(last ? last : ""));
    std::string firstName = lower(trimmed(first ? first : ""));
    std::string middleName = lower(trimmed(middle ? middle : ""));
    std::string firstMiddle = lower(trimmed(firstName + " " + middleName));

    std::string key = lastName;
    if (!codeList.count(key)) {
        size_t cut = 0;
        while (cut < key.size() && !isSpace(key[cut]) && !ispunct(static_cast<unsigned char>(key[cut])))
            ++cut;
        if (cut == 0 || cut == key.size()) return "";
        key.resize(cut);
        if (!codeList.count(key)) return "";
    }
    // The record and its numbered repeats, in order.
    std::vector<const std::string*> records;
    for (int n = 0;; ++n) {
        auto it = codeList.find(n ? numbered(key, n) : key);
        if (it == codeList.end()) break;
        records.push_back(&it->second);
    }
    // A record naming first and middle name is the better match; otherwise
    // the first name alone (the middle name when there is no first name)
    // decides. Every word of a name text is part of it, so this also finds
    // a first name that is one of its words.
    std::vector<std::string> probes;
    if (!firstName.empty() && !middleName.empty()) probes.push_back(firstMiddle);
    probes.push_back(firstName.empty() ? middleName : firstName);
    for (const std::string& probe : probes) {
        for (const std::string* value : records) {
            std::string name, code;
            if (!parts(*value, name, code) || name.find(probe) == std::string::npos) continue;
            if (matchedName) *matchedName = name;
            return code;
        }
    }
    return "";
}

void refreshShortCodes(bool eclinicalLayouts) {
    const char* path = ShortCodeFile;
    if (!*path || !stale(codeListTimeStamp, codeListPath, path)) return;
    int rc;
    if (!eclinicalLayouts) {
        rc = loadCodes(path, 3, 2, 0, 1, -1, -1, ',');
    } else {
        rc = loadCodes(path, 5, 3, 4, -1, -1, 2, ',');
        if (rc == -2) rc = loadCodes(path, 3, 2, 0, 1, -1, -1, ',');
        if (rc == -2) {
            rc = loadCodes(path, 7, 5, 1, -1, -1, 3, ',');
            if (rc == -2) return report("shortCode File has wrong number of fields:  %s", path);
        }
    }
    if (rc == -1) report("Missing shortCode File here:  %s", path);
    if (rc == -2) report("ShortCode File has wrong number of fields:  %s", path);
}

void refreshTestCodes() {
    const char* path = TestCodeFile;
    if (!*path || !stale(testListTimeStamp, testListPath, path)) return;
    int rc = loadTests(path);
    if (rc == -1) report("Missing testCode File here:  %s", path);
    if (rc == -2) report("testCode File has wrong number of fields:  %s", path);
}
