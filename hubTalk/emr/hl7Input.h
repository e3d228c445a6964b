// HL7 messages from the site, as the local listener stored them in the
// inbound HL7 directory (HL7_inputDir), handled once per EMR pass:
// - Centricity (kind 3): a scheduling message (PID, PV1, SCH, AIP) becomes
//   a worklist request to the service; the file goes once the service
//   answered "success", or at once when it held nothing to send;
// - link-file mode (kind 1): a report message is paired with the study
//   information written for its patient (HL7_dir) and handed to the export
//   sender (viewpointDir) as a share request and the report PDF with its
//   information; the file goes once that is done.
// Every file is logged to the service at each pass; a file that could not
// be handled stays for the next one.
//
// Identifiers from a message that name files (patient ID, accession number,
// report identifier) are made safe first and never leave their directory;
// the texts keep them as received. The report PDF a message names is taken
// only when it is a regular file that begins as a PDF.
#pragma once
#include <string>

// One pass over the inbound HL7 directory for the EMR kind.
void doHl7Input(int kind);
// The worklist request document of one message; "" when it holds none of
// the worklist's fields.
std::string getJsonCen(const char* dir, const char* file);
// One report message of kind 1; true when it has been handed on and the
// file may go.
bool processHl7VPReport(const char* dir, const char* file);
