// De-identification of a DICOM file along the attribute actions of the
// standard's Basic Application Level Confidentiality Profile.
#pragma once
#include <string>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctk.h>

namespace Scrub {

struct Options {
    // Also remove dates, times and free-text descriptions that the basic
    // mode keeps (the service orders studies by them).
    bool strict = false;
    // Pixel bands were blanked; recorded in the method attributes.
    bool pixelsCleaned = false;
};

// Applies the profile to the dataset (sequences included), removes private
// attributes, replaces UIDs and records the method; the meta header's
// instance UID follows the dataset's.
void deidentify(DcmFileFormat& file, const Options& options);

// The replacement of a UID: "2.25." and the decimal value of the first 128
// bits of the SHA-256 of the UID, so every run on every box maps a UID alike
// and a study stays one study.
std::string replacementUid(const std::string& uid);

}  // namespace Scrub
