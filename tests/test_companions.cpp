// The companion tools scrubmill and imagemill, run as the processing workers
// run them, on real DICOM files: pydicom's test files in place and images
// made here with DCMTK's own tools.
#include <gtest/gtest.h>
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "testUtil.h"

namespace {

const std::string kToolDir = std::string(HUBTALK_BIN).substr(0, std::string(HUBTALK_BIN).rfind('/'));

// Programs by name go through env, which searches the PATH.
RunResult run(const std::string& program, std::vector<std::string> args) {
    args.insert(args.begin(), {"/usr/bin/env", program});
    return runProgram(args);
}

// Debian's python3-pydicom test files, used in place.
std::string testFiles() { return "/usr/lib/python3/dist-packages/pydicom/data/test_files/"; }

std::string dump(const std::string& file) { return run("dcmdump", {"+uc", file}).out; }

// Every value of a tag in a dump, sequences included; "" for an empty one.
std::vector<std::string> values(const std::string& text, const std::string& tag) {
    std::vector<std::string> found;
    std::regex line("\\(" + tag + "\\) \\w\\w (\\[([^\\]]*)\\]|=(\\S+)|\\(no value available\\))");
    for (std::sregex_iterator it(text.begin(), text.end(), line), end; it != end; ++it)
        found.push_back((*it)[2].matched ? (*it)[2].str() : (*it)[3].str());
    return found;
}
std::string value(const std::string& text, const std::string& tag) {
    auto v = values(text, tag);
    return v.empty() ? "" : v[0];
}

// The pixel data as stored, uncompressed, little endian.
std::string pixels(const TempDir& d, const std::string& file) {
    static int serial = 0;
    std::string dir = d.file("raw" + std::to_string(++serial));
    mkdir(dir.c_str(), 0775);
    EXPECT_EQ(run("dcmdump", {"+W", dir, file}).status, 0);
    auto raw = entriesOf(dir);
    return raw.size() == 1 ? slurp(dir + "/" + raw[0]) : "";
}

// An ultrasound-like 8-bit RGB image, 256 x 200, uncompressed.
std::string makeRgb(const TempDir& d) {
    const int w = 256, h = 200, rowBytes = w * 3;
    std::string bmp = "BM";
    auto le = [&](uint32_t v, int n) { for (int i = 0; i < n; ++i) bmp += char(v >> (8 * i)); };
    le(54 + rowBytes * h, 4), le(0, 4), le(54, 4), le(40, 4), le(w, 4), le(h, 4), le(1, 2), le(24, 2);
    le(0, 4), le(rowBytes * h, 4), le(2835, 4), le(2835, 4), le(0, 4), le(0, 4);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < 3; ++c) bmp += char(16 + (x + y) / 3 + ((x * 7 + y * 13 + c) % 5));
    spit(d.file("us.bmp"), bmp);
    EXPECT_EQ(run("img2dcm", {"-i", "BMP", d.file("us.bmp"), d.file("us.dcm"), "-k", "Modality=US", "-k",
                              "PatientName=Doe^Jane", "-k", "PatientID=P77", "-k", "PatientBirthDate=19700101"})
                  .status, 0);
    unlink(d.file("us.bmp").c_str());
    return d.file("us.dcm");
}

RunResult scrub(const std::string& in, const std::string& out, const std::string& crops, bool strict = false) {
    std::vector<std::string> args = {"--dict-path", "/nonexistent/dicom.dic", "--sundel", "--anonymize", in, out};
    if (strict) args.insert(args.begin() + 2, "--strict-anon");
    if (!crops.empty()) args.insert(args.end() - 2, {"--clip-percent", crops});
    return run(kToolDir + "/scrubmill", args);
}

RunResult mill(const std::string& file) {
    return run(kToolDir + "/imagemill", {"--worker", "2", "--sundel", "--repeat", "--data-dir", "/tmp",
                                         "--process-dir", kToolDir, file});
}

}  // namespace

TEST(Scrubmill, IdentityPrivateDataAndUidsGoTheSameWayEveryRun) {
    TempDir d;
    const std::string us = makeRgb(d);
    for (std::string in : {testFiles() + "CT_small.dcm", testFiles() + "MR_small.dcm", us,
                           testFiles() + "SC_rgb_jpeg_dcmtk.dcm", testFiles() + "693_J2KI.dcm"}) {
        SCOPED_TRACE(in);
        const std::string before = dump(in), original = slurp(in);
        ASSERT_NE(value(before, "0010,0010"), "");
        ASSERT_EQ(scrub(in, d.file("a.dcm"), "0|0|0|0|1").status, 0);
        ASSERT_EQ(scrub(in, d.file("b.dcm"), "").status, 0);
        EXPECT_TRUE(slurp(in) == original);
        const std::string after = dump(d.file("a.dcm"));
        EXPECT_EQ(after, dump(d.file("b.dcm")));
        for (const char* tag : {"0010,0010", "0010,0020", "0010,0030", "0008,0090", "0008,0080", "0010,1010"})
            EXPECT_EQ(value(after, tag), "") << tag;
        for (const char* tag : {"0020,000d", "0020,000e", "0008,0018", "0008,1155", "0020,0052", "0002,0003"})
            for (const std::string& uid : values(before, tag))
                EXPECT_EQ(after.find(uid), std::string::npos) << tag << " " << uid;
        EXPECT_EQ(value(after, "0002,0003"), value(after, "0008,0018"));
        EXPECT_EQ(value(after, "0002,0010"), value(before, "0002,0010"));
        EXPECT_EQ(value(after, "0008,0016"), value(before, "0008,0016"));
        EXPECT_EQ(value(after, "0035,0010"), "SUNDEL");
        EXPECT_EQ(value(after, "0012,0062"), "YES");
        std::regex oddGroup("\\n *\\(([0-9a-f]{3}[13579bdf]),[0-9a-f]{4}\\)");
        std::set<std::string> groups;
        for (std::sregex_iterator it(after.begin(), after.end(), oddGroup), end; it != end; ++it)
            groups.insert((*it)[1]);
        EXPECT_EQ(groups, std::set<std::string>{"0035"});
    }
    EXPECT_NE(value(dump(testFiles() + "CT_small.dcm"), "0009,0010"), "");  // had private data
    auto left = entriesOf(d.path());
    EXPECT_EQ(std::set<std::string>(left.begin(), left.end()), (std::set<std::string>{"a.dcm", "b.dcm", "us.dcm"}));
}

TEST(Scrubmill, DatesAndDescriptionsGoOnlyWhenStrict) {
    TempDir d;
    const std::string ct = testFiles() + "CT_small.dcm", before = dump(ct);
    ASSERT_EQ(scrub(ct, d.file("kept.dcm"), "0").status, 0);
    ASSERT_EQ(scrub(ct, d.file("strict.dcm"), "0", true).status, 0);
    const std::string kept = dump(d.file("kept.dcm")), strict = dump(d.file("strict.dcm"));
    for (const char* tag : {"0008,0020", "0008,0030", "0008,0022", "0008,1030"}) {
        ASSERT_NE(value(before, tag), "") << tag;
        EXPECT_EQ(value(kept, tag), value(before, tag)) << tag;
        EXPECT_EQ(value(strict, tag), "") << tag;
    }
}

TEST(Scrubmill, ClipBlanksTheBandsOfNativePixelsAndRefusesCompressedOnes) {
    TempDir d;
    const std::string us = makeRgb(d), original = pixels(d, us);
    ASSERT_EQ(scrub(us, d.file("clipped.dcm"), "10|5|x").status, 0);
    const std::string clipped = pixels(d, d.file("clipped.dcm"));
    const size_t row = 256 * 3;
    ASSERT_EQ(clipped.size(), original.size());
    ASSERT_EQ(original.size(), row * 200);
    EXPECT_EQ(original.substr(0, 20 * row).find_first_not_of('\0'), 0u);
    EXPECT_EQ(clipped.substr(0, 20 * row).find_first_not_of('\0'), std::string::npos);
    EXPECT_EQ(clipped.substr(190 * row).find_first_not_of('\0'), std::string::npos);
    EXPECT_TRUE(clipped.substr(20 * row, 170 * row) == original.substr(20 * row, 170 * row));

    for (const char* name : {"SC_rgb_jpeg_dcmtk.dcm", "693_J2KI.dcm", "MR_small_RLE.dcm"}) {
        RunResult r = scrub(testFiles() + name, d.file("out.dcm"), "10|0|0|0|0");
        EXPECT_NE(r.status, 0) << name;
        EXPECT_NE(r.err.find("compressed"), std::string::npos) << r.err;
    }
    for (const std::string& name : entriesOf(d.path()))
        EXPECT_TRUE(name == "us.dcm" || name == "clipped.dcm" || name.rfind("raw", 0) == 0) << name;
}

TEST(Companions, BadInputFailsAndLeavesNothingBehind) {
    TempDir d;
    spit(d.file("text.dcm"), std::string(200, 'x') + "not DICOM");
    std::string ct = slurp(testFiles() + "CT_small.dcm");
    spit(d.path() + "/cut.dcm", ct.substr(0, ct.size() / 2));
    const std::string truncated = testFiles() + "MR_truncated.dcm";
    const std::string out = d.file("out.dcm"), cut = d.file("cut.dcm");
    for (const std::vector<std::string>& c : std::vector<std::vector<std::string>>{
             {"scrubmill", d.file("missing.dcm"), out}, {"scrubmill", "--anonymize", d.file("text.dcm"), out},
             {"scrubmill", "--anonymize", cut, out}, {"scrubmill", "--anonymize", truncated, out},
             {"scrubmill", "--anonymise", truncated, out}, {"scrubmill", "--anonymize", truncated},
             {"scrubmill", "--clip-percent"}, {"imagemill", "--sundel", d.file("missing.dcm")},
             {"imagemill", "--sundel", d.file("text.dcm")}, {"imagemill", "--sundel", cut},
             {"imagemill", "--sundel", "--frobnicate", cut}, {"imagemill", "--worker", "x", "--sundel", cut},
             {"imagemill", "--sundel"}}) {
        RunResult r = run(kToolDir + "/" + c[0], std::vector<std::string>(c.begin() + 1, c.end()));
        EXPECT_NE(r.status, 0) << c[0] << " " << c[1];
        EXPECT_NE(r.err, "") << c[0] << " " << c[1];
    }
    EXPECT_EQ(entriesOf(d.path()).size(), 2u);
    EXPECT_TRUE(slurp(cut) == ct.substr(0, ct.size() / 2));
    for (const char* tool : {"scrubmill", "imagemill"}) {
        RunResult r = run(kToolDir + "/" + tool, {"--help"});
        EXPECT_EQ(r.status, 0);
        EXPECT_EQ(r.out.rfind("usage: ", 0), 0u) << r.out;
    }
}

TEST(Imagemill, NativePixelsShrinkLosslesslyCompressedFilesStayAsTheyAre) {
    TempDir d;
    const std::string us = makeRgb(d), ct = d.file("ct.dcm");
    spit(ct, slurp(testFiles() + "CT_small.dcm"));
    for (const std::string& file : {ct, us}) {
        SCOPED_TRACE(file);
        const std::string original = pixels(d, file), bytes = slurp(file);
        ASSERT_EQ(mill(file).status, 0);
        EXPECT_LT(slurp(file).size(), bytes.size());
        EXPECT_EQ(value(dump(file), "0002,0010"), "JPEGLSLossless");
        ASSERT_EQ(run("dcmdjpls", {file, d.file("plain.dcm")}).status, 0);
        EXPECT_TRUE(pixels(d, d.file("plain.dcm")) == original);
        unlink(d.file("plain.dcm").c_str());
    }
    // Compressed ones, and a native one too small to gain anything.
    for (const char* name : {"693_J2KI.dcm", "SC_rgb_jpeg_dcmtk.dcm", "MR_small_RLE.dcm", "image_dfl.dcm",
                             "SC_rgb_small_odd.dcm"}) {
        const std::string copy = d.file(name), bytes = slurp(testFiles() + name);
        spit(copy, bytes);
        EXPECT_EQ(mill(copy).status, 0) << name;
        EXPECT_TRUE(slurp(copy) == bytes) << name;
        unlink(copy.c_str());
    }
    for (const std::string& name : entriesOf(d.path()))
        EXPECT_EQ(name.find(".im."), std::string::npos) << name;
}
