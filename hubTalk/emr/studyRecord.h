// One finished study as the service's poll reply describes it, in the forms
// the EMR writers put into their messages and files. Values are as received
// (the writers make them safe for HL7 and for file names).
#pragma once
#include <string>

struct StudyRecord {
    double uploaded = 0;          // "uploaded_timestamp", seconds since the epoch
    std::string dateTime;         // compact YYYYMMDDhhmmss (or the text as received when short)
    std::string dateTimeDashed;   // YYYY-MM-DD-hh-mm-ss (or as received)
    std::string birthDate;        // YYYYMMDD (or as received)
    std::string description;
    std::string patientId;
    std::string studyId;
    std::string reportLink;       // web origin + the "/permalinks/..." part
    std::string studyUid;
    std::string accession;        // as received; writers use "DEF" when empty
    std::string firstName, lastName, middleName, sex;
    std::string patientName;      // last[^first][^middle]
    // Referring physician: the display text (empty when there was no
    // composite) and the name parts.
    std::string physician;
    bool physicianFromComposite = false;
    std::string physicianLast, physicianFirst, physicianMiddle;
    std::string controlId;        // "%u%u" of now and a random number
};
