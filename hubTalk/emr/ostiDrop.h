// Delivery of OSTI messages to the vendor's SFTP drop. The host, account and
// port come from the data directory ("ostiHost.txt", default 127.0.0.1;
// "ostiAccount.txt", empty: no drop; "ostiPort.txt", default
// Limits::OSTI_DROP_PORT). The drop's host key is taken on first use and
// pinned in "osti_known_hosts" in the data directory.
#pragma once
#include <string>
#include <vector>

// Puts the files (names in HL7_dir) to the drop in one SFTP session, run in
// HL7_dir and bounded by Limits::OSTI_DROP_TIMEOUT_S. The password reaches
// the client only through its environment. True on success; otherwise
// *details (when given) tells the command, its status and what it printed.
bool sftpPut(const std::vector<std::string>& files, std::string* details);

// The message file, then the study's attachments (files in HL7_dir named
// "<study UID>." and more); each failure is logged to the service.
void ostiDrop(const std::string& messageFile, const std::string& studyUid);
