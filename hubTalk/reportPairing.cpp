#include "reportPairing.h"

#include <dirent.h>

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

#include "bounds.h"
#include "dicom.h"
#include "files.h"
#include "settings.h"

namespace {

bool startsWith(const std::string& s, const char* prefix) {
    return s.compare(0, strlen(prefix), prefix) == 0;
}

std::string keyOf(const std::string& rest) { return rest.substr(0, rest.find_first_of("_.")); }

// The name without its prefix and extension, and the extension (no dot).
bool split(const std::string& name, std::string& rest, std::string& ext) {
    size_t prefix = startsWith(name, REPORT_PREFIX)      ? strlen(REPORT_PREFIX)
                    : startsWith(name, CONVERTED_PREFIX) ? strlen(CONVERTED_PREFIX)
                                                         : 0;
    if (!prefix) return false;
    size_t dot = name.rfind('.');
    if (dot == std::string::npos || dot < prefix) dot = name.size();
    rest = name.substr(prefix, dot - prefix);
    ext = dot < name.size() ? name.substr(dot + 1) : "";
    return true;
}

}  // namespace

std::string reportUploadName(const std::string& name, const std::string& study) {
    std::string rest, ext;
    if (!split(name, rest, ext)) return "";
    if (startsWith(name, REPORT_PREFIX)) return study + "_" + rest + "_Voluson.pdf";
    return study + "_" + rest + "_SundelConv." + ext;
}

namespace {

std::mutex indexLock;
std::string lastRemembered;  // with its data directory

std::string field(const char* value) {
    std::string s = value;
    for (char& c : s)
        if (c == '\t' || c == '\n' || c == '\r') c = ' ';
    return s;
}

bool matches(const std::string& key, const StudyKeys& k) {
    return key.empty() || key == k.patientId || key == k.accession;
}

// The study of the last line of an index that names key.
std::string fromIndex(const char* name, const std::string& key) {
    char* text = readTxt(dataDir, name, static_cast<size_t>(Limits::STUDY_INDEX_BYTES_MOST) * 2);
    std::string found;
    for (char* line = text; line && *line;) {
        char* next = strchr(line, '\n');
        if (next) *next++ = '\0';
        char* tab1 = strchr(line, '\t');
        char* tab2 = tab1 ? strchr(tab1 + 1, '\t') : nullptr;
        if (tab2) {
            *tab1 = *tab2 = '\0';
            if (key == line || key == tab1 + 1) found = tab2 + 1;
        }
        line = next;
    }
    if (text != EMPTY_TEXT) free(text);
    return found;
}

}  // namespace

void rememberStudy(const StudyKeys& keys) {
    if (!keys.studyUid[0] || (!keys.patientId[0] && !keys.accession[0])) return;
    std::string line = field(keys.patientId) + "\t" + field(keys.accession) + "\t" + field(keys.studyUid) + "\n";
    std::lock_guard<std::mutex> hold(indexLock);
    if (dataDir + line == lastRemembered) return;
    if (getFileSize(dataDir, StateFile::STUDY_INDEX) > Limits::STUDY_INDEX_BYTES_MOST)
        mvFile(dataDir, StateFile::STUDY_INDEX, dataDir, StateFile::STUDY_INDEX_OLD);
    if (appendLogNoSync(dataDir, StateFile::STUDY_INDEX, line.data(), line.size())) lastRemembered = dataDir + line;
}

std::string reportStudy(const std::string& dir, const std::string& name) {
    std::string rest, ext;
    if (!split(name, rest, ext)) return "";
    std::string key = keyOf(rest);
    DIR* d = opendir(dir.c_str());
    if (!d) return "";
    std::string study;
    int read = 0;
    while (struct dirent* e = readdir(d)) {
        if (read >= Limits::REPORT_PAIRING_FILES_MOST) break;
        std::string path = dir + "/" + e->d_name;
        StudyKeys keys;
        if (!isDicom(path.c_str(), "")) continue;
        ++read;
        if (getStudyKeys(path.c_str(), &keys) && keys.studyUid[0] && matches(key, keys)) {
            study = keys.studyUid;
            break;
        }
    }
    closedir(d);
    if (!study.empty() || key.empty()) return study;
    std::lock_guard<std::mutex> hold(indexLock);
    study = fromIndex(StateFile::STUDY_INDEX, key);
    return study.empty() ? fromIndex(StateFile::STUDY_INDEX_OLD, key) : study;
}
