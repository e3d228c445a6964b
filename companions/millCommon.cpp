#include "millCommon.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Mill {

bool loadDicomFile(const std::string& path, DcmFileFormat& file, std::string& err) {
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        err = path + ": " + strerror(errno);
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        err = path + ": not a regular file";
        return false;
    }
    // Without the preamble and meta header it is not a file the agent would
    // have passed on as DICOM.
    OFCondition cond = file.loadFile(path.c_str(), EXS_Unknown, EGL_noChange, DCM_MaxReadLength,
                                     ERM_fileOnly);
    if (cond.good())
        cond = file.loadAllDataIntoMemory();
    if (cond.bad()) {
        err = path + ": not a readable DICOM file (" + cond.text() + ")";
        return false;
    }
    return true;
}

bool saveSynced(DcmFileFormat& file, E_TransferSyntax xfer, const std::string& tmp, std::string& err) {
    if (xfer == EXS_Unknown)
        xfer = file.getDataset()->getOriginalXfer();
    OFCondition cond = file.saveFile(tmp.c_str(), xfer, EET_UndefinedLength, EGL_recalcGL,
                                     EPD_noChange, 0, 0, EWM_fileformat);
    if (cond.bad()) {
        err = tmp + ": cannot write (" + cond.text() + ")";
        unlink(tmp.c_str());
        return false;
    }
    // A rename must not expose a file whose blocks are not yet on disk.
    int fd = open(tmp.c_str(), O_RDONLY | O_CLOEXEC);
    bool synced = fd >= 0 && fsync(fd) == 0;
    if (fd >= 0)
        close(fd);
    if (!synced) {
        err = tmp + ": cannot flush (" + strerror(errno) + ")";
        unlink(tmp.c_str());
    }
    return synced;
}

bool writeReplacing(DcmFileFormat& file, E_TransferSyntax xfer, const std::string& tmp,
                    const std::string& target, std::string& err) {
    if (!saveSynced(file, xfer, tmp, err))
        return false;
    if (rename(tmp.c_str(), target.c_str()) != 0) {
        err = target + ": cannot replace (" + strerror(errno) + ")";
        unlink(tmp.c_str());
        return false;
    }
    return true;
}

bool isCompressedXfer(E_TransferSyntax xfer) {
    DcmXfer x(xfer);
    return x.isEncapsulated() || x.getStreamCompression() != ESC_none;
}

unsigned long ImageGeometry::byteCount() const {
    if (pairs422)
        return rows * ((columns + 1) / 2) * 4 * frames;
    return rows * columns * samples * frames * (bitsAllocated / 8);
}

bool imageGeometry(DcmItem* dataset, ImageGeometry& g, std::string& err) {
    Uint16 rows = 0, columns = 0, samples = 1, bits = 0, planar = 0;
    if (dataset->findAndGetUint16(DCM_Rows, rows).bad() ||
        dataset->findAndGetUint16(DCM_Columns, columns).bad() ||
        dataset->findAndGetUint16(DCM_BitsAllocated, bits).bad()) {
        err = "image attributes (rows, columns, bits allocated) missing";
        return false;
    }
    dataset->findAndGetUint16(DCM_SamplesPerPixel, samples);
    dataset->findAndGetUint16(DCM_PlanarConfiguration, planar);
    Sint32 frames = 1;
    if (dataset->findAndGetSint32(DCM_NumberOfFrames, frames).bad() || frames < 1)
        frames = 1;
    if (bits != 8 && bits != 16 && bits != 32) {
        err = "bits allocated " + std::to_string(bits) + " not handled";
        return false;
    }
    if (rows == 0 || columns == 0 || samples == 0) {
        err = "empty image";
        return false;
    }
    g.rows = rows;
    g.columns = columns;
    g.samples = samples;
    g.frames = static_cast<unsigned long>(frames);
    g.bitsAllocated = bits;
    g.planar = samples > 1 && planar == 1;
    OFString photometric;
    dataset->findAndGetOFString(DCM_PhotometricInterpretation, photometric);
    g.pairs422 = samples == 3 && bits == 8 && photometric.size() > 4 &&
                 photometric.substr(photometric.size() - 4) == "_422";
    g.planar = g.planar && !g.pairs422;
    return true;
}

bool nativePixelBytes(DcmItem* dataset, Uint8*& bytes, unsigned long& length) {
    DcmElement* pixels = nullptr;
    if (dataset->findAndGetElement(DCM_PixelData, pixels).bad() || pixels == nullptr)
        return false;
    length = pixels->getLength();
    OFCondition cond;
    if (pixels->getTag().getEVR() == EVR_OB) {
        cond = pixels->getUint8Array(bytes);
    } else {
        Uint16* words = nullptr;
        cond = pixels->getUint16Array(words);
        bytes = reinterpret_cast<Uint8*>(words);
    }
    return cond.good() && bytes != nullptr;
}

}  // namespace Mill

bool Mill::optionValue(int argc, char** argv, int& i, std::string& into) {
    if (i + 1 >= argc) return false;
    into = argv[++i];
    return true;
}
