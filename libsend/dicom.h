// What DICOM and HL7 files are and what they carry. Nothing here keeps state
// or logs: unreadable, short or foreign files give false, null, "" or 1.
#pragma once
#include "keyValues.h"

class Memory;

// Path rule: dir alone when name is empty, else dir + "/" + name. Only a
// regular file qualifies (a FIFO or a directory never blocks or passes).
// True when the 4 bytes at offset 128 are "DICM".
bool isDicom(const char* dir, const char* name);
// True when the file starts with "MSH|".
bool isHL7(const char* dir, const char* name);

// The Media Storage SOP Instance UID (0002,0003) read straight from the
// file-meta group, cut to outSize - 1; null when the file is not DICOM, the
// element is missing, or a meta element ahead of it is longer than 1024 bytes.
char* getSopInstance(const char* path, char* out, int outSize);

// What ties an image to its exam, read straight from the start of the data
// set (explicit or implicit VR little endian; at most the first
// Limits::STUDY_KEYS_HEAD_MOST bytes) without a dump, with the file-meta SOP
// class and instance UIDs (those also when the data set cannot be read).
// Missing values are "". False when the file is no such DICOM file or ends
// inside those elements.
struct StudyKeys {
    char patientId[65];
    char accession[65];
    char studyUid[65];
    char sopClass[129];
    char sopInstance[129];
};
bool getStudyKeys(const char* path, StudyKeys* keys);

// Dumps the attributes named in tags (keywords or "gggg,eeee", ended by a
// null or empty entry) with dcmdump into dir/outName and fills table with
// keyword -> value (brackets taken off; "(no value available)" left out).
// Values live in mem. Long values are not loaded (-M), so a file of any size
// costs a few megabytes. The file name is quoted for the shell. Callers
// running at the same time must not share dir/outName. 0, or 1 on failure.
int getAttrMap(const char* file, KeyValues<char>& table, const char* const* tags,
               const char* dir, const char* outName, Memory* mem);

// The StudyInstanceUID (a copy in mem) when the file is a secondary-capture
// image (SOP class "1.2.840.10008.5.1.4.1.1.7" or below it), else "". The
// dump goes to a name of the caller's own in dir.
char* isSecondaryCapture(const char* file, const char* dir, Memory* mem);
// The StudyInstanceUID when the file is an encapsulated PDF (that SOP class,
// or a MIME type containing "/pdf" or "\pdf" in any case), else "".
char* isPdfFile(const char* file, const char* dir, Memory* mem);
