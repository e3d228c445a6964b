// Link-file mode: instead of an HL7 message, the EMR finds per patient the
// list of its studies, per study the link to its report, and a small JSON
// document describing the study, all in HL7_dir.
#pragma once
#include <string>

#include "studyRecord.h"

// "<patient>.txt" lists the patient's study UIDs separated by "|" (a study
// already listed leaves it untouched); "<study UID>" holds the report link;
// then the study information: "<patient>.info" (short form) or, on sites
// with an inbound HL7 directory, "<patient>-<accession>.txt" (long form)
// and "<patient>-<accession>-1.txt" holding the study UID.
void writeLinkFiles(const StudyRecord& study);

// The study information document, short or long form (values JSON-escaped).
std::string studyInfoDocument(const StudyRecord& study, bool longForm);
