// imagemill: lossless pixel optimisation of a DICOM file in place. Native
// pixel data is re-encoded as JPEG-LS lossless; the result replaces the file
// only when it is smaller and decodes to the very same pixels.
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

#include <dcmtk/dcmimage/diregist.h>  // colour images for the encoder
#include <dcmtk/dcmjpls/djdecode.h>
#include <dcmtk/dcmjpls/djencode.h>
#include <dcmtk/dcmjpls/djrparam.h>

#include "millCommon.h"

namespace {

bool verbose = false;

void usage(FILE* out) {
    fprintf(out,
            "usage: imagemill [--worker N] [--verbose] (--sundel|--sundel2) [--repeat]\n"
            "                 [--data-dir DIR] [--process-dir DIR] FILE\n"
            "Re-encodes FILE's uncompressed pixel data as JPEG-LS lossless, in place, and keeps\n"
            "the result only when it is smaller and decodes to identical pixels. Compressed\n"
            "files and files without pixel data are left as they are (exit 0).\n"
            "  --worker N        worker number, part of the temporary file name (FILE.im.N)\n"
            "  --verbose         report sizes and decisions on stderr\n"
            "  --sundel          pixel processing\n"
            "  --sundel2         pixel processing with the original retained by the caller;\n"
            "                    this tool treats both modes alike\n"
            "  --repeat, --data-dir DIR, --process-dir DIR  accepted, not needed here\n"
            "  --help            show this text\n");
}

int fail(const std::string& message) {
    fprintf(stderr, "imagemill: %s\n", message.c_str());
    return 1;
}

void note(const std::string& message) {
    if (verbose)
        fprintf(stderr, "imagemill: %s\n", message.c_str());
}

long fileSize(const std::string& path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0 ? static_cast<long>(st.st_size) : -1;
}

// Decodes the written file and compares its pixels with the original bytes.
bool decodesIdentically(const std::string& path, const std::vector<Uint8>& original) {
    DcmFileFormat check;
    std::string err;
    if (!Mill::loadDicomFile(path, check, err))
        return false;
    DcmDataset* dataset = check.getDataset();
    if (dataset->chooseRepresentation(EXS_LittleEndianExplicit, nullptr).bad())
        return false;
    Uint8* bytes = nullptr;
    unsigned long length = 0;
    return Mill::nativePixelBytes(dataset, bytes, length) && length >= original.size() &&
           memcmp(bytes, original.data(), original.size()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string file, worker = "0", ignored;
    bool modeGiven = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string& into) { return Mill::optionValue(argc, argv, i, into); };
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--worker") {
            if (!value(worker) || worker.empty() ||
                worker.find_first_not_of("0123456789") != std::string::npos)
                return fail("--worker needs a number");
        } else if (a == "--data-dir" || a == "--process-dir") {
            if (!value(ignored))
                return fail(a + " needs a directory");
        } else if (a == "--verbose") {
            verbose = true;
        } else if (a == "--sundel" || a == "--sundel2") {
            modeGiven = true;
        } else if (a == "--repeat") {
        } else if (a.size() > 1 && a[0] == '-') {
            usage(stderr);
            return fail("unknown option " + a);
        } else if (file.empty()) {
            file = a;
        } else {
            return fail("too many arguments: " + a);
        }
    }
    if (file.empty() || !modeGiven) {
        usage(stderr);
        return fail(file.empty() ? "a file is required" : "--sundel or --sundel2 is required");
    }

    OFLog::configure(verbose ? OFLogger::INFO_LOG_LEVEL : OFLogger::WARN_LOG_LEVEL);
    auto started = std::chrono::steady_clock::now();
    DcmFileFormat dicom;
    std::string err;
    if (!Mill::loadDicomFile(file, dicom, err))
        return fail(err);
    DcmDataset* dataset = dicom.getDataset();
    const E_TransferSyntax xfer = dataset->getOriginalXfer();
    if (Mill::isCompressedXfer(xfer)) {
        note(file + ": already compressed (" + DcmXfer(xfer).getXferName() + "), left as it is");
        return 0;
    }
    Mill::ImageGeometry geometry;
    Uint8* bytes = nullptr;
    unsigned long length = 0;
    if (!dataset->tagExists(DCM_PixelData) || !Mill::imageGeometry(dataset, geometry, err) ||
        !Mill::nativePixelBytes(dataset, bytes, length) || length < geometry.byteCount()) {
        note(file + ": no pixel data it can encode, left as it is");
        return 0;
    }
    const std::vector<Uint8> original(bytes, bytes + geometry.byteCount());

    DJLSEncoderRegistration::registerCodecs();
    DJLSDecoderRegistration::registerCodecs();
    DJLSRepresentationParameter lossless(0, OFTrue);
    const long before = fileSize(file);
    const std::string tmp = file + ".im." + worker;
    int status = 0;
    bool renamed = false;
    if (dataset->chooseRepresentation(EXS_JPEGLSLossless, &lossless).bad() ||
        !dataset->canWriteXfer(EXS_JPEGLSLossless)) {
        note(file + ": the encoder cannot take this image, left as it is");
    } else {
        // Written beside the file first; the rename replaces it only once the
        // smaller, verified version is complete on disk.
        const long after = Mill::saveSynced(dicom, EXS_JPEGLSLossless, tmp, err) ? fileSize(tmp) : -1;
        if (after < 0) {
            status = fail(err);
        } else if (after >= before) {
            note(file + ": " + std::to_string(before) + " -> " + std::to_string(after) +
                 " bytes, not smaller, left as it is");
        } else if (!decodesIdentically(tmp, original)) {
            note(file + ": encoded pixels do not decode identically, left as it is");
        } else if (rename(tmp.c_str(), file.c_str()) != 0) {
            status = fail(file + ": cannot replace (" + strerror(errno) + ")");
        } else {
            note(file + ": " + std::to_string(before) + " -> " + std::to_string(after) + " bytes");
            renamed = true;
        }
    }
    if (!renamed)
        unlink(tmp.c_str());
    DJLSEncoderRegistration::cleanup();
    DJLSDecoderRegistration::cleanup();
    auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - started);
    note(file + ": " + std::to_string(ms.count()) + " ms");
    return status;
}
