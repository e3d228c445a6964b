// Shared by the companion tools: loading a DICOM file whole, writing one
// through a temporary that replaces the target only once complete, and raw
// access to native pixel data.
#pragma once
#include <string>

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctk.h>

namespace Mill {

// Loads a file that carries the "DICM" preamble and meta header, every
// element in memory. On failure err says why.
// The value following the option argv[i] (i moves on to it); false when
// the command line ends there.
bool optionValue(int argc, char** argv, int& i, std::string& into);

bool loadDicomFile(const std::string& path, DcmFileFormat& file, std::string& err);

// Writes file to tmp in the transfer syntax xfer (EXS_Unknown: the one it
// was read in) and flushes it to disk; removes tmp on failure.
bool saveSynced(DcmFileFormat& file, E_TransferSyntax xfer, const std::string& tmp, std::string& err);

// Writes file to tmp in the transfer syntax xfer (EXS_Unknown: the one it was
// read in), flushes it to disk and renames it over target. No temporary is
// left behind on failure.
bool writeReplacing(DcmFileFormat& file, E_TransferSyntax xfer, const std::string& tmp,
                    const std::string& target, std::string& err);

// True when pixel data in this transfer syntax is compressed (encapsulated or
// deflated as a whole stream).
bool isCompressedXfer(E_TransferSyntax xfer);

struct ImageGeometry {
    unsigned long rows = 0, columns = 0, samples = 1, frames = 1;
    unsigned bitsAllocated = 0;
    bool planar = false;
    // YBR_FULL_422 and the like: two pixels share four bytes (Y Y Cb Cr).
    bool pairs422 = false;
    unsigned long byteCount() const;  // bytes the pixel values take, no padding
};
// Reads the image geometry of a dataset with native pixel data; false when an
// attribute needed is missing or the layout is one the tools do not handle.
bool imageGeometry(DcmItem* dataset, ImageGeometry& geometry, std::string& err);

// The native pixel data's value as bytes in memory (in the host's order for
// 16-bit words); false when there is none.
bool nativePixelBytes(DcmItem* dataset, Uint8*& bytes, unsigned long& length);

}  // namespace Mill
