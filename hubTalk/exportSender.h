// The export-directory sender: every 10 s it walks the export directory and
// uploads what the DICOM receiver, the processing workers and desktop tools
// put there, deleting each file once the service has confirmed it
// (exportUpload.h says when a file may go).
//
// What a walk does with an entry, in listing order, except that sharing
// requests and reports of a directory go first (the files they name or pair
// with may lie beside them):
// - ".", "..", names containing ".DS_Store" (any case), empty files, links,
//   and anything that is neither a file nor a directory: nothing;
// - a directory: walked (special inside "VP6" and "SFILES"), down to
//   Limits::EXPORT_DEPTH_MOST levels;
// - ".share", ".sharing": sharingRequest.h; "data.kst" and its pictures:
//   patientPictures.h; "Rep_"/"CONV_" reports: reportPairing.h;
// - a file with an "<name>.info" companion (a failed sharing upload kept
//   for later): uploaded with that information text;
// - a DICOM file: uploaded as "<SOP instance UID>.dcm" unless its name has
//   ".dcm"; processed first when processing is on and its name has neither
//   ".dcm~" nor "._UNP_" (both mark files the processing workers handled;
//   "._UNP_" is cut off the upload name and the upload says "not processed");
// - any other file: uploaded under its name inside "VP6"/"SFILES", left
//   alone elsewhere.
// Files are looked at only once they settled: a file younger than 8 s
// delays the walk by its age, and one modified within the current second
// waits for the next pass.
//
// "exportSuffix.txt": when set (and without "*"), the receiver's files are
// taken only when their names end with it (any case); others wait. The
// agent's own copies for failed sharing uploads carry it too.
#pragma once
#include <cstdint>
#include <string>

// Thread body: 10 s, then a pass every 10 s once "displayName.txt" is set.
void* dir_proc(void* arg);
// One pass over the export directory; the timer is set to 0 first and to
// the time each directory was finished. Returns 0.
int vp_loop_proc(int64_t* timer);
// The walk of one directory. Returns 0.
int sendDir(const char* path, const char* suffix, int64_t* timer, bool inSpecialDir);
// The suffix in force: "exportSuffix.txt" trimmed, at most 127 characters,
// empty when it holds "*".
std::string exportSuffix();
