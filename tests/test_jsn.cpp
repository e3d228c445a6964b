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
    explicit Doc(const std::string& s, int length = -1) : buf(new char[s.size()]) {
        if (!s.empty()) memcpy(buf.get(), s.data(), s.size());
        p.reset(new JsnParser(buf.get(), length < 0 ? (int)s.size() : length));
    }
    JsnParser* operator->() { return p.get(); }
};

TEST(Jsn, DocumentShapeQuirks) {
    Doc empty("{}");
    EXPECT_EQ(-2, empty->result());
    EXPECT_TRUE(empty->failed);

    Doc nested("{\"a\":{}}");
    EXPECT_EQ(0, nested->result());
    EXPECT_EQ(3, nested->tokenCount());
    EXPECT_STREQ("{}", nested->getFullObject(0, "a", 0));

    Doc array("  [1,2]");
    EXPECT_EQ(-3, array->result());
    EXPECT_EQ(0, array->tokenCount());

    Doc unclosed("{\"a\":1, \"b\":{\"c\":2}");
    EXPECT_EQ(-3, unclosed->result());
    EXPECT_TRUE(unclosed->failed);
    EXPECT_EQ(1, unclosed->getInt(0, "a", 0));  // tokens made before the failure still answer

    EXPECT_EQ(-2, Doc("{\"a\":[1}")->result());
    // The length and an embedded NUL both end the text.
    Doc cut("{\"a\":12345}", 7);
    EXPECT_EQ(-3, cut->result());
    EXPECT_STREQ("12", cut->getString(0, "a", 0));
    Doc nul(std::string("{\"a\":1}\0{\"b\":2}", 15));
    EXPECT_EQ(0, nul->result());
    EXPECT_EQ(0, nul->getInt(0, "b", 0));

    Doc spaced(" \n\t{\"o\":{\"n\":true}}");
    EXPECT_EQ(0, spaced->result());
    EXPECT_TRUE(spaced->getBool(spaced->getObject(0, "o", 0), "n", 0));
}

TEST(Jsn, StringEscapes) {
    // The two bytes after a complete \u escape are never looked at, so the
    // closing quote right after one is missed and the string runs on.
    Doc skip("{\"k\":\"\\u0041\"xy\", \"n\":1}");
    EXPECT_EQ(0, skip->result());
    EXPECT_STREQ("\\u0041\"xy", skip->getString(0, "k", 0));
    EXPECT_EQ(1, skip->getInt(0, "n", 0));

    Doc kept("{\"k\":\"a\\u0041bcd\",\"e\":\"x\\\"y\\n\"}");
    EXPECT_STREQ("a\\u0041bcd", kept->getString(0, "k", 0));
    EXPECT_STREQ("x\\\"y\\n", kept->getString(0, "e", 0));

    testing::internal::CaptureStderr();
    Doc bad("{\"k\":\"\\q\"}");
    EXPECT_EQ("JSON parse error - backslash problem\n", testing::internal::GetCapturedStderr());
    EXPECT_EQ(-2, bad->result());
    EXPECT_EQ(-2, Doc("{\"k\":\"\\u00G1\"}")->result());
    EXPECT_EQ(-3, Doc("{\"k\":\"abc")->result());
}

TEST(Jsn, KeyedLookups) {
    Doc d("{\"s\":\"text\",\"i\":-42,\"f\":2.5,\"t\":True,\"b\":false,\"n\":null,"
          "\"o\":{\"x\":7,\"y\":\"in\"},\"a\":\"first\",\"ab\":\"second\"}");
    ASSERT_EQ(0, d->result());
    EXPECT_STREQ("text", d->getString(0, "s", 0));
    EXPECT_STREQ("null", d->getString(0, "n", 0));
    EXPECT_EQ(-42, d->getInt(0, "i", 0));
    EXPECT_DOUBLE_EQ(2.5, d->getFloat(0, "f", 0));
    EXPECT_TRUE(d->getBool(0, "t", 0));
    EXPECT_FALSE(d->getBool(0, "b", 0));
    EXPECT_EQ(0, d->getInt(0, "s", 0));  // numeric accessors take primitives only
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
    // getString counts elements from 1, the numeric accessors from 0.
    Doc strings("{\"k\":[\"a\",\"b\"]}");
    EXPECT_STREQ("a", strings->getString(0, "k", 1));
    EXPECT_STREQ("b", strings->getString(0, "k", 2));
    EXPECT_STREQ("", strings->getString(0, "k", 0));
    Doc numbers("{\"k\":[1,2]}");
    EXPECT_EQ(2, numbers->getInt(0, "k", 1));
    EXPECT_EQ(0, numbers->getInt(0, "k", 2));

    Doc objs("{\"arr\":[1,{\"y\":2},{\"y\":3}]}");
    EXPECT_EQ(-1, objs->getObject(0, "arr", 0));
    EXPECT_EQ(-1, objs->getObject(0, "arr", 1));  // element 1 is a number
    EXPECT_EQ(2, objs->getInt(objs->getObject(0, "arr", 2), "y", 0));
    EXPECT_EQ(3, objs->getInt(objs->getObject(0, "arr", 3), "y", 0));
    EXPECT_EQ(-1, objs->getObject(0, "arr", 4));

    // More tokens than the initial table holds.
    std::string big = "{\"k\":[0";
    for (int i = 1; i < 2000; i++) big += "," + std::to_string(i);
    Doc many(big + "]}");
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
    EXPECT_STREQ("[ ]", d->getFullArray(0, "o", 0));
    // The index picks among keys that are a prefix of the one asked for.
    EXPECT_EQ(1, d->getArrayNum(0, "a", 0));
    EXPECT_STREQ("[1,2,3]", d->getFullArray(0, "a", 1));
    EXPECT_STREQ("[ ]", d->getFullArray(0, "a", 2));
    EXPECT_EQ(2, d->getArrayNum(0, "arrays", 0));
}

// Every accessor on every parent; the token table must stay inside the text.
void exercise(const std::string& input) {
    Doc d(input);
    const int n = d->tokenCount(), size = (int)input.size();
    for (int i = 0; i < n; i++) {
        const JsnToken& t = d->token(i);
        ASSERT_TRUE(t.start >= 0 && t.start <= size && t.parent < i) << i;
        ASSERT_TRUE(t.end == -1 || (t.end >= t.start && t.end <= size)) << i;
        ASSERT_TRUE(t.type >= JSN_PRIMITIVE && t.type <= JSN_STRING) << i;
    }
    for (int parent = -1; parent < std::min(n, 12); parent++) {
        for (const char* key : {"a", "ab", "", "k", "\\u0041"}) {
            for (int index = 0; index < 4; index++) {
                for (const char* s : {d->getString(parent, key, index), d->getFullObject(parent, key, index),
                                      d->getFullArray(parent, key, index)})
                    ASSERT_TRUE(s != nullptr && strlen(s) <= (size_t)size + 3);
                (void)d->getInt(parent, key, index);
                (void)d->getFloat(parent, key, index);
                (void)d->getBool(parent, key, index);
                int o = d->getObject(parent, key, index);
                ASSERT_TRUE(o == -1 || (o > parent && o < n));
                ASSERT_GE(d->getArrayNum(parent, key, index), 0);
            }
        }
    }
}

TEST(Jsn, FuzzNeverLeavesTheText) {
    const std::vector<std::string> corpus = {
        "{\"a\":1,\"ab\":[1,2,{\"k\":\"v\"}],\"o\":{\"a\":true}}",
        "{\"k\":[\"a\",\"b\"],\"s\":\"x\\u0041\\\"y\",\"n\":null,\"f\":-1.5e3}",
        "{ \"a\" : { \"a\" : { \"a\" : [ [ ], { } ] } } , \"k\" : \"\\/\\b\\f\\n\\r\\t\" }",
    };
    const std::string alphabet = "{}[]\":,\\u0aA1 \t\nkbtrf-.e";
    std::mt19937 rng(12345);
    auto pick = [&] { return rng() % 4 ? alphabet[rng() % alphabet.size()] : (char)(rng() & 0xFF); };
    testing::internal::CaptureStderr();  // bad escapes complain on every hit
    for (const std::string& doc : corpus)
        for (size_t len = 0; len <= doc.size(); len++) exercise(doc.substr(0, len));

    auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    int cases = 0;
    for (; cases < 40000 && !HasFatalFailure() && std::chrono::steady_clock::now() < deadline; cases++) {
        std::string input(rng() % 2, '{');
        if (cases % 2) {
            input = corpus[rng() % corpus.size()];
            for (int e = 1 + (int)(rng() % 4); e > 0; e--) {
                size_t at = rng() % input.size();
                switch (rng() % 3) {
                case 0: input[at] = pick(); break;
                case 1: input.insert(at, 1, pick()); break;
                default: input.erase(at, 1 + rng() % 3); break;
                }
            }
        } else {
            for (size_t len = rng() % 48; input.size() < len;) input += pick();
        }
        if (rng() % 3 == 0) input.resize(rng() % (input.size() + 1));
        exercise(input);
        if (HasFatalFailure()) ADD_FAILURE() << "input: " << testing::PrintToString(input);
    }
    testing::internal::GetCapturedStderr();
    EXPECT_GT(cases, 1000);
}

}  // namespace
