// Recognising DICOM and HL7 files and reading their attributes, on real
// files (pydicom's test files, used in place) and files made with DCMTK.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <thread>
#include <vector>

#include "dicom.h"
#include "memory.h"
#include "testUtil.h"

namespace {

const std::string REAL = "/usr/lib/python3/dist-packages/pydicom/data/test_files/";

std::string attr(const std::string& file, const char* keyword, const std::string& dir) {
    Memory mem;
    KeyValues<char> table;
    const char* tags[] = {keyword, nullptr};
    if (getAttrMap(file.c_str(), table, tags, dir.c_str(), "dump.txt", &mem) != 0) return "<failed>";
    const char* v = table.get(keyword);
    return v ? v : "<absent>";
}

// An encapsulated PDF, its MIME type and class as given.
std::string pdfDicom(const TempDir& t, const std::string& mime, const std::string& sopClass) {
    spit(t.file("r.pdf"), "%PDF-1.4\n1 0 obj<<>>endobj\ntrailer<<>>\n%%EOF\n");
    std::string out = t.file("pdf-" + std::to_string(mime.size()) + sopClass + ".dcm");
    EXPECT_EQ(0, runProgram({"/usr/bin/pdf2dcm", t.file("r.pdf"), out}).status);
    EXPECT_EQ(0, runProgram({"/usr/bin/dcmodify", "-nb", "-m", "MIMETypeOfEncapsulatedDocument=" + mime,
                             "-m", "SOPClassUID=" + sopClass, out})
                     .status);
    return out;
}

}  // namespace

TEST(DicomFiles, MagicBytesOnlyInRegularFiles) {
    TempDir t;
    spit(t.file("short"), std::string(131, 'x'));
    spit(t.file("hl7"), "MSH|^~\\&|x");
    spit(t.file("msh"), "MSH^x");
    mkdir(t.file("dir.dcm").c_str(), 0775);
    mkfifo(t.file("fifo").c_str(), 0664);  // must not block
    EXPECT_TRUE(isDicom(REAL.c_str(), "CT_small.dcm"));
    EXPECT_TRUE(isDicom((REAL + "CT_small.dcm").c_str(), ""));
    for (const char* name : {"short", "hl7", "dir.dcm", "fifo", "missing"})
        EXPECT_FALSE(isDicom(t.path().c_str(), name)) << name;
    EXPECT_FALSE(isDicom(REAL.c_str(), "no_meta.dcm"));
    EXPECT_TRUE(isHL7(t.path().c_str(), "hl7"));
    for (const char* name : {"msh", "short", "fifo"}) EXPECT_FALSE(isHL7(t.path().c_str(), name));

    char uid[65];
    ASSERT_TRUE(getSopInstance((REAL + "CT_small.dcm").c_str(), uid, sizeof uid));
    EXPECT_NE(std::string::npos, runProgram({"/usr/bin/dcmdump", "-M", "+P", "MediaStorageSOPInstanceUID",
                                             REAL + "CT_small.dcm"})
                                     .out.find(std::string("[") + uid + "]"));
    EXPECT_EQ(nullptr, getSopInstance((REAL + "no_meta.dcm").c_str(), uid, sizeof uid));

    // Broken files: never a crash, never a value made up.
    std::string preamble = std::string(128, '\0') + "DICM";
    struct Bad { const char* name; std::string bytes; bool dicom; } bad[] = {
        {"empty", "", false},
        {"garbage", preamble + std::string(300, '\xff'), true},
        {"huge meta element", preamble + std::string("\x02\x00\x01\x00OB\0\0\xf0\xff\xff\xff", 12) + "x", true},
        {"truncated", slurp(REAL + "MR_truncated.dcm").substr(0, 200), true},
    };
    for (const Bad& b : bad) {
        spit(t.file(b.name), b.bytes);
        EXPECT_EQ(b.dicom, isDicom(t.path().c_str(), b.name)) << b.name;
        EXPECT_EQ(nullptr, getSopInstance(t.file(b.name).c_str(), uid, sizeof uid)) << b.name;
        std::string modality = attr(t.file(b.name), "Modality", t.path());
        EXPECT_TRUE(modality == "<failed>" || modality == "<absent>") << b.name << ": " << modality;
    }
}

TEST(DicomFiles, AttributeTableOfRealFiles) {
    TempDir t;
    struct Case { const char* file; const char* keyword; const char* value; } cases[] = {
        {"CT_small.dcm", "Manufacturer", "GE MEDICAL SYSTEMS"},
        {"CT_small.dcm", "Rows", "128"},  // a number dumped without brackets
        {"CT_small.dcm", "SOPClassUID", "1.2.840.10008.5.1.4.1.1.2"},
        {"rtdose.dcm", "NumberOfFrames", "15"},
        {"rtdose.dcm", "ReferringPhysicianName", "<absent>"},  // (no value available)
        {"SC_rgb_rle.dcm", "ReferringPhysicianName", "Moriarty^James"},
        {"MR_small_implicit.dcm", "Modality", "MR"},
        {"MR_truncated.dcm", "Modality", "MR"},
    };
    for (const Case& c : cases)
        EXPECT_EQ(c.value, attr(REAL + c.file, c.keyword, t.path())) << c.file << " " << c.keyword;
    EXPECT_EQ("<failed>", attr(t.file("missing.dcm"), "Modality", t.path()));
    EXPECT_FALSE(exists(t.file("dump.txt")));
}

// The exam keys read without a dump agree with the dump on every real file
// both can read (explicit and implicit VR, sequences of defined and undefined
// length before the keys, sequences of unknown VR).
TEST(DicomFiles, ExamKeysWithoutADumpAgreeWithTheDump) {
    // The top-level value as dcmdump shows it; "<skip>" when it cannot read the
    // file or shows the value as bytes (unknown VR).
    auto first = [](const std::string& file, const char* keyword) -> std::string {
        RunResult r = runProgram({"/usr/bin/dcmdump", "-M", "-s", "+p", "+P", keyword, file});
        if (r.status != 0 || r.out.find(" UN ") != std::string::npos) return "<skip>";
        if (r.out.size() > 11 && r.out[11] == '.') return "";  // only inside a sequence
        size_t open = r.out.find('['), close = r.out.find(']');
        return open == std::string::npos || close < open ? "" : r.out.substr(open + 1, close - open - 1);
    };
    int compared = 0;
    RunResult list = runProgram({"/usr/bin/find", REAL, "-type", "f", "-name", "*.dcm"});
    for (size_t at = 0, nl; (nl = list.out.find('\n', at)) != std::string::npos; at = nl + 1) {
        std::string file = list.out.substr(at, nl - at);
        StudyKeys k;
        std::string patient = first(file, "PatientID"), study = first(file, "StudyInstanceUID");
        if (!getStudyKeys(file.c_str(), &k) || patient == "<skip>" || study == "<skip>") continue;
        EXPECT_EQ(patient, k.patientId) << file;
        EXPECT_EQ(study, k.studyUid) << file;
        ++compared;
    }
    EXPECT_GT(compared, 40);
    StudyKeys k;
    EXPECT_FALSE(getStudyKeys((REAL + "ExplVR_BigEnd.dcm").c_str(), &k));  // left to the dump
}

TEST(DicomFiles, NamesFromTheShellAreJustNames) {
    TempDir t;
    for (std::string name : {"a b.dcm", "it's.dcm", "$(touch pwned).dcm", "`touch pwned`.dcm",
                             "x\"y;touch pwned.dcm"}) {
        std::string path = t.file(name);
        spit(path, slurp(REAL + "CT_small.dcm"));
        EXPECT_EQ("CT", attr(path, "Modality", t.path())) << name;
    }
    EXPECT_FALSE(exists(t.file("pwned")));
    EXPECT_FALSE(exists("pwned"));
}

// Long values are not loaded, so a large file costs no more memory than a
// small one; the attributes asked for are short, so the dump is the same.
TEST(DicomFiles, LargeMultiframeDumpsTheSameWithoutLoadingPixels) {
    TempDir t;
    const int frames = 800, side = 512;
    {
        std::string row(side * side, '\x5a');
        FILE* f = fopen(t.file("pixels.raw").c_str(), "wb");
        for (int i = 0; i < frames; ++i) fwrite(row.data(), 1, row.size(), f);
        fclose(f);
    }
    spit(t.file("big.dump"),
         "(0008,0016) UI [1.2.840.10008.5.1.4.1.1.7.2]\n(0008,0018) UI [1.2.3.4]\n"
         "(0008,0060) CS [OT]\n(0020,000d) UI [1.2.3]\n(0028,0002) US 1\n"
         "(0028,0004) CS [MONOCHROME2]\n(0028,0008) IS [" + std::to_string(frames) + "]\n"
         "(0028,0010) US " + std::to_string(side) + "\n(0028,0011) US " + std::to_string(side) +
         "\n(0028,0100) US 8\n(0028,0101) US 8\n(0028,0102) US 7\n(0028,0103) US 0\n"
         "(7fe0,0010) OB =" + t.file("pixels.raw") + "\n");
    std::string big = t.file("big.dcm");
    ASSERT_EQ(0, runProgram({"/usr/bin/dump2dcm", "+te", "-g", t.file("big.dump"), big}, "", 120).status);
    std::vector<std::string> dump = {"/usr/bin/dcmdump", "+P", "NumberOfFrames", "+P", "SOPClassUID",
                                     "+P", "StudyInstanceUID", "--no-uid-names", big};
    std::string whole = runProgram(dump, "", 120).out;
    dump.insert(dump.begin() + 1, "-M");
    EXPECT_EQ(whole, runProgram(dump).out);
    EXPECT_EQ(std::to_string(frames), attr(big, "NumberOfFrames", t.path()));

    Memory mem;
    EXPECT_STREQ("1.2.3", isSecondaryCapture(big.c_str(), t.path().c_str(), &mem));
}

TEST(DicomFiles, ClassifiersOnParallelCallersSharingADirectory) {
    TempDir t;
    std::string pdf = pdfDicom(t, "application/pdf", "1.2.840.10008.5.1.4.1.1.104.1");
    std::string mixedCase = pdfDicom(t, "Application/PDF", "1.2.3");
    std::string notPdf = pdfDicom(t, "text/plain", "1.2.3");
    std::string sc = REAL + "SC_rgb_rle.dcm", ct = REAL + "CT_small.dcm";
    std::vector<std::thread> callers;
    std::vector<int> wrong(4, 0);
    for (int i = 0; i < 4; ++i)
        callers.emplace_back([&, i] {
            Memory mem;
            for (int round = 0; round < 3; ++round) {
                const char* dir = t.path().c_str();
                wrong[i] += !*isSecondaryCapture(sc.c_str(), dir, &mem);
                wrong[i] += *isSecondaryCapture(ct.c_str(), dir, &mem) != 0;
                wrong[i] += !*isPdfFile(pdf.c_str(), dir, &mem);
                wrong[i] += !*isPdfFile(mixedCase.c_str(), dir, &mem);
                wrong[i] += *isPdfFile(notPdf.c_str(), dir, &mem) != 0;
                wrong[i] += *isPdfFile(ct.c_str(), dir, &mem) != 0;
            }
        });
    for (auto& c : callers) c.join();
    for (int i = 0; i < 4; ++i) EXPECT_EQ(0, wrong[i]) << "caller " << i;
    Memory mem;
    EXPECT_STREQ("1.2.826.0.1.3680043.8.498.12406831542731051035295345080039845114",
                 isSecondaryCapture(sc.c_str(), t.path().c_str(), &mem));
}
