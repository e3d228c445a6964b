// Self-update of the DICOM dictionary, the DICOM receiver and the program,
// offered by the service in its replies. Files come from the download server
// through the companion "download" tool of the installation directory, run
// as "<tool> <url> <target>"; exit status 0 means the target was written.
// The updates run outside the reply lock, one at a time.
#pragma once
#include <string>

// A download is bounded by Limits::DOWNLOAD_TIMEOUT_S.

// Newest versions the service offers; "0" means none.
struct OfferedVersions {
    std::string hubTalk;
    std::string storescp;
    std::string dicomDic;
};

// The download server's base ("downloadBase.txt", else the build's
// HUBTALK_DOWNLOAD_BASE) without a final "/", followed by path.
std::string downloadUrl(const char* dataDir, const char* path);

// "<tool> <url> <target>", every part quoted for the shell.
std::string downloadCommand(const std::string& tool, const std::string& url, const std::string& target);
// Exit status of that command, bounded by Limits::DOWNLOAD_TIMEOUT_S; 0
// means the target was written.
int runDownload(const std::string& tool, const std::string& url, const std::string& target);

// Counts the calls while UPDATE is on: true on every nineteenth (the first
// eighteen of a process never are).
bool selfUpdateDue();
// Back to the count of a freshly started process.
void resetSelfUpdateCount();

// The version text as given, or "0" when it is empty.
std::string versionOrZero(const std::string& text);

// True when the offered version sorts byte-wise after the installed one and is not "0".
bool isNewerVersion(const char* offered, const char* installed);

// Dictionary, then receiver, then program; a failed download or move ends
// the check. Returns at once while another update is under way. After the
// program was replaced: sleeps 1 s and exits with status 1, so that the
// supervising parent starts the new one.
void runSelfUpdate(const char* dataDir, const OfferedVersions& offered);
