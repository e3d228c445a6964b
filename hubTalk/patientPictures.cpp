#include "patientPictures.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <string>
#include <vector>

#include "bounds.h"
#include "exportUpload.h"
#include "files.h"
#include "keyValues.h"
#include "memory.h"
#include "random.h"
#include "settings.h"
#include "sharingRequest.h"
#include "text.h"

namespace {

std::string valueOf(const KeyValues<char>& table, const char* key) {
    const char* v = table.get(key);
    std::string s = v ? v : "";
    s = s.substr(0, Limits::PATIENT_VALUE_MOST);
    std::vector<char> buf(s.begin(), s.end());
    buf.push_back('\0');
    Memory mem;
    return Util::sanitize(trim(Util::makeWellFormed(buf.data())), &mem);
}

bool loadTable(const std::string& path, KeyValues<char>& table, Memory* mem, char separator) {
    int fd = openRegular(path.c_str());
    FILE* f = fd < 0 ? nullptr : fdopen(fd, "r");
    if (!f) {
        if (fd >= 0) close(fd);
        return false;
    }
    table.load(f, mem, separator);
    fclose(f);
    return true;
}

std::string dateOf(time_t t) {
    struct tm tm;
    localtime_r(&t, &tm);
    char buf[32];
    snprintf(buf, sizeof buf, "%s-%02d-%02d", std::to_string(tm.tm_year + 1900).c_str(),
             tm.tm_mon + 1, tm.tm_mday);
    return buf;
}

// PINFO.JSON's text from the patient file; "" when the file is unreadable.
std::string patientJson(const std::string& dir) {
    std::string path = dir + "/" + PATIENT_FILE;
    Memory mem;
    KeyValues<char> table;
    if (!loadTable(path, table, &mem, '=')) return "";
    if (table.count() == 0) loadTable(path, table, &mem, ':');
    std::string id = valueOf(table, "patientid");
    if (id.empty()) id = valueOf(table, "ID");
    const std::pair<const char*, std::string> lines[] = {
        {"acquisition_date", dateOf(getFileModTime(path.c_str(), ""))},
        {"study_instance_uid", genSopInstanceId()},
        {"patient_id", id},
        {"patient_name", valueOf(table, "lastname")},
        {"patient_dob", birthDate(valueOf(table, "born"))},
        {"other_names", valueOf(table, "firstname")},
        {"performing_physician", valueOf(table, "surgeon")},
        {"study_description", valueOf(table, "procedure")},
    };
    std::string json = "{\n";
    for (size_t i = 0; i < sizeof lines / sizeof lines[0]; ++i)
        json += std::string("\"") + lines[i].first + "\": \"" + lines[i].second +
                (i + 1 < sizeof lines / sizeof lines[0] ? "\",\n" : "\"\n");
    return json + "}\n";
}

std::vector<std::string> picturesIn(const std::string& dir) {
    std::vector<std::string> names;
    DIR* d = opendir(dir.c_str());
    if (!d) return names;
    while (struct dirent* e = readdir(d))
        if (isPicture(e->d_name)) names.push_back(e->d_name);
    closedir(d);
    return names;
}

bool markDone(const std::string& dir, const std::string& name) {
    return writeTxt(dir.c_str(), (name + DONE_SUFFIX).c_str(), "done");
}

}  // namespace

bool isPicture(const char* name) {
    size_t n = strlen(name);
    return n >= 5 && endsWithNoCase(name, ".jpg");
}

std::string birthDate(const std::string& born) {
    // Each form: its pattern and where year, month and day land.
    struct Form {
        const char* pattern;
        int y, m, d;
    } forms[] = {{"%4d%2d%2d%c", 0, 1, 2}, {"%4d-%d-%d%c", 0, 1, 2}, {"%4d/%d/%d%c", 0, 1, 2},
                 {"%d.%d.%4d%c", 2, 1, 0}, {"%d/%d/%4d%c", 2, 0, 1}};
    for (const Form& f : forms) {
        int v[3] = {0, 0, 0};
        char tail;
        if (born.find_first_not_of("0123456789") == std::string::npos && born.size() != 8) break;
        if (sscanf(born.c_str(), f.pattern, &v[0], &v[1], &v[2], &tail) != 3) continue;
        int y = v[f.y], m = v[f.m], d = v[f.d];
        if (y < 1000 || m < 1 || m > 12 || d < 1 || d > 31) continue;
        char out[32];
        snprintf(out, sizeof out, "%s-%02d-%02d", std::to_string(y).c_str(), m, d);
        return out;
    }
    return born;
}

void handlePatientPictures(const std::string& dir) {
    std::string kst = dir + "/" + PATIENT_FILE;
    if (fileExists((kst + DONE_SUFFIX).c_str(), "")) return;
    FileStamp kstSeen = stampOf(kst);
    std::string patient = readText(dir.c_str(), PATIENT_JSON, Limits::STATE_TEXT_MOST);
    if (patient.empty()) {
        patient = patientJson(dir);
        if (patient.empty()) return;
        if (!writeTxt(dir.c_str(), PATIENT_JSON, patient.c_str())) {
            fprintf(stderr, "Could not write %s/%s; its pictures wait\n", dir.c_str(), PATIENT_JSON);
            return;
        }
    }

    bool allDelivered = true;
    time_t now = time(nullptr);
    for (const std::string& name : picturesIn(dir)) {
        std::string path = dir + "/" + name;
        if (fileExists((path + DONE_SUFFIX).c_str(), "")) continue;
        FileStamp seen = stampOf(path);
        // Still being written, or not a picture file at all: next pass.
        if (!seen.regular || seen.size == 0 || seen.mtime.tv_sec >= now) {
            allDelivered = false;
            continue;
        }
        std::string uid = genSopInstanceId();
        std::string text = informationText(uid, ".jpg", patient);
        UploadResult r = uploadExported(path, seen, text.c_str(), (uid + ".jpg").c_str(), false, "");
        if (r == UploadResult::UNDELETABLE) markDone(dir, name);
        else if (r != UploadResult::REMOVED) allDelivered = false;
    }
    if (!allDelivered) return;
    if (!removeUnchanged(kst, kstSeen)) {
        if (sameStamp(stampOf(kst), kstSeen)) markDone(dir, PATIENT_FILE);
        return;
    }
    rmFile(dir.c_str(), PATIENT_JSON);
}
