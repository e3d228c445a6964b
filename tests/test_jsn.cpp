#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "jsn.h"

namespace {

// The text lives in an allocation of exactly its length, with no terminator,
// so any read past `length` is caught by the address sanitizer.
struct Doc {
    std::unique_ptr<char[]> buf;
    std::unique_ptr<JsnParser> p;
    explicit Doc(const std::string& s) : buf(new char[s.size()]) {
        if (!s.empty()) memcpy(buf.get(), s.data(), s.size());
        p.reset(new JsnParser(buf.get(), (int)s.size()));
    }
    JsnParser* operator->() { return p.get(); }
};

TEST(Jsn, DocumentShapeQuirks) {
    Doc empty("{}");
    EXPECT_EQ(-2, empty->result());
    EXPECT_TRUE(empty->failed);

    Doc nested("{\"a\":{}}");
    EXPECT_EQ(0, nested->result());
    EXPECT_FALSE(nested->failed);
    EXPECT_EQ(3, nested->tokenCount());
    EXPECT_STREQ("{}", nested->getFullObject(0, "a", 0));

    Doc array("  [1,2]");
    EXPECT_EQ(-3, array->result());
    EXPECT_TRUE(array->failed);
    EXPECT_EQ(0, array->tokenCount());

    Doc unclosed("{\"a\":1, \"b\":{\"c\":2}");
    EXPECT_EQ(-3, unclosed->result());
    EXPECT_TRUE(unclosed->failed);
    // Tokens made before the failure still answer.
    EXPECT_EQ(1, unclosed->getInt(0, "a", 0));

    Doc mismatched("{\"a\":[1}");
    EXPECT_EQ(-2, mismatched->result());

    Doc leadingSpace(" \n\t{\"a\":true}");
    EXPECT_EQ(0, leadingSpace->result());
    EXPECT_TRUE(leadingSpace->getBool(0, "a", 0));
}

TEST(Jsn, TokenLayout) {
    Doc d("{\"k\":[1,\"x\"],\"o\":{\"n\":null}}");
    ASSERT_EQ(0, d->result());
    ASSERT_EQ(9, d->tokenCount());
    const JsnToken& root = d->token(0);
    EXPECT_EQ(JSN_OBJECT, root.type);
    EXPECT_EQ(2, root.size);
    EXPECT_EQ(-1, root.parent);
    const JsnToken& key = d->token(1);
    EXPECT_EQ(JSN_STRING, key.type);
    EXPECT_EQ(2, key.start);
    EXPECT_EQ(3, key.end);
    EXPECT_EQ(1, key.size);
    const JsnToken& arr = d->token(2);
    EXPECT_EQ(JSN_ARRAY, arr.type);
    EXPECT_EQ(1, arr.parent);
    EXPECT_EQ(2, arr.size);
    EXPECT_EQ(12, arr.end);
    EXPECT_EQ(2, d->token(4).parent);
    EXPECT_EQ(JSN_STRING, d->token(4).type);
    EXPECT_EQ(0, d->token(5).parent);  // "o" back at the top after ','
}

TEST(Jsn, StringEscapes) {
    // The two bytes after a complete \u escape are never looked at, so the
    // closing quote right after one is missed and the string runs on.
    Doc skip("{\"k\":\"\\u0041\"xy\", \"n\":1}");
    EXPECT_EQ(0, skip->result());
    EXPECT_STREQ("\\u0041\"xy", skip->getString(0, "k", 0));
    EXPECT_EQ(1, skip->getInt(0, "n", 0));

    Doc kept("{\"k\":\"a\\u0041bcd\",\"e\":\"x\\\"y\\n\"}");
    EXPECT_EQ(0, kept->result());
    EXPECT_STREQ("a\\u0041bcd", kept->getString(0, "k", 0));
    EXPECT_STREQ("x\\\"y\\n", kept->getString(0, "e", 0));

    testing::internal::CaptureStderr();
    Doc bad("{\"k\":\"\\q\"}");
    EXPECT_EQ("JSON parse error - backslash problem\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(-2, bad->result());

    Doc badHex("{\"k\":\"\\u00G1\"}");
    EXPECT_EQ(-2, badHex->result());

    Doc cut("{\"k\":\"abc");
    EXPECT_EQ(-3, cut->result());
}

TEST(Jsn, KeyedLookups) {
    Doc d("{\"s\":\"text\",\"i\":-42,\"f\":2.5,\"t\":True,\"b\":false,\"n\":null,"
          "\"o\":{\"x\":7,\"y\":\"in\"},\"a\":\"first\",\"ab\":\"second\"}");
    ASSERT_EQ(0, d->result());
    EXPECT_STREQ("text", d->getString(0, "s", 0));
    EXPECT_STREQ("-42", d->getString(0, "i", 0));
    EXPECT_STREQ("null", d->getString(0, "n", 0));
    EXPECT_EQ(-42, d->getInt(0, "i", 0));
    EXPECT_DOUBLE_EQ(2.5, d->getFloat(0, "f", 0));
    EXPECT_TRUE(d->getBool(0, "t", 0));
    EXPECT_FALSE(d->getBool(0, "b", 0));
    // Numeric accessors take primitives only.
    EXPECT_EQ(0, d->getInt(0, "s", 0));
    // An object value has no string form.
    EXPECT_STREQ("", d->getString(0, "o", 0));
    EXPECT_STREQ("", d->getString(0, "missing", 0));
    // Exact keys for values, prefix keys for objects.
    EXPECT_STREQ("second", d->getString(0, "ab", 0));
    int o = d->getObject(0, "o", 0);
    ASSERT_GT(o, 0);
    EXPECT_EQ(7, d->getInt(o, "x", 0));
    EXPECT_STREQ("in", d->getString(o, "y", 0));
    EXPECT_EQ(0, d->getInt(0, "x", 0));  // only direct children of the parent count
    EXPECT_EQ(d->getObject(0, "a", 0), d->getObject(0, "ab", 0));
    EXPECT_EQ(-1, d->getObject(0, "zz", 0));
}

TEST(Jsn, ArrayIndexing) {
    Doc strings("{\"k\":[\"a\",\"b\"]}");
    EXPECT_STREQ("a", strings->getString(0, "k", 1));
    EXPECT_STREQ("b", strings->getString(0, "k", 2));
    EXPECT_STREQ("", strings->getString(0, "k", 3));
    EXPECT_STREQ("", strings->getString(0, "k", 0));

    Doc numbers("{\"k\":[1,2]}");
    EXPECT_EQ(2, numbers->getInt(0, "k", 1));
    EXPECT_EQ(0, numbers->getInt(0, "k", 2));
    EXPECT_EQ(0, numbers->getInt(0, "k", 0));

    Doc objs("{\"arr\":[1,{\"y\":2},{\"y\":3}]}");
    EXPECT_EQ(-1, objs->getObject(0, "arr", 0));
    EXPECT_EQ(-1, objs->getObject(0, "arr", 1));  // element 1 is a number
    int second = objs->getObject(0, "arr", 2);
    ASSERT_GT(second, 0);
    EXPECT_EQ(2, objs->getInt(second, "y", 0));
    EXPECT_EQ(3, objs->getInt(objs->getObject(0, "arr", 3), "y", 0));
    EXPECT_EQ(-1, objs->getObject(0, "arr", 4));

    // More tokens than the initial table holds.
    std::string big = "{\"k\":[";
    for (int i = 0; i < 2000; i++) big += std::to_string(i) + (i < 1999 ? "," : "");
    big += "]}";
    Doc many(big);
    ASSERT_EQ(0, many->result());
    EXPECT_EQ(2000, many->getArrayNum(0, "k", 0));
    EXPECT_EQ(1999, many->getInt(0, "k", 1999));
}

TEST(Jsn, RawTextCopies) {
    Doc d("{\"o\":{\"x\":[1]},\"s\":\"str\",\"arr\":[1,{\"y\":2}],\"a\":[9],\"a\":[1,2,3]}");
    ASSERT_EQ(0, d->result());
    EXPECT_STREQ("{\"x\":[1]}", d->getFullObject(0, "o", 0));
    EXPECT_STREQ("\"str\"", d->getFullObject(0, "s", 0));
    EXPECT_STREQ("{\"y\":2}", d->getFullObject(0, "arr", 2));
    EXPECT_STREQ("{ }", d->getFullObject(0, "nothing", 0));
    EXPECT_STREQ("[1,{\"y\":2}]", d->getFullArray(0, "arr", 0));
    EXPECT_EQ(2, d->getArrayNum(0, "arr", 0));
    EXPECT_STREQ("[ ]", d->getFullArray(0, "o", 0));
    EXPECT_EQ(0, d->getArrayNum(0, "s", 0));
    // The index picks among keys that are a prefix of the one asked for.
    EXPECT_EQ(1, d->getArrayNum(0, "a", 0));
    EXPECT_EQ(3, d->getArrayNum(0, "a", 1));
    EXPECT_STREQ("[1,2,3]", d->getFullArray(0, "a", 1));
    EXPECT_STREQ("[ ]", d->getFullArray(0, "a", 2));
    EXPECT_EQ(2, d->getArrayNum(0, "arrays", 0));
}

TEST(Jsn, LengthBoundsTheText) {
    // Bytes beyond the length are never part of a token.
    std::string s = "{\"a\":12345}";
    std::unique_ptr<char[]> buf(new char[s.size()]);
    memcpy(buf.get(), s.data(), s.size());
    JsnParser p(buf.get(), 7);  // {"a":12
    EXPECT_EQ(-3, p.result());
    EXPECT_EQ(12, p.getInt(0, "a", 0));
    EXPECT_STREQ("12", p.getString(0, "a", 0));

    // An embedded NUL ends the scan.
    std::string z("{\"a\":1}\0{\"b\":2}", 15);
    Doc nul(z);
    EXPECT_EQ(0, nul->result());
    EXPECT_EQ(0, nul->getInt(0, "b", 0));
}

// Every accessor on every parent, checking the token table stays inside the text.
void exercise(const std::string& input) {
    Doc d(input);
    int n = d->tokenCount();
    for (int i = 0; i < n; i++) {
        const JsnToken& t = d->token(i);
        ASSERT_GE(t.start, 0);
        ASSERT_LE(t.start, (int)input.size());
        ASSERT_TRUE(t.end == -1 || (t.end >= t.start && t.end <= (int)input.size()));
        ASSERT_LT(t.parent, i);
        ASSERT_GE(t.type, JSN_PRIMITIVE);
        ASSERT_LE(t.type, JSN_STRING);
    }
    static const char* keys[] = {"a", "ab", "", "k", "\\u0041"};
    int limit = n < 12 ? n : 12;
    for (int parent = -1; parent < limit; parent++) {
        for (const char* key : keys) {
            for (int index = 0; index < 4; index++) {
                char* s = d->getString(parent, key, index);
                ASSERT_NE(nullptr, s);
                (void)strlen(s);
                (void)d->getInt(parent, key, index);
                (void)d->getFloat(parent, key, index);
                (void)d->getBool(parent, key, index);
                int o = d->getObject(parent, key, index);
                ASSERT_TRUE(o == -1 || (o > parent && o < n));
                ASSERT_NE(nullptr, d->getFullObject(parent, key, index));
                ASSERT_GE(d->getArrayNum(parent, key, index), 0);
                ASSERT_NE(nullptr, d->getFullArray(parent, key, index));
            }
        }
    }
}

TEST(Jsn, FuzzNeverLeavesTheText) {
    const std::vector<std::string> corpus = {
        "{\"a\":1,\"ab\":[1,2,{\"k\":\"v\"}],\"o\":{\"a\":true}}",
        "{\"k\":[\"a\",\"b\"],\"s\":\"x\\u0041\\\"y\",\"n\":null,\"f\":-1.5e3}",
        "{ \"a\" : { \"a\" : { \"a\" : [ [ ], { } ] } } , \"k\" : \"\\/\\b\\f\\n\\r\\t\" }",
        "{\"files\":[\"/x/y.dcm\",\"/z.pdf\"],\"share_report\":true,\"pinfo\":{\"ab\":\"c\"}}",
    };
    const std::string alphabet = "{}[]\":,\\u0aA1 \t\nkbtrf-.e";
    std::mt19937 rng(12345);
    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    int cases = 0;

    // Bad escapes complain on every hit; keep the log readable.
    testing::internal::CaptureStderr();
    for (const std::string& doc : corpus)
        for (size_t len = 0; len <= doc.size(); len++) exercise(doc.substr(0, len));

    while (std::chrono::steady_clock::now() < deadline && cases < 40000) {
        std::string input;
        if (cases % 2 == 0) {
            size_t len = rng() % 48;
            for (size_t i = 0; i < len; i++) {
                unsigned r = rng() % 10;
                input += r < 7 ? alphabet[rng() % alphabet.size()] : (char)(rng() & 0xFF);
            }
            if (rng() % 2) input.insert(0, 1, '{');
        } else {
            input = corpus[rng() % corpus.size()];
            int edits = 1 + (int)(rng() % 4);
            for (int e = 0; e < edits && !input.empty(); e++) {
                size_t at = rng() % input.size();
                char c = (rng() % 4) ? alphabet[rng() % alphabet.size()] : (char)(rng() & 0xFF);
                switch (rng() % 3) {
                case 0: input[at] = c; break;
                case 1: input.insert(at, 1, c); break;
                default: input.erase(at, 1 + rng() % 3); break;
                }
            }
            if (rng() % 3 == 0) input.resize(rng() % (input.size() + 1));
        }
        exercise(input);
        if (HasFatalFailure()) {
            testing::internal::GetCapturedStderr();
            ADD_FAILURE() << "input: " << testing::PrintToString(input);
            return;
        }
        cases++;
    }
    testing::internal::GetCapturedStderr();
    EXPECT_GT(cases, 1000);
}

}  // namespace
