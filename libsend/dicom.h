// Inspection of DICOM files.
#pragma once

// The Media Storage SOP Instance UID (0002,0003) read straight from the
// file-meta group, cut to outSize - 1; null when the file is not DICOM, the
// element is missing, or a meta element ahead of it is longer than 1024 bytes.
char* getSopInstance(const char* path, char* out, int outSize);
