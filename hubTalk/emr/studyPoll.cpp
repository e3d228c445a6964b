#include "studyPoll.h"

#include <strings.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <vector>

#include "buildConfig.h"
#include "files.h"
#include "hl7Input.h"
#include "hl7Writers.h"
#include "jsn.h"
#include "memory.h"
#include "random.h"
#include "sendFile.h"
#include "serviceLog.h"
#include "settings.h"
#include "stateFiles.h"
#include "text.h"

namespace {

const unsigned LINK_FILE_PAUSE_S = 120;
const unsigned PAUSE_S = 240;
const long LINK_FILE_LOOK_BACK_S = 432000;
const long LOOK_BACK_S = 604800;

// Key look-ups inside one object of a parsed reply. The tokens of an object
// follow it in order, so each look-up stays within the object's own tokens
// (the parser's own look-ups scan the whole document, which a reply of
// thousands of studies cannot afford).
class Fields {
public:
    Fields(JsnParser& p, int object) : m_p(p), m_object(object), m_end(object + 1) {
        if (object < 0) return;
        int stop = p.token(object).end;
        while (m_end < p.tokenCount() && (stop < 0 || p.token(m_end).start < stop)) ++m_end;
    }
    // The value token of the key (its last occurrence), or -1.
    int value(const char* key) const {
        if (m_object < 0) return -1;
        size_t n = strlen(key);
        int found = -1;
        for (int i = m_object + 1; i + 1 < m_end; ++i) {
            const JsnToken& t = m_p.token(i);
            if (t.parent == m_object && t.type == JSN_STRING && t.size == 1 &&
                static_cast<size_t>(t.end - t.start) == n && memcmp(m_p.text + t.start, key, n) == 0)
                found = i + 1;
        }
        return found;
    }
    // Text of a string or number value; "" for null, missing keys and containers.
    std::string text(const char* key) const {
        int v = value(key);
        if (v < 0) return "";
        const JsnToken& t = m_p.token(v);
        if ((t.type != JSN_STRING && t.type != JSN_PRIMITIVE) || t.end < t.start) return "";
        std::string s(m_p.text + t.start, static_cast<size_t>(t.end - t.start));
        return t.type == JSN_PRIMITIVE && s == "null" ? "" : s;
    }
    int object(const char* key) const {
        int v = value(key);
        return v >= 0 && m_p.token(v).type == JSN_OBJECT ? v : -1;
    }

private:
    JsnParser& m_p;
    int m_object;
    int m_end;
};

// "%.4s%.2s%.2s..." of the pieces at the given offsets, or the text unchanged
// when it is shorter than `least`.
std::string joined(const std::string& text, size_t least, const std::vector<size_t>& at, const char* between) {
    if (text.size() < least) return text;
    std::string out;
    for (size_t i = 0; i < at.size(); ++i) {
        if (i) out += between;
        size_t width = i == 0 ? 4 : 2;
        if (at[i] < text.size()) out += text.substr(at[i], width);
    }
    return out;
}

std::string controlId() {
    unsigned char r[4];
    getRandomNumber(r, sizeof r);
    uint32_t random = static_cast<uint32_t>(r[0]) | static_cast<uint32_t>(r[1]) << 8 |
                      static_cast<uint32_t>(r[2]) << 16 | static_cast<uint32_t>(r[3]) << 24;
    char id[32];
    snprintf(id, sizeof id, "%u%u", static_cast<unsigned>(time(nullptr)), random);
    return id;
}

void note(const char* format, ...) __attribute__((format(printf, 1, 2)));
void note(const char* format, ...) {
    if (!VERBOSE) return;
    va_list args;
    va_start(args, format);
    vfprintf(stderr, format, args);
    va_end(args);
}

// The record of one study; false (with the verbose reason) when it is skipped.
// s.uploaded is already set.
bool recordOf(JsnParser& p, const Fields& f, bool stringIds, StudyRecord& s) {
    std::string when = f.text("study_datetime");
    s.dateTime = joined(when, 17, {0, 5, 8, 11, 14, 17}, "");
    s.dateTimeDashed = joined(when, 17, {0, 5, 8, 11, 14, 17}, "-");
    s.birthDate = joined(f.text("patient_dob"), 8, {0, 5, 8}, "");
    s.description = f.text("description");
    s.patientId = f.text("patient_id");
    std::string id = f.text("id");
    s.studyId = stringIds || id.empty() ? id : std::to_string(strtoll(id.c_str(), nullptr, 10));
    s.accession = f.text("accession_number");
    std::string permalink = Fields(p, f.object("links")).text("permalink_pdf");
    if (permalink.empty()) {
        note("permalink_pdf is NULL\n");
        return false;
    }
    size_t at = permalink.find("/permalinks/");
    if (at == std::string::npos) {
        note("permalink_pdf has no /permalinks/ in the URL\n");
        return false;
    }
    s.reportLink = HUBTALK_WEB_ORIGIN + permalink.substr(at);
    std::string uid = permalink.size() > at + 20 ? permalink.substr(at + 20) : "";
    s.studyUid = uid.size() > 4 ? uid.substr(0, uid.size() - 4) : "";
    Fields patient(p, f.object("patient"));
    s.firstName = patient.text("first_name");
    s.lastName = patient.text("last_name");
    s.middleName = patient.text("middle_name");
    s.sex = patient.text("patient_sex");
    if (s.lastName.empty()) {
        note("Patient last_name is NULL\n");
        return false;
    }
    s.patientName = s.lastName;
    if (!s.firstName.empty()) s.patientName += "^" + s.firstName;
    if (!s.middleName.empty()) s.patientName += "^" + s.middleName;
    Fields doctor(p, f.object("referring_physician"));
    std::string composite = doctor.text("composite");
    if (!composite.empty()) {
        parsePhysicianComposite(composite, s);
    } else {
        s.physician.clear();
        s.physicianFromComposite = false;
        s.physicianLast = doctor.text("last_name");
        s.physicianFirst = doctor.text("first_name");
        s.physicianMiddle = doctor.text("middle_name");
    }
    s.controlId = controlId();
    return true;
}

}  // namespace

void parsePhysicianComposite(const std::string& composite, StudyRecord& s) {
    s.physicianFromComposite = true;
    s.physician = strncasecmp(composite.c_str(), "DR.", 3) == 0 ? composite.substr(3) : composite;
    std::string plain;
    for (char c : s.physician)
        if (c != '.' && c != ',') plain += c;
    std::vector<std::string> pieces;
    for (size_t from = 0;;) {
        size_t caret = plain.find('^', from);
        pieces.push_back(trimmed(plain.substr(from, caret == std::string::npos ? caret : caret - from)));
        if (caret == std::string::npos) break;
        from = caret + 1;
    }
    size_t last = pieces.size() - 1;
    for (size_t i = 0; i + 1 < pieces.size(); ++i)
        if (!pieces[i].empty() && strcasecmp(pieces[i].c_str(), "DR") != 0) {
            last = i;
            break;
        }
    std::string first, suffix;
    size_t after = pieces.size() - last - 1;
    if (after >= 2) {
        first = pieces[last + 1];
        suffix = pieces[last + 2];
    } else if (after == 1) {
        suffix = pieces[last + 1];
    }
    s.physicianLast = pieces[last];
    bool title = !strcasecmp(suffix.c_str(), "MD") || !strcasecmp(suffix.c_str(), "NP") || !strcasecmp(suffix.c_str(), "FNP");
    s.physicianFirst = title ? first : suffix;
    s.physicianMiddle = title ? "" : first;
    if (s.physicianFirst.empty()) std::swap(s.physicianFirst, s.physicianMiddle);
}

bool forEachNewStudy(double since, const char* reply, const std::function<void(const StudyRecord&)>& handle,
                     const std::function<bool()>& settle) {
    std::string text = reply ? reply : "";
    JsnParser p(&text[0], static_cast<int>(text.size()));
    if (p.failed || p.tokenCount() == 0) {
        if (!QUIET || VERBOSE) fprintf(stderr, "Json received from getStudiesSince does not parse:  %s\n", text.c_str());
        return false;
    }
    const char* name = "Studies";
    int count = p.getArrayNum(0, name, 0);
    if (count == 0) {
        name = "studies";
        count = p.getArrayNum(0, name, 0);
    }
    note("getStudiesSince returned %d results\n", count);
    int array = Fields(p, 0).value(name);
    if (array < 0 || p.token(array).type != JSN_ARRAY) return true;
    double newest = since;
    bool first = true;
    for (int e = array + 1; e < p.tokenCount(); ++e) {
        const JsnToken& t = p.token(e);
        if (p.token(array).end >= 0 && t.start >= p.token(array).end) break;
        if (t.parent != array) continue;
        bool wasFirst = first;
        first = false;
        if (t.type != JSN_OBJECT) continue;
        Fields fields(p, e);
        StudyRecord study;
        study.uploaded = atof(fields.text("uploaded_timestamp").c_str());
        if (wasFirst && study.uploaded == 0) {
            note("uploaded_timestamp == NULL\n");
            continue;
        }
        if (study.uploaded <= since) {
            note("%f (timestamp) < %f (TimeSince)\n", study.uploaded, since);
            continue;
        }
        if (!recordOf(p, fields, strcmp(name, "Studies") == 0, study)) continue;
        handle(study);
        if (study.uploaded > newest) newest = study.uploaded;
    }
    if (newest > since && (!settle || settle())) {
        char stamp[64];
        snprintf(stamp, sizeof stamp, "%.3f", newest);
        writeTxt(dataDir, StateFile::TIME_SINCE, stamp);
    }
    return true;
}

void doHl7Output(int kind, double since, const char* reply) {
    auto write = [kind](const StudyRecord& s) { writeStudy(kind, s); };
    auto settle = [] {
        bool ok = syncFileSystemOf(HL7_dir) && (!HL7_cache[0] || syncFileSystemOf(HL7_cache));
        if (!ok) logToServiceLater(std::string("EMR Sundel:  files of this pass not brought to disk; written again next pass"));
        return ok;
    };
    if (!forEachNewStudy(since, reply, write, settle)) return;
    gcDir(kind == EMR_HL7FILE ? HL7_dir : HL7_cache);
}

int emr_loop_proc() {
    int kind = EMR_INTF;
    if (HL7_dir[0]) {
        std::string sinceText = readTrimmed(dataDir, StateFile::TIME_SINCE);
        double since;
        if (!sinceText.empty()) {
            since = atof(sinceText.c_str());
        } else {
            long from = static_cast<long>(time(nullptr)) - (kind == EMR_HL7FILE ? LINK_FILE_LOOK_BACK_S : LOOK_BACK_S);
            since = static_cast<double>(from);
            sinceText = std::to_string(from) + ".000";
        }
        Memory arena;
        const char* reply = SendFile::getStudiesSince(dataDir, sinceText.c_str(), VERBOSE, QUIET, &arena);
        if (reply && *reply) doHl7Output(kind, since, reply);
    }
    // The pass's log lines go out before the next pass adds more.
    flushServiceLog(Limits::SERVICE_LOG_DRAIN_S);
    if (HL7_inputDir[0]) doHl7Input(kind);
    return 0;
}

void* emr_proc(void*) {
    for (;;) {
        emr_loop_proc();
        sleep(EMR_INTF == EMR_HL7FILE ? LINK_FILE_PAUSE_S : PAUSE_S);
    }
    return nullptr;
}
