// scrubmill: de-identifies a DICOM file, blanks bands of its pixels and marks
// it processed, writing the result to a new file. See usage() for the crop
// answer's fields.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "deidentify.h"
#include "millCommon.h"

namespace {

// Private creator written by --sundel; the agent treats a file carrying
// (0035,0010) as already processed.
const char kProcessedMark[] = "SUNDEL";

void usage(FILE* out) {
    fprintf(out,
            "usage: scrubmill [--dict-path FILE] [--strict-anon] [--sundel] [--anonymize]\n"
            "                 [--clip-percent \"CROPS\"] IN OUT\n"
            "Reads the DICOM file IN and writes the processed copy to OUT (IN is never changed).\n"
            "  --dict-path FILE  also load this data dictionary when the file exists\n"
            "  --anonymize       apply the Basic Application Level Confidentiality Profile:\n"
            "                    remove/empty identifying attributes (in sequences too), remove\n"
            "                    private attributes, replace UIDs by derived 2.25 UIDs (the same\n"
            "                    input UID always gives the same output UID)\n"
            "  --strict-anon     also remove dates, times and free-text descriptions\n"
            "  --sundel          write the private creator (0035,0010) \"%s\" marking the\n"
            "                    file as processed\n"
            "  --clip-percent \"CROPS\"  set to 0 the pixel bands named by CROPS, fields\n"
            "                    separated by '|': percentages of the image height to blank at\n"
            "                    the top, then the bottom, then percentages of the width at the\n"
            "                    left, then the right. Missing or non-numeric fields count as 0,\n"
            "                    values are clamped to 0..100, bands are rounded up to whole\n"
            "                    pixels; further fields are ignored. Clipping compressed pixel\n"
            "                    data is refused (exit 1, no OUT); a file without pixel data\n"
            "                    has nothing to clip.\n"
            "  --help            show this text\n"
            "Exit status 0 only when OUT was written completely.\n",
            kProcessedMark);
}

int fail(const std::string& message) {
    fprintf(stderr, "scrubmill: %s\n", message.c_str());
    return 1;
}

// One field of the crop answer as a percentage; anything unreadable is 0.
double cropField(const std::string& text) {
    const char* s = text.c_str();
    char* end = nullptr;
    double v = strtod(s, &end);
    if (end == s)
        return 0;
    while (*end == ' ' || *end == '\t')
        ++end;
    if (*end != '\0' || !(v > 0))
        return 0;
    return v > 100 ? 100 : v;
}

struct Crop {
    double top = 0, bottom = 0, left = 0, right = 0;
    bool any() const { return top > 0 || bottom > 0 || left > 0 || right > 0; }
};

Crop parseCrop(const std::string& answer) {
    double f[4] = {0, 0, 0, 0};
    size_t start = 0;
    for (int i = 0; i < 4 && start <= answer.size(); ++i) {
        size_t end = answer.find('|', start);
        f[i] = cropField(answer.substr(start, end == std::string::npos ? std::string::npos : end - start));
        if (end == std::string::npos)
            break;
        start = end + 1;
    }
    return Crop{f[0], f[1], f[2], f[3]};
}

unsigned long band(double percent, unsigned long size) {
    unsigned long n = static_cast<unsigned long>(percent * size / 100.0 + 0.999999);
    return n > size ? size : n;
}

bool clipPixels(DcmDataset* dataset, const Crop& crop, std::string& err) {
    Mill::ImageGeometry g;
    if (!Mill::imageGeometry(dataset, g, err))
        return false;
    Uint8* bytes = nullptr;
    unsigned long length = 0;
    if (!Mill::nativePixelBytes(dataset, bytes, length)) {
        err = "no pixel data to clip";
        return false;
    }
    if (length < g.byteCount()) {
        err = "pixel data shorter than the image attributes say";
        return false;
    }
    const unsigned long top = band(crop.top, g.rows), bottom = band(crop.bottom, g.rows);
    unsigned long left = band(crop.left, g.columns), right = band(crop.right, g.columns);
    if (g.pairs422) {  // a pair is cleared whole when either of its pixels is in a band
        left = (left + 1) / 2, right = (right + 1) / 2;
        g.columns = (g.columns + 1) / 2, g.samples = 4, g.bitsAllocated = 8;
    }
    const unsigned long bps = g.bitsAllocated / 8;
    // Zero is zero in either byte order, so whole samples are cleared byte-wise.
    auto clear = [&](unsigned long frame, unsigned long sample, unsigned long row, unsigned long col) {
        unsigned long index = g.planar
            ? ((frame * g.samples + sample) * g.rows + row) * g.columns + col
            : ((frame * g.rows + row) * g.columns + col) * g.samples + sample;
        memset(bytes + index * bps, 0, bps);
    };
    for (unsigned long f = 0; f < g.frames; ++f)
        for (unsigned long r = 0; r < g.rows; ++r) {
            bool wholeRow = r < top || r >= g.rows - bottom;
            for (unsigned long c = 0; c < g.columns; ++c)
                if (wholeRow || c < left || c >= g.columns - right)
                    for (unsigned long s = 0; s < g.samples; ++s)
                        clear(f, s, r, c);
        }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    std::string dictPath, in, out, cropAnswer;
    bool strict = false, mark = false, anonymize = false, clip = false;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string& into) { return Mill::optionValue(argc, argv, i, into); };
        if (a == "--help" || a == "-h") {
            usage(stdout);
            return 0;
        } else if (a == "--dict-path") {
            if (!value(dictPath))
                return fail("--dict-path needs a file name");
        } else if (a == "--clip-percent") {
            if (!value(cropAnswer))
                return fail("--clip-percent needs the crop values");
            clip = true;
        } else if (a == "--strict-anon") {
            strict = true;
        } else if (a == "--sundel") {
            mark = true;
        } else if (a == "--anonymize") {
            anonymize = true;
        } else if (a.size() > 1 && a[0] == '-') {
            usage(stderr);
            return fail("unknown option " + a);
        } else if (in.empty()) {
            in = a;
        } else if (out.empty()) {
            out = a;
        } else {
            return fail("too many arguments: " + a);
        }
    }
    if (in.empty() || out.empty()) {
        usage(stderr);
        return fail("input and output files are required");
    }

    OFLog::configure(OFLogger::WARN_LOG_LEVEL);
    struct stat st;
    if (!dictPath.empty() && stat(dictPath.c_str(), &st) == 0) {
        DcmDataDictionary& dict = dcmDataDict.wrlock();
        bool loaded = dict.loadDictionary(dictPath.c_str());
        dcmDataDict.wrunlock();
        if (!loaded)  // tags are matched by number; the default dictionary still serves
            fprintf(stderr, "scrubmill: %s: cannot load data dictionary, going on without it\n",
                    dictPath.c_str());
    }

    DcmFileFormat file;
    std::string err;
    if (!Mill::loadDicomFile(in, file, err))
        return fail(err);
    DcmDataset* dataset = file.getDataset();
    const E_TransferSyntax xfer = dataset->getOriginalXfer();

    Crop crop = clip ? parseCrop(cropAnswer) : Crop{};
    bool clipped = false;
    if (crop.any() && dataset->tagExists(DCM_PixelData)) {  // no pixels: nothing to blank
        // Deflate wraps the whole stream: the pixels are native once read.
        if (DcmXfer(xfer).isEncapsulated())
            return fail(in + ": pixel data is compressed (" + DcmXfer(xfer).getXferName() +
                        "), cannot clip it; nothing written");
        if (!clipPixels(dataset, crop, err))
            return fail(in + ": " + err);
        clipped = true;
    }
    if (anonymize) {
        Scrub::Options options;
        options.strict = strict;
        options.pixelsCleaned = clipped;
        Scrub::deidentify(file, options);
    }
    if (mark)
        dataset->putAndInsertString(DcmTagKey(0x0035, 0x0010), kProcessedMark);

    std::string tmp = out + ".scrub." + std::to_string(getpid());
    if (!Mill::writeReplacing(file, EXS_Unknown, tmp, out, err))
        return fail(err);
    return 0;
}
