// Pictures with a patient file: a directory holding "data.kst" (key=value
// lines, or key: value) and ".jpg" pictures. The keys "lastname",
// "firstname", "ID", "patientid", "born", "surgeon" and "procedure" become
// "PINFO.JSON" beside them, built once and reused until the set is done, so
// every picture of the set carries the same new study UID. Each picture is
// uploaded with type "Export", a new UID and an information text holding
// "PINFO.JSON", then deleted; one that cannot be deleted gets a
// "<name>.DONE" marker instead and is not sent again. When every picture is
// delivered, "data.kst" and "PINFO.JSON" go too ("data.kst.DONE" when
// "data.kst" cannot be deleted).
//
// Dates: "acquisition_date" is the day "data.kst" was written (local time);
// "patient_dob" is "born" as "YYYY-MM-DD", read from "YYYYMMDD",
// "YYYY-MM-DD", "YYYY/MM/DD", "DD.MM.YYYY" or "MM/DD/YYYY"; any other form is
// passed on as written. Values are cut at Limits::PATIENT_VALUE_MOST bytes,
// bytes that are not text become blanks, and all are escaped for JSON.
#pragma once
#include <string>

constexpr const char* PATIENT_FILE = "data.kst";
constexpr const char* PATIENT_JSON = "PINFO.JSON";
constexpr const char* DONE_SUFFIX = ".DONE";

// The pictures of dir, with their patient file.
void handlePatientPictures(const std::string& dir);
// True for a picture name the set uploads (".jpg" in any case, 5 or more
// characters).
bool isPicture(const char* name);
// "born" as "YYYY-MM-DD" when it is a date in a known form, else as given.
std::string birthDate(const std::string& born);
