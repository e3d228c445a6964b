#include "linkFiles.h"

#include "files.h"
#include "hl7Writers.h"
#include "memory.h"
#include "settings.h"
#include "text.h"

namespace {

bool listsUid(const std::string& list, const std::string& uid) {
    size_t start = 0;
    for (;;) {
        size_t bar = list.find('|', start);
        if (list.compare(start, bar == std::string::npos ? std::string::npos : bar - start, uid) == 0) return true;
        if (bar == std::string::npos) return false;
        start = bar + 1;
    }
}

}  // namespace

std::string studyInfoDocument(const StudyRecord& s, bool longForm) {
    Memory memory;
    auto pair = [&memory](const char* key, const std::string& value) {
        return std::string("\"") + key + "\": \"" + Util::sanitize(value.c_str(), &memory) + "\"";
    };
    const std::string& compact = s.dateTime;
    std::string doc = " { \n";
    doc += pair("acquisition_date", s.dateTimeDashed) + ", \n";
    doc += pair("study_date", compact.substr(0, 8)) + ", \n";
    doc += pair("study_time", compact.size() > 8 ? compact.substr(8, 6) : "") + ", \n";
    doc += pair("patient_name", s.patientName) + ", \n";
    doc += pair("patient_id", s.patientId) + ", \n";
    doc += pair("patient_dob", s.birthDate) + ", \n";
    doc += pair("referring_physician", s.physician) + ", \n";
    doc += pair("study_instance_uid", s.studyUid) + ", \n";
    doc += pair("accession_number", s.accession.empty() ? "DEF" : s.accession);
    if (longForm) {
        doc += ",\n " + pair("sop_instance_uid", "ADD_SOP_HERE") + ", \n";
        doc += pair("share", "true");
    }
    return doc + " \n }";
}

void writeLinkFiles(const StudyRecord& s) {
    std::string patient = safeFileName(s.patientId);
    std::string uid = s.studyUid;
    std::string listName = patient + ".txt";
    if (!nonZeroFile(HL7_dir, listName.c_str())) {
        writeTxtUnsynced(HL7_dir, listName.c_str(), uid.c_str());
    } else {
        std::string list = trimmed(readText(HL7_dir, listName.c_str()));
        if (!listsUid(list, uid)) writeTxtUnsynced(HL7_dir, listName.c_str(), (list + "|" + uid).c_str());
    }
    writeTxtUnsynced(HL7_dir, safeFileName(uid).c_str(), s.reportLink.c_str());
    if (!*HL7_inputDir) {
        writeTxtUnsynced(HL7_dir, (patient + ".info").c_str(), studyInfoDocument(s, false).c_str());
        return;
    }
    std::string base = safeFileName(s.patientId + "-" + (s.accession.empty() ? "DEF" : s.accession));
    writeTxtUnsynced(HL7_dir, (base + ".txt").c_str(), studyInfoDocument(s, true).c_str());
    writeTxtUnsynced(HL7_dir, (base + "-1.txt").c_str(), uid.c_str());
}
