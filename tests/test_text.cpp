#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>

#include "keyValues.h"
#include "memory.h"
#include "testUtil.h"
#include "text.h"

TEST(Text, TransformsOfOneTextEach) {
    Memory m;
    auto joined = [&m](char* t) {
        int n = 0;
        char** p = Util::split(t, '&', &n, &m);
        std::string s = std::to_string(n);
        for (int i = 0; i < n; ++i) s += "|" + std::string(p[i]);
        return s;
    };
    const struct {
        const char* in;
        std::function<std::string(char*)> f;
        std::string out;
    } cases[] = {
        {"a&&b", joined, "3|a||b"},
        {"a&b&", joined, "3|a|b|"},
        {"nosep", joined, "1|nosep"},
        {"", [](char* t) { int n = -1; return Util::split(t, '&', &n, nullptr) ? "pieces" : std::to_string(n); }, "0"},
        {" \t\v\f\r\n value  x \r\n", [](char* t) { return trim(t); }, "value  x"},
        {" \t\n ", [](char* t) { return trim(t); }, ""},
        {"aaa", [&m](char* t) { return Util::replace(t, "aa", "b", &m, true); }, "ba"},
        {"Hello hello HELLO", [&m](char* t) { return Util::replace(t, "hello", "bye", &m, false); }, "bye bye bye"},
        {"Hello hello HELLO", [](char* t) { return Util::replace(t, "hello", "bye", nullptr, true); }, "Hello bye HELLO"},
        {"a\\b/c\"d\ne\rf\tg\fh\bi", [&m](char* t) { return Util::sanitize(t, &m); },
         "a\\\\b\\/c\\\"d\\ne\\rf\\tg\\fh\\bi"},
        {"a b&c=d/é", [&m](char* t) { return Util::encodeUrl(t, &m); }, "a+b%26c%3Dd%2F%C3%A9"},
        {"a+b%26c%3Dd%2F%C3%A9", [](char* t) { return decodeUrl(t); }, "a b&c=d/é"},
        {"ok\x01\xFF\xC3\xA9\x7f", [](char* t) { return Util::makeWellFormed(t); }, "ok  \xC3\xA9 "},
        {"&lt;a&gt; &amp;amp; &quot;&#65;&#xe9; &bogus; &#xD800;", [](char* t) { return Util::decodeXML(t); },
         "<a> &amp; \"A\xC3\xA9 &bogus; &#xD800;"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.in);
        std::string text = c.in;
        EXPECT_EQ(c.f(&text[0]), c.out);
    }
    // Unchanged text comes back as the same pointer.
    char text[] = "Hello";
    EXPECT_EQ(Util::replace(text, "absent", "x", &m, true), text);
    EXPECT_EQ(Util::encodeUrl(text, &m), text);
    // The size estimate must hold when every character grows.
    std::string many(5000, 'x');
    EXPECT_EQ(strlen(Util::replace(&many[0], "x", "<long>", &m, true)), 30000u);

    for (const char* item : {"x", "y", "z", "x,y"}) EXPECT_TRUE(Util::isInList("x,y,z", item)) << item;
    for (const char* item : {"xy", "X", " y", ""}) EXPECT_FALSE(Util::isInList("x,y,z", item)) << item;
    EXPECT_FALSE(Util::isInList("ab,cd", "b"));
    EXPECT_TRUE(utf8_check("plain é 中 😀"));
    for (const char* bad : {"\xC3", "\xC0\xAF", "\xED\xA0\x80"}) EXPECT_FALSE(utf8_check(bad)) << bad;
}

TEST(KeyValues, ByteOrderReplacementAndLoading) {
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

    TempDir dir;
    // A line longer than any buffer is read whole; a last line without its end is not read.
    spit(dir.file("kv.txt"), "k=v  \t\n noline\n lead=x=y\nlong=" + std::string(10000, 'L') + "\nempty=\nlast=dropped");
    FILE* f = fopen(dir.file("kv.txt").c_str(), "r");
    ASSERT_NE(f, nullptr);
    Memory m;
    KeyValues<char> loaded;
    loaded.load(f, &m, '=');
    fclose(f);
    EXPECT_EQ(loaded.count(), 4);
    EXPECT_STREQ(loaded.get("k"), "v");
    EXPECT_EQ(std::string(loaded.get("long")), std::string(10000, 'L'));
    EXPECT_STREQ(loaded.get(" lead"), "x=y");
    EXPECT_STREQ(loaded.get("empty"), "");
}
