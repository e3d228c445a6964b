// Reports written beside the images of an exam, paired with its study:
// "Rep_<key>[_more].pdf" goes up as "<study>_<key>[_more]_Voluson.pdf",
// "CONV_<key>[_more].<ext>" as "<study>_<key>[_more]_SundelConv.<ext>".
//
// The study is that of an image whose PatientID or AccessionNumber is <key>
// (the text after the prefix up to the first "_" or "."): an image still in
// the report's own directory (with an empty key, any image there; at most
// Limits::REPORT_PAIRING_FILES_MOST are read), else the latest exam of that
// key among the images already delivered. The sender notes every delivered
// image's exam in "reportStudies.txt" in the data directory (one line per
// change of exam; started afresh beyond Limits::STUDY_INDEX_BYTES_MOST, the
// previous generation kept), because the device writes its report after the
// exam, when the images have long left. A report whose exam is not found is
// not uploaded: it stays for later passes, and the service is told once.
#pragma once
#include <string>

constexpr const char* REPORT_PREFIX = "Rep_";
constexpr const char* CONVERTED_PREFIX = "CONV_";

// The upload name of a report name for a study ("" when name is neither
// kind).
std::string reportUploadName(const std::string& name, const std::string& study);
struct StudyKeys;
// Notes the exam of a delivered image (its study UID as it went up).
void rememberStudy(const StudyKeys& keys);
// The study of a report in dir; "" when none is found.
std::string reportStudy(const std::string& dir, const std::string& name);
