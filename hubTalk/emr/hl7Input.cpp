#include "hl7Input.h"

#include <fcntl.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bounds.h"
#include "dicom.h"
#include "files.h"
#include "hl7Writers.h"
#include "memory.h"
#include "sendFile.h"
#include "serviceLog.h"
#include "settings.h"
#include "stateFiles.h"
#include "text.h"

namespace {

using Segment = std::vector<std::string>;

// Segments end at CR or LF (either, or both); fields are numbered as HL7
// does, the segment name being field 0.
std::vector<Segment> parseMessage(const std::string& text) {
    std::vector<Segment> segments;
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find_first_of("\r\n", start);
        if (end == std::string::npos) end = text.size();
        if (end > start) {
            Segment fields;
            size_t from = start;
            for (size_t bar; (bar = text.find('|', from)) < end; from = bar + 1)
                fields.push_back(text.substr(from, bar - from));
            fields.push_back(text.substr(from, end - from));
            segments.push_back(std::move(fields));
        }
        start = end + 1;
    }
    return segments;
}

std::string field(const Segment& s, size_t n) { return n < s.size() ? s[n] : ""; }

bool named(const Segment& s, const char* name) {
    return strcasecmp(trimmed(s[0]).c_str(), name) == 0;
}

std::string readMessage(const char* dir, const char* file) {
    return readText(dir, file, Limits::HL7_INPUT_MOST);
}

std::string format(const char* fmt, const char* a, const char* b, int n, const std::string& text) {
    std::vector<char> buf(strlen(fmt) + strlen(a) + strlen(b) + 2048 + 64);
    snprintf(buf.data(), buf.size(), fmt, a, b, n, text.c_str());
    return buf.data();
}

std::string sanitized(const std::string& text) {
    Memory mem;
    return Util::sanitize(text.c_str(), &mem);
}

std::string replaced(std::string text, const std::string& pattern, const std::string& replacement) {
    for (size_t at = text.find(pattern); at != std::string::npos;
         at = text.find(pattern, at + replacement.size()))
        text.replace(at, pattern.size(), replacement);
    return text;
}

// The worklist's keys, in the order they are written.
enum WorklistKey {
    PATIENT_NAME, PATIENT_ID, BIRTH_DATE, ADDRESS, SEX, EMAIL, PHONE, REFERRING, PERFORMING,
    PLACER, FILLER, REQUESTED_COMMENTS, SCHEDULED_COMMENTS, SCHEDULED_PERFORMING, START_DATE,
    START_TIME, KEY_COUNT
};
const char* const KEY_NAMES[KEY_COUNT] = {
    "patient_name", "patient_id", "patients_birth_date", "patients_address", "patient_sex",
    "ge_patient_email", "patient_phone", "referring_physician", "performing_physician_name",
    "placer_order_number", "filler_order_number", "requested_procedure_comments",
    "scheduled_procedure_comments", "scheduled_performing_physician_name",
    "scheduled_procedure_start_date", "scheduled_procedure_start_time"};

// The report PDF a message names, read whole: only a regular file (never a
// device or a FIFO) that begins as a PDF, within Limits::REPORT_PDF_MOST.
bool readReport(const std::string& path, std::string& bytes) {
    bytes.clear();
    int fd = path.empty() ? -1 : openRegular(path.c_str());
    if (fd < 0) return false;
    char chunk[65536];
    ssize_t n;
    while (bytes.size() <= static_cast<size_t>(Limits::REPORT_PDF_MOST) &&
           (n = read(fd, chunk, sizeof chunk)) != 0) {
        if (n < 0 && errno == EINTR) continue;
        if (n < 0) {
            close(fd);
            return false;
        }
        bytes.append(chunk, static_cast<size_t>(n));
    }
    close(fd);
    return bytes.size() <= static_cast<size_t>(Limits::REPORT_PDF_MOST) && bytes.compare(0, 5, "%PDF-") == 0;
}

}  // namespace

std::string getJsonCen(const char* dir, const char* file) {
    std::string values[KEY_COUNT];
    // The first segment that gives a key keeps it.
    auto set = [&](WorklistKey key, const std::string& value) {
        if (values[key].empty()) values[key] = value;
    };
    for (const Segment& s : parseMessage(readMessage(dir, file))) {
        if (named(s, "PID")) {
            set(PATIENT_NAME, field(s, 5));
            set(PATIENT_ID, field(s, 2).empty() ? field(s, 3) : field(s, 2));
            set(BIRTH_DATE, field(s, 7).substr(0, 8));
            set(ADDRESS, field(s, 11));
            set(SEX, field(s, 8));
            std::string contact = field(s, 13);
            set(contact.find('@') != std::string::npos ? EMAIL : PHONE, contact);
        } else if (named(s, "PV1")) {
            set(REFERRING, field(s, 8));
        } else if (named(s, "SCH")) {
            set(PLACER, field(s, 1));
            set(FILLER, field(s, 2));
            set(REQUESTED_COMMENTS, field(s, 7));
            set(SCHEDULED_COMMENTS, field(s, 28));
        } else if (named(s, "AIP")) {
            set(PERFORMING, field(s, 3));
            set(SCHEDULED_PERFORMING, field(s, 3));
            std::string start = field(s, 6);
            set(START_DATE, start.substr(0, 8));
            if (start.size() >= 9) set(START_TIME, start.substr(8));
        }
    }
    std::string pairs;
    for (int k = 0; k < KEY_COUNT; ++k)
        if (!values[k].empty())
            pairs += std::string("\"") + KEY_NAMES[k] + "\": \"" + sanitized(values[k]) + "\",\n";
    if (pairs.empty()) return "";
    return "{\n\"request_type\": \"worklist_data\", \n\"worklist_response\": \n { \n" + pairs +
           "\"End\": \"\"\n},\n\"device_id\": \"" + readTrimmed(dataDir, StateFile::HOST_NAME) +
           "\"\n}\n";
}

bool processHl7VPReport(const char* dir, const char* file) {
    std::string text = readMessage(dir, file);
    std::string reportId, patientIds, accession, pdfPath;
    bool pidSeen = false, zedSeen = false, txaSeen = false;
    for (const Segment& s : parseMessage(text)) {
        if (!pidSeen && named(s, "PID")) {
            pidSeen = true;
            reportId = field(s, 2);
            patientIds = field(s, 3);
        } else if (!zedSeen && named(s, "ZED")) {
            zedSeen = true;
            accession = field(s, 3);
        } else if (!txaSeen && named(s, "TXA")) {
            txaSeen = true;
            pdfPath = trimmed(field(s, 16));
        }
    }
    auto failing = [&]() {
        logToService(format("processHl7Report:  FAILING processing file %s / %s (%d) : %.2048s\n", dir,
                            file, static_cast<int>(text.size()), text));
        return false;
    };
    if (reportId.empty() || !*viewpointDir) return failing();

    // The patient ID is the one the link files were written for: PID-3 as
    // it stands, or its first component.
    std::string patient = patientIds;
    if (*HL7_dir && !nonZeroFile(HL7_dir, (safeFileName(patient) + ".txt").c_str()))
        patient = patientIds.substr(0, patientIds.find('^'));
    std::string infoName, studyUid;
    if (*HL7_dir && !patient.empty()) {
        std::vector<std::string> tries;
        if (!accession.empty()) tries.push_back(accession);
        tries.push_back("DEF");
        for (const std::string& acc : tries) {
            if (VERBOSE) fprintf(stderr, "Looking for pid-accession:  %s-%s\n", patient.c_str(), acc.c_str());
            std::string base = safeFileName(patient + "-" + acc);
            if (!nonZeroFile(HL7_dir, (base + ".txt").c_str())) continue;
            infoName = base + ".txt";
            studyUid = trimmed(readText(HL7_dir, (base + "-1.txt").c_str(), Limits::STATE_TEXT_MOST));
            break;
        }
        if (studyUid.empty()) {
            std::string list = trimmed(readText(HL7_dir, (safeFileName(patient) + ".txt").c_str(),
                                                Limits::STATE_TEXT_MOST));
            studyUid = list.substr(list.rfind('|') + 1);
        }
    }

    // Read once: what is checked is what is copied.
    std::string pdf;
    if (!readReport(pdfPath, pdf)) {
        char line[2200];
        snprintf(line, sizeof line, "processHl7Report:  FAILING Report from HL7 message is not on disk:  %.2024s\n",
                 pdfPath.c_str());
        logToService(line);
        return false;
    }

    std::string name = safeFileName(reportId);
    std::string pdfName = name + ".pdf";
    int copied = -1;  // not yet tried
    auto copyReport = [&]() {
        if (copied < 0) {
            copied = writeData(viewpointDir, pdfName.c_str(), pdf.data(), pdf.size());
            if (!copied) {
                std::vector<char> line(pdfPath.size() + strlen(viewpointDir) + pdfName.size() + 64);
                snprintf(line.data(), line.size(), "processHl7Report: Unable to copy report (%s) into %s/%s\n",
                         pdfPath.c_str(), viewpointDir, pdfName.c_str());
                logToService(line.data());
            }
        }
        return copied == 1;
    };
    std::string sop = sanitized(reportId);

    bool shareReport = false;
    Memory mem;
    int status = 0;
    std::string preshare;
    if (!studyUid.empty())
        preshare = SendFile::getPreshare(dataDir, status, studyUid.c_str(), VERBOSE, QUIET, &mem);
    if (preshare.empty() || preshare == "error") {
        std::vector<char> line(strlen(dir) + strlen(file) + studyUid.size() + 2048 + 128);
        snprintf(line.data(), line.size(),
                 "processHl7Report:  FAILING Preshare message is missing for %s/%s (uid=%s) %.2048s\n",
                 dir, file, studyUid.c_str(), text.c_str());
        logToService(line.data());
    } else {
        if (VERBOSE) fprintf(stderr, "Found Preshare message:  %.2048s\n", preshare.c_str());
        if (preshare.find("PUT_REPORT_SOP_HERE") != std::string::npos && copyReport()) {
            std::string share = replaced(preshare, "\"preshare\"", "\"xnothingx\"");
            share = replaced(share, "PUT_REPORT_SOP_HERE", sop);
            shareReport = writeTxt(viewpointDir, (name + ".share").c_str(), share.c_str());
        }
    }
    if (!shareReport && VERBOSE) fprintf(stderr, "Share message dropped:  shareReport=%d\n", shareReport);

    bool infoWritten = false;
    if (!infoName.empty() && copyReport()) {
        std::string info = replaced(readText(HL7_dir, infoName.c_str(), Limits::STATE_TEXT_MOST),
                                    "ADD_SOP_HERE", sop);
        // The export sender takes "<name>.info" as the information of "<name>".
        infoWritten = writeTxt(viewpointDir, (pdfName + ".info").c_str(), info.c_str());
        if (infoWritten && VERBOSE) fprintf(stderr, "Report dropped that will trigger sharing\n");
    }
    if (!shareReport && !infoWritten) {
        if (copied == 1) rmFile(viewpointDir, pdfName.c_str());
        return failing();
    }
    return true;
}

void doHl7Input(int kind) {
    if (!*HL7_inputDir) return;
    Memory listing;
    int count = 0;
    char** names = Util::listDir(HL7_inputDir, &count, &listing);
    for (int i = 0; i < count; ++i) {
        const char* name = names[i];
        // Dot names are the listener's files still being written; the
        // directory also holds a directory of rejected messages.
        if (name[0] == '.') continue;
        std::string path = std::string(HL7_inputDir) + "/" + name;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0 || !S_ISREG(st.st_mode)) continue;
        if (kind == EMR_HL7FILE && !isHL7(HL7_inputDir, name)) continue;

        std::string text = trimmed(readMessage(HL7_inputDir, name));
        logToService(format("doHl7Input:  processing file %s / %s (%d) : %.2048s\n", HL7_inputDir, name,
                            static_cast<int>(text.size()), text));
        if (kind == EMR_HL7FILE) {
            if (processHl7VPReport(HL7_inputDir, name)) rmFile(HL7_inputDir, name);
        } else if (kind == EMR_CENTRICITY) {
            std::string json = getJsonCen(HL7_inputDir, name);
            if (json.empty()) {
                logToService("doHl7Input:  Invalid HL7 Checkin Message Received");
                rmFile(HL7_inputDir, name);
                continue;
            }
            Memory mem;
            const char* reply = SendFile::sendAPICommand(dataDir, json.c_str(), VERBOSE, QUIET, &mem);
            if (reply && strcasecmp(reply, "success") == 0) rmFile(HL7_inputDir, name);
        }
    }
}
