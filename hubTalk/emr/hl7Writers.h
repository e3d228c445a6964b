// Outbound messages for the EMR systems: one HL7 file per study in the
// dialect of the configured EMR kind (or the link files of kind 1), the
// report attachments, the delivery log line, and pruning of old files.
#pragma once
#include <string>

#include "studyRecord.h"

// Writes what the EMR of that kind picks up for one study, into HL7_dir.
// Message files are named by the control ID (".ht" for Centricity, ".hl7"
// for the others; Meditouch by the study ID), so a repeated study gives a
// new file. Unknown kinds write nothing. Files are not brought to disk one
// by one: the pass does that once for all of them (doHl7Output).
void writeStudy(int kind, const StudyRecord& study);

// A data value made safe for one HL7 field: the separators the encoding
// characters make special ("|" always; then component, repetition, escape
// and subcomponent character, as many as given) become escape sequences
// (\F\ \S\ \R\ \E\ \T\, written with the kind's escape character), CR and LF
// become blanks. Everything else is kept.
std::string hl7Value(const std::string& value, const std::string& encoding = "^~\\&");

// A value used as (part of) a file name that cannot leave its directory:
// "/", "\" and control bytes become "_", a name that is empty or starts with
// "." gets a "_" before it, cut at Limits::EMR_FILE_NAME_MOST bytes.
std::string safeFileName(const std::string& value);

// With PDF attachments on: the message goes to HL7_cache as "<uid>.pdf.txt"
// and, when "<uid>.pdf" is there, reportcast turns it into the EMR's
// attachments in HL7_dir (its last argument).
void generateAttachments(const std::string& studyUid, const std::string& message);

// Removes the files the bridge writes (".ht", ".hl7", ".info", ".txt",
// ".pdf" and study-UID files, which are digits and dots) that have not
// changed for Limits::EMR_FILE_RETENTION_DAYS. Only regular files directly
// in dir; directories, links and other names are left alone. Returns the
// number removed.
int gcDir(const char* dir);
