#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <tuple>
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

TEST(Jsn, ResultsAndQuirks) {
    struct Case {
        std::string text;
        int result;
        int tokens;  // -1: not checked
    } cases[] = {
        {"{}", -2, -1},                 // a lone empty object fails, as required
        {"{\"a\":{}}", 0, 3},           // three tokens exist before the inner close
        {"  [1,2]", -3, 0},             // only an object may start a document
        {"{\"a\":[1}", -2, -1},         // the bracket must match the innermost open one
        {"{\"a\":1}]} ", 0, 3},         // brackets beyond the document are ignored
        {"{\"k\":\"abc", -3, -1},       // unclosed string
        {"{\"k\":\"\\u00G1\"}", -2, -1},
        {" \n\t{\"o\":{\"n\":true}}", 0, 5},
        {"{\"a\":1, \"b\":{\"c\":2}", -3, 7},
        {std::string("{\"a\":1}\0{\"b\":2}", 15), 0, 3},  // a NUL ends the text
    };
    for (const Case& c : cases) {
        Doc d(c.text);
        EXPECT_EQ(c.result, d->result()) << c.text;
        EXPECT_EQ(c.result != 0, d->failed) << c.text;
        EXPECT_TRUE(c.tokens < 0 || c.tokens == d->tokenCount()) << c.text;
    }
    // Tokens made before a failure still answer.
    EXPECT_EQ(1, Doc("{\"a\":1, \"b\":{\"c\":2}")->getInt(0, "a", 0));
    // So does the length.
    EXPECT_STREQ("12", Doc("{\"a\":12345}", 7)->getString(0, "a", 0));
    testing::internal::CaptureStderr();
    EXPECT_EQ(-2, Doc("{\"k\":\"\\q\"}")->result());
    EXPECT_EQ("JSON parse error - backslash problem\n", testing::internal::GetCapturedStderr());
}

TEST(Jsn, DeepNestingClosesWhereItOpened) {
    const int depth = 100000;  // also far more tokens than the initial table
    std::string text = "{\"a\":" + std::string(depth, '[') + "{\"x\":1}" + std::string(depth, ']') + ",\"b\":2}";
    Doc d(text);
    ASSERT_EQ(0, d->result());
    EXPECT_EQ(2, d->getInt(0, "b", 0));
    EXPECT_EQ(text.substr(5, text.size() - 12), d->getFullArray(0, "a", 0));
    EXPECT_EQ(static_cast<int>(text.size()) - 7 - depth / 2, d->token(2 + depth / 2).end);
    EXPECT_EQ(-2, Doc("{\"a\":" + std::string(depth, '[') + "}")->result());
}

TEST(Jsn, Lookups) {
    Doc d(R"({"s":"text","i":-42,"f":2.5,"t":True,"b":false,"n":null,"o":{"x":7,"y":"in"},)"
          R"("arr":[1,{"y":2},{"y":3}],"a":"first","ab":"second","k":["a","b"],"m":[1,2],"e":"\u0041"xy","q":"x\"y\n",)"
          R"("l":[9],"l":[1,2,3]})");
    ASSERT_EQ(0, d->result());
    // Exact keys; array elements counted from 1; primitives and strings only;
    // the two bytes after a \u escape passed over, escapes kept.
    const std::vector<std::tuple<const char*, int, const char*>> strings = {
        {"s", 0, "text"}, {"n", 0, "null"}, {"o", 0, ""},         {"missing", 0, ""},       {"ab", 0, "second"},
        {"k", 1, "a"},    {"k", 2, "b"},    {"k", 0, ""},         {"e", 0, "\\u0041\"xy"}, {"q", 0, "x\\\"y\\n"}};
    for (const auto& [key, index, expected] : strings) EXPECT_STREQ(expected, d->getString(0, key, index)) << key;
    // Numeric accessors count array elements from 0 and take primitives only.
    EXPECT_EQ(-42, d->getInt(0, "i", 0));
    EXPECT_EQ(2, d->getInt(0, "m", 1));
    EXPECT_EQ(0, d->getInt(0, "m", 2));
    EXPECT_EQ(0, d->getInt(0, "s", 0));
    EXPECT_DOUBLE_EQ(2.5, d->getFloat(0, "f", 0));
    EXPECT_TRUE(d->getBool(0, "t", 0));
    EXPECT_FALSE(d->getBool(0, "b", 0));
    // Objects by prefix keys; only direct children of the parent count.
    int o = d->getObject(0, "o", 0);
    EXPECT_EQ(7, d->getInt(o, "x", 0));
    EXPECT_STREQ("in", d->getString(o, "y", 0));
    EXPECT_EQ(0, d->getInt(0, "x", 0));
    EXPECT_EQ(d->getObject(0, "a", 0), d->getObject(0, "ab", 0));
    EXPECT_EQ(-1, d->getObject(0, "zz", 0));
    for (int index : {0, 1, 4}) EXPECT_EQ(-1, d->getObject(0, "arr", index)) << index;  // element 1 is a number
    EXPECT_EQ(3, d->getInt(d->getObject(0, "arr", 3), "y", 0));
    // Raw text: string values keep their quotes; defaults "{ }" and "[ ]".
    EXPECT_STREQ("{\"x\":7,\"y\":\"in\"}", d->getFullObject(0, "o", 0));
    EXPECT_STREQ("\"text\"", d->getFullObject(0, "s", 0));
    EXPECT_STREQ("{\"y\":2}", d->getFullObject(0, "arr", 2));
    EXPECT_STREQ("{ }", d->getFullObject(0, "zz", 0));
    EXPECT_STREQ("[1,{\"y\":2},{\"y\":3}]", d->getFullArray(0, "arr", 0));
    EXPECT_STREQ("[ ]", d->getFullArray(0, "o", 0));
    // The index picks among keys that are a prefix of the one asked for.
    EXPECT_EQ(1, d->getArrayNum(0, "l", 0));
    EXPECT_STREQ("[1,2,3]", d->getFullArray(0, "l", 1));
    EXPECT_STREQ("[ ]", d->getFullArray(0, "l", 2));
    EXPECT_EQ(2, d->getArrayNum(0, "kx", 0));
}

// Every accessor on every parent; the token table must stay inside the text.
// The balance, fed whole or byte by byte, lets every text that parses through
// and holds back only incomplete ones.
void exercise(const std::string& input) {
    Doc d(input);
    JsnBalance whole, bytes;
    whole.add(input.data(), input.size());
    for (char c : input) bytes.add(&c, 1);
    ASSERT_EQ(whole.mayParse(), bytes.mayParse());
    ASSERT_EQ(whole.hopeless(), bytes.hopeless());
    ASSERT_TRUE(d->result() != 0 || whole.mayParse());
    ASSERT_TRUE(d->result() != -3 || !whole.mayParse());
    ASSERT_TRUE(!whole.hopeless() || Doc(input + "\"}]}")->result() != 0);
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
