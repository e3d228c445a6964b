// Sharing requests in the export directory, and the shares they become.
//
// A ".sharing" file (a JSON request written by a desktop tool) names files
// by path. Each named file is uploaded at once, with upload type "Export"
// ("Export-Pre" for a preshare); the request becomes a share file
// "<pid>.<tid>.<request name>.share" in the same directory, and the files
// whose upload failed are copied into the export directory and listed in a
// wait list of the same name in the data directory. The ".sharing" file is
// deleted once the share is written. A share is sent to the service only
// when every file of its wait list is gone (uploaded), and deleted only when
// the service answers "success".
//
// A named file that was delivered leaves the export directory, as every
// delivered file there does (the walk would otherwise send it again).
//
// Which files a request may name: whoever can write the export directory
// can write a request, so a path is taken only when it names a regular file
// inside the export directory once every link in it is resolved (a relative
// path is read from the request's own directory). Anything else (a
// directory, a device, "/etc/shadow", a link leading out of the export
// directory) is left out of the share with one log line.
//
// A DICOM file is anonymised and processed first when processing is on; its
// SOP instance UID is read afterwards, because anonymisation gives it a new
// one. Its failed-upload copy is "<UID>.dcm", or "<UID>.dcm~" when it was
// processed already (so the walk does not process it twice), followed by
// the export suffix when one is set. Any other file
// gets a new UID and goes with an information text; its failed-upload copy
// "<UID><suffix>" keeps that text beside it in "<UID><suffix>.info".
#pragma once
#include <string>

#include "exportUpload.h"

// One ".sharing" file: dir is the directory being walked, suffix the
// export suffix in force (the name ending the walk takes).
void handleSharingRequest(const std::string& dir, const std::string& name,
                          const std::string& suffix);
// One ".share" file, seen unchanged since `seen`.
void handleShare(const std::string& dir, const std::string& name, const FileStamp& seen);

// The information text of a non-DICOM upload.
std::string informationText(const std::string& uid, const std::string& suffix,
                            const std::string& patientInformation);
// JSON text with every "|" (only valid inside its strings) written as
// "\u007c": the service's command line separates its fields with "|".
std::string barFree(const std::string& json);
// The suffix of a name (".pdf"), or "" when it has none that is safe to
// reuse in a file name.
std::string safeSuffix(const std::string& name);
// Worker number of the export sender's processing (its own dump names).
constexpr int EXPORT_SENDER_WORKER = 99;
