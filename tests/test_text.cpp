// Text helpers, key-value tables and the JSON tokenizer.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "jsn.h"
#include "keyValues.h"
#include "memory.h"
#include "text.h"

TEST(Text, SplitKeepsEmptyPiecesAndTrimTakesEveryBlank) {
    Memory m;
    const std::pair<const char*, const char*> splits[] = {
        {"a&&b", "3|a||b"}, {"a&b&", "3|a|b|"}, {"nosep", "1|nosep"}, {"", "0"}};
    for (const auto& [in, out] : splits) {
        for (Memory* arena : {&m, static_cast<Memory*>(nullptr)}) {
            int n = -1;
            char** p = Util::split(in, '&', &n, arena);
            std::string s = std::to_string(n);
            for (int i = 0; i < n; ++i) s += "|" + std::string(p[i]);
            EXPECT_EQ(s, out) << in;
        }
    }
    for (const auto& [in, out] : {std::pair<std::string, std::string>{" \t\v\f\r\n value  x \r\n", "value  x"},
                                  {" \t\n ", ""}, {"v", "v"}})
        EXPECT_STREQ(trim(&std::string(in)[0]), out.c_str()) << in;
}

TEST(KeyValues, ByteOrderAndReplacement) {
    // Small growth steps, so the key pool and the entries move many times.
    KeyValues<char> kv(4, 8);
    static char vals[300][8];
    for (int i = 299; i >= 0; --i) {
        snprintf(vals[i], sizeof vals[i], "k%d", i);
        kv.addKeyValue(vals[i], vals[i], 1);
    }
    char first[] = "1";
    kv.addKeyValue("K", first);
    kv.addKeyValue("K", vals[0]);
    ASSERT_EQ(kv.count(), 301);
    EXPECT_EQ(kv.get("K"), vals[0]);
    EXPECT_EQ(kv.get("k"), nullptr);
    for (int i = 0; i < 300; ++i) EXPECT_EQ(kv.get(vals[i]), vals[i]);
    for (int i = 1; i < 301; ++i) EXPECT_LT(strcmp(kv.keyAt(i - 1), kv.keyAt(i)), 0);
}

namespace {

// The text lives in an allocation of exactly its length, with no terminator,
// so any read past `length` is caught by the address sanitizer.
struct Doc {
    std::unique_ptr<char[]> buf;
    std::unique_ptr<JsnParser> p;
    explicit Doc(const std::string& s, int length = -1) : buf(new char[s.size()]) {
        memcpy(buf.get(), s.data(), s.size());
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
        {"{\"k\":\"\\u00G1\"}", -2, -1},
        {"{\"a\":1, \"b\":{\"c\":2}", -3, 7},
        {std::string("{\"a\":1}\0{\"b\":2}", 15), 0, 3},  // a NUL ends the text
    };
    for (const Case& c : cases) {
        Doc d(c.text);
        EXPECT_EQ(c.result, d->result()) << c.text;
        EXPECT_TRUE(c.tokens < 0 || c.tokens == d->tokenCount()) << c.text;
    }
    // Tokens made before a failure still answer.
    EXPECT_STREQ("1", Doc("{\"a\":1, \"b\":{\"c\":2}")->getString(0, "a", 0));
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
    EXPECT_STREQ("2", d->getString(0, "b", 0));
    EXPECT_EQ(static_cast<int>(text.size()) - 7 - depth / 2, d->token(2 + depth / 2).end);
    EXPECT_EQ(-2, Doc("{\"a\":" + std::string(depth, '[') + "}")->result());
}

// The listener reads string values only: exact keys, array elements counted
// from 1, primitives and strings only, the two bytes after a \u escape passed
// over, escapes kept.
TEST(Jsn, StringLookups) {
    Doc d(R"({"s":"text","n":null,"o":{"x":7},"a":"first","ab":"second","k":["a","b"],"e":"\u0041""y","q":"x\"y\n"})");
    ASSERT_EQ(0, d->result());
    const std::vector<std::tuple<const char*, int, const char*>> strings = {
        {"s", 0, "text"}, {"n", 0, "null"}, {"o", 0, ""}, {"x", 0, ""},           {"missing", 0, ""},
        {"ab", 0, "second"}, {"k", 1, "a"}, {"k", 2, "b"}, {"k", 3, ""},          {"k", 0, ""},
        {"e", 0, "\\u0041\"\"y"}, {"q", 0, "x\\\"y\\n"}};
    for (const auto& [key, index, expected] : strings) EXPECT_STREQ(expected, d->getString(0, key, index)) << key;
}

// Lookups on every parent; the token table must stay inside the text.
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
        ASSERT_TRUE(0 <= t.start && t.start <= (t.end < 0 ? size : t.end) && t.end <= size && t.parent < i) << i;
    }
    for (int parent = -1; parent < std::min(n, 12); parent++)
        for (const char* key : {"a", "ab", "", "k", "\\u0041"})
            for (int index = 0; index < 4; index++) ASSERT_LE(strlen(d->getString(parent, key, index)), (size_t)size);
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
        std::string input = corpus[rng() % corpus.size()];
        for (int e = 1 + (int)(rng() % 4); e > 0; e--) {
            size_t at = rng() % input.size();
            switch (rng() % 3) {
            case 0: input[at] = pick(); break;
            case 1: input.insert(at, 1, pick()); break;
            default: input.erase(at, 1 + rng() % 3); break;
            }
        }
        if (rng() % 3 == 0) input.resize(rng() % (input.size() + 1));
        exercise(input);
        if (HasFatalFailure()) ADD_FAILURE() << "input: " << testing::PrintToString(input);
    }
    testing::internal::GetCapturedStderr();
    EXPECT_GT(cases, 1000);
}

}  // namespace
