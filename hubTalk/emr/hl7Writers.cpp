#include "hl7Writers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <ctime>

#include "bounds.h"
#include "codeTables.h"
#include "companion.h"
#include "files.h"
#include "ledger.h"
#include "linkFiles.h"
#include "ostiDrop.h"
#include "process.h"
#include "serviceLog.h"
#include "settings.h"
#include "text.h"
#include "stateFiles.h"
#include "util.h"

namespace {

const char* const STANDARD_ENCODING = "^~\\&";
const char* const SEVOCITY_ENCODING = "^~\\$";
const char* const ECLINICAL_ENCODING = "^~$";
const char* const DEFAULT_PROVIDER = "1234567893^Provider^Default";

std::string accessionOf(const StudyRecord& s) { return s.accession.empty() ? "DEF" : s.accession; }

// A value whose "^" are meant as component separators (a name as
// last^first^middle): each component is escaped on its own.
std::string hl7Components(const std::string& value, const std::string& encoding) {
    std::string out;
    size_t start = 0;
    for (;;) {
        size_t hat = value.find('^', start);
        out += hl7Value(value.substr(start, hat == std::string::npos ? std::string::npos : hat - start), encoding);
        if (hat == std::string::npos) return out;
        out += '^';
        start = hat + 1;
    }
}

// last[^first][^middle], each part escaped on its own.
std::string patientNameOf(const StudyRecord& s, const std::string& encoding) {
    if (s.lastName.empty()) return hl7Components(s.patientName, encoding);
    std::string name = hl7Value(s.lastName, encoding);
    if (!s.firstName.empty()) name += "^" + hl7Value(s.firstName, encoding);
    if (!s.middleName.empty()) name += "^" + hl7Value(s.middleName, encoding);
    return name;
}

std::string joinName(const std::string& last, const std::string& first, const std::string& middle,
                     const std::string& encoding) {
    return hl7Value(last, encoding) + "^" + hl7Value(first, encoding) + "^" + hl7Value(middle, encoding);
}

std::string format(const char* pattern, std::initializer_list<std::string> values) {
    std::string out;
    auto v = values.begin();
    for (const char* p = pattern; *p; ++p) {
        if (p[0] == '%' && p[1] == 's') {
            if (v != values.end()) out += *v++;
            ++p;
        } else {
            out += *p;
        }
    }
    return out;
}

// The referring provider's short code; the lookup is tried again with first
// and last name exchanged, as sites list them either way round.
std::string shortCodeOf(const StudyRecord& s, bool eclinicalLayouts) {
    refreshShortCodes(eclinicalLayouts);
    std::string code = getShortCode(s.physicianFirst.c_str(), s.physicianMiddle.c_str(), s.physicianLast.c_str());
    if (code.empty())
        code = getShortCode(s.physicianLast.c_str(), s.physicianMiddle.c_str(), s.physicianFirst.c_str());
    return code;
}

struct Message {
    const char* logName;
    std::string fileName;
    std::string text;
};

Message centricity(const StudyRecord& s) {
    const std::string e = STANDARD_ENCODING;
    std::string name = patientNameOf(s, e);
    return {"Centricity", safeFileName(s.controlId) + ".ht",
            format("MSH|%s|VarneskSundel|MorvaImaging|||%s||MDM^T02|%s|P|2.3.1|||AL|\n",
                   {e, hl7Value(s.dateTime), hl7Value(s.controlId)}) +
                format("EVN|T02|%s|\n", {hl7Value(s.dateTime)}) +
                format("PID|1||%s||%s||%s|F|||||||||||\n", {hl7Value(s.patientId), name, hl7Value(s.birthDate)}) +
                "PV1|1|U||||||||||||||||||||||||||||||||||||||||||||||||||\n" +
                format("TXA|1|DI|TX|%s|%s||||||||||||AU|||||\n",
                       {hl7Value(s.dateTime), hl7Components(s.physician, e)}) +
                format("OBX|1|ST|IMAGE_REF||%s|||||||||%s|\n", {hl7Value(s.reportLink), hl7Value(s.dateTime)})};
}

Message meditouch(const StudyRecord& s) {
    const std::string e = STANDARD_ENCODING;
    std::string code = shortCodeOf(s, false);
    std::string provider = code.empty() ? DEFAULT_PROVIDER
                                        : hl7Value(code) + "^" + hl7Value(s.physicianLast) + "^" +
                                              hl7Value(s.physicianFirst);
    std::string facility = Util::decipher(readText(dataDir, StateFile::ACCOUNT, StateFile::ACCOUNT.most).c_str());
    std::string dt = hl7Value(s.dateTime), pid = hl7Value(s.patientId);
    return {"Meditouch", safeFileName(s.studyId) + ".hl7",
            format("MSH|%s|VarneskSundel|MorvaImaging||%s|%s||ORU^R01|%s|P|2.3\n",
                   {e, hl7Value(facility), dt, hl7Value(s.studyId)}) +
                format("PID|1|%s|%s|%s|%s^%s^%s||%s|%s||||||||||||\n",
                       {pid, pid, pid, hl7Value(s.lastName), hl7Value(s.firstName), hl7Value(s.middleName),
                        hl7Value(s.birthDate), hl7Value(s.sex)}) +
                format("OBR|1|%s||ULT^ULTRASOUND|||%s|||||||%s||%s||||||%s|||F\n",
                       {hl7Value(accessionOf(s)), dt, dt, provider, dt}) +
                format("OBX|1|TX|Image^Ref^1||%s||||||F|%s||%s|01\n", {hl7Value(s.reportLink), dt, dt})};
}

Message osti(const StudyRecord& s) {
    const std::string e = STANDARD_ENCODING;
    std::string code = shortCodeOf(s, false);
    std::string provider = hl7Value(code) + "^" + hl7Value(s.physicianLast) + "^" + hl7Value(s.physicianFirst);
    std::string dt = hl7Value(s.dateTime), pid = hl7Value(s.patientId);
    return {"OSTI", safeFileName(s.controlId) + ".hl7",
            format("MSH|%s||Varnesk Sundel|VARNESK|604913|%s||ORU^R01|%s|P|2.3\n", {e, dt, hl7Value(s.controlId)}) +
                format("PID|1|%s|%s||%s^%s^%s||%s|%s|||||||||||\n",
                       {pid, pid, hl7Value(s.lastName), hl7Value(s.firstName), hl7Value(s.middleName),
                        hl7Value(s.birthDate), hl7Value(s.sex)}) +
                format("PV1|||O||||%s|||||\n", {provider}) +
                format("OBR|1|%s||ULT^ULTRASOUND|||%s|||||||||||||||||||||||\n", {hl7Value(accessionOf(s)), dt}) +
                format("ZID||%s|0|\n", {hl7Value(s.reportLink)})};
}

Message medent(const StudyRecord& s) {
    const std::string e = STANDARD_ENCODING;
    std::string code = shortCodeOf(s, false);
    std::string dt = hl7Value(s.dateTime);
    // The receiving side reads PID and PV1 as one line.
    return {"Medent", safeFileName(s.controlId) + ".hl7",
            format("MSH|%s|RAD|Varnesk Sundel|Varnesk||%s||ORU^R01|%s|P|2.3|NE|\n", {e, dt, hl7Value(s.controlId)}) +
                format("EVN|MDM^T02|%s|\n", {dt}) +
                format("PID|1|%s|||%s^%s^%s||%s|%s|||||||||||",
                       {hl7Value(s.patientId), hl7Value(s.lastName), hl7Value(s.firstName),
                        hl7Value(s.middleName), hl7Value(s.birthDate), hl7Value(s.sex)}) +
                format("PV1|1||||||%s|%s|||||||||||\n",
                       {hl7Value(code), joinName(s.physicianLast, s.physicianFirst, s.physicianMiddle, e)}) +
                format("OBX|1||IMAGE_REF||%s|||||||||\n", {hl7Value(s.reportLink)})};
}

Message sevocity(const StudyRecord& s) {
    const std::string e = SEVOCITY_ENCODING;
    std::string host = readTrimmed(dataDir, StateFile::HOST_NAME);
    std::string pid = hl7Value(s.patientId, e);
    return {"Sevocity", safeFileName(s.controlId) + ".hl7",
            format("MSH|%s|VARNESK|||%s|%s||ORU^R01|%s||2.3||||\n",
                   {e, hl7Value(host, e), hl7Value(s.dateTime, e), hl7Value(s.controlId, e)}) +
                format("PID||%s|%s||%s^%s^%s||||||||||||||||||||||\n",
                       {pid, pid, hl7Value(s.lastName, e), hl7Value(s.firstName, e), hl7Value(s.middleName, e)}) +
                format("OBR|1|||DICOM^DICOM||||||||||||%s|||||||||||||||||||||||||||\n",
                       {joinName(s.physicianLast, s.physicianFirst, s.physicianMiddle, e)}) +
                format("OBX|1|RP|URL||%s||||||F|||||||||||||||||||||||||||||\n", {hl7Value(s.reportLink, e)})};
}

Message eclinical(const StudyRecord& s) {
    const std::string e = ECLINICAL_ENCODING;
    std::string code = shortCodeOf(s, true);
    refreshTestCodes();
    std::string test = getTestCode(s.description.c_str());
    std::string order = test.empty() ? "ULT^ULTRASOUND" : hl7Value(test, e) + "^" + hl7Value(s.description, e);
    std::string provider =
        hl7Value(code, e) + "^" + hl7Value(s.physicianLast, e) + "^" + hl7Value(s.physicianFirst, e);
    std::string dt = hl7Value(s.dateTime, e), pid = hl7Value(s.patientId, e);
    return {"eClinical", safeFileName(s.controlId) + ".hl7",
            format("MSH|%s|VARNESK|Varnesk Sundel|RAD||%s||ORU^R01|%s|P|2.3\n", {e, dt, hl7Value(s.controlId, e)}) +
                format("PID|1||%s|%s|%s^%s^%s||%s|%s|||||||||||\n",
                       {pid, pid, hl7Value(s.lastName, e), hl7Value(s.firstName, e), hl7Value(s.middleName, e),
                        hl7Value(s.birthDate, e), hl7Value(s.sex, e)}) +
                format("OBR|1|%s||", {hl7Value(accessionOf(s), e)}) + order +
                format("|||%s||%s|||||||%s||||||%s|||F||||\n", {dt, dt, provider, dt}) +
                format("OBX||IMAGE_REF|||%s||||||F|||\n", {hl7Value(s.reportLink, e)})};
}

Message allscripts(const StudyRecord& s) {
    const std::string e = STANDARD_ENCODING;
    return {"Allscripts", safeFileName(s.controlId) + ".hl7",
            format("MSH|%s|VARNESK||||||ORU^R01|%s||2.3||||\n", {e, hl7Value(s.controlId)}) +
                "ORC|CN||||||||||||||||||\n" +
                format("OBR|1|||DICOM^DICOM||||||||||||^%s^%s^%s^^^^N|||||||||||||||||||||||||||\n",
                       {hl7Value(s.physicianLast), hl7Value(s.physicianFirst), hl7Value(s.physicianMiddle)})};
}

bool writtenByBridge(const std::string& name) {
    if (name.empty() || name[0] == '.') return false;
    for (const char* tail : {".ht", ".hl7", ".info", ".txt", ".pdf"})
        if (endsWith(name.c_str(), tail)) return true;
    return name.find_first_not_of("0123456789.") == std::string::npos;
}

}  // namespace

std::string hl7Value(const std::string& value, const std::string& encoding) {
    const char codes[] = {'S', 'R', 'E', 'T'};
    char escape = encoding.size() > 2 ? encoding[2] : 0;
    std::string out;
    out.reserve(value.size());
    for (char c : value) {
        if (c == '\r' || c == '\n') {
            out += ' ';
            continue;
        }
        char code = c == '|' ? 'F' : 0;
        for (size_t i = 0; !code && i < encoding.size() && i < 4; ++i)
            if (c == encoding[i]) code = codes[i];
        if (code && escape) {
            out += escape;
            out += code;
            out += escape;
        } else if (code) {
            out += ' ';  // no escape character: the separator cannot be kept
        } else {
            out += c;
        }
    }
    return out;
}

std::string safeFileName(const std::string& value) {
    std::string out = value.substr(0, Limits::EMR_FILE_NAME_MOST);
    for (char& c : out) {
        unsigned char u = static_cast<unsigned char>(c);
        if (c == '/' || c == '\\' || u < 0x20 || u == 0x7f) c = '_';
    }
    if (out.empty() || out[0] == '.') out.insert(out.begin(), '_');
    return out.substr(0, Limits::EMR_FILE_NAME_MOST);
}

void generateAttachments(const std::string& studyUid, const std::string& message) {
    if (!EMR_PDF) return;
    std::string uid = safeFileName(studyUid);
    writeTxtUnsynced(HL7_cache, (uid + ".pdf.txt").c_str(), message.c_str());
    std::string pdf = uid + ".pdf";
    if (!nonZeroFile(HL7_cache, pdf.c_str())) return;
    std::string process = PROCESS_DIR;
    std::string command = shellArg(process + "/reportcast") + " -v --sundel --data-dir " + shellArg(dataDir) +
                          " --process-dir " + shellArg(process) + " --cache-dir " + shellArg(HL7_cache) + " " +
                          shellArg(std::string(HL7_cache) + "/" + pdf) + " " + shellArg(HL7_dir);
    if (runCompanion(dataDir, command) != 0) logToServiceLater("EMR Sundel: reportcast FAILED");
}

int gcDir(const char* dir) {
    int fd = open(dir, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return 0;
    DIR* d = fdopendir(fd);
    if (!d) {
        close(fd);
        return 0;
    }
    time_t cutoff = time(nullptr) - static_cast<time_t>(Limits::EMR_FILE_RETENTION_DAYS) * 86400;
    int removed = 0;
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (!writtenByBridge(name)) continue;
        struct stat st;
        if (fstatat(fd, name.c_str(), &st, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISREG(st.st_mode)) continue;
        if (st.st_mtime >= cutoff) continue;
        if (unlinkat(fd, name.c_str(), 0) == 0) ++removed;
    }
    closedir(d);
    return removed;
}

void writeStudy(int kind, const StudyRecord& study) {
    double started = monotonicSeconds();
    LedgerEntry entry;
    entry.kind = "emr";
    entry.server = HL7_dir;
    auto record = [&] {
        entry.seconds = monotonicSeconds() - started;
        ledgerRecord(dataDir, entry);
    };
    if (kind == EMR_HL7FILE) {
        writeLinkFiles(study);
        entry.item = safeFileName(study.studyUid);
        entry.bytes = static_cast<long long>(study.reportLink.size());
        record();
        return;
    }
    Message m;
    switch (kind) {
        case EMR_CENTRICITY: m = centricity(study); break;
        case EMR_ALLSCRIPTS: m = allscripts(study); break;
        case EMR_ECLINICAL: m = eclinical(study); break;
        case EMR_SEVOCITY: m = sevocity(study); break;
        case EMR_MEDENT: m = medent(study); break;
        case EMR_OSTI: m = osti(study); break;
        case EMR_MEDITOUCH: m = meditouch(study); break;
        default: return;
    }
    bool written = writeTxtUnsynced(HL7_dir, m.fileName.c_str(), m.text.c_str());
    entry.item = m.fileName;
    entry.bytes = static_cast<long long>(m.text.size());
    entry.result = written ? "ok" : "not written";
    record();
    if (VERBOSE)
        printf("Writing '%s' to %s / %s;  success=%d\n", m.text.c_str(), HL7_dir, m.fileName.c_str(), written ? 1 : 0);
    generateAttachments(study.studyUid, m.text);
    logToServiceLater(std::string(m.logName) + " Sundel:  HL7 Message written to " + HL7_dir + " / " + m.fileName +
                 " : " + m.text);
    if (kind == EMR_OSTI) ostiDrop(m.fileName, safeFileName(study.studyUid));
}
