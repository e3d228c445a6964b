#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "keyValues.h"
#include "memory.h"
#include "testUtil.h"
#include "text.h"

TEST(Split, KeepsEmptyPiecesAndHandlesMissingSeparators) {
    Memory m;
    int n = -1;
    char** p = Util::split("a&&b", '&', &n, &m);
    ASSERT_EQ(n, 3);
    EXPECT_EQ(std::string(p[0]) + "|" + p[1] + "|" + p[2], "a||b");
    p = Util::split("a&b&", '&', &n, nullptr);
    ASSERT_EQ(n, 3);
    EXPECT_STREQ(p[2], "");
    p = Util::split("nosep", '&', &n, &m);
    ASSERT_EQ(n, 1);
    EXPECT_STREQ(p[0], "nosep");
    EXPECT_EQ(Util::split("", '&', &n, &m), nullptr);
    EXPECT_EQ(n, 0);
}

TEST(Replace, ScansPastReplacementsAndReturnsTheSamePointerWhenUnchanged) {
    Memory m;
    char aaa[] = "aaa";
    EXPECT_STREQ(Util::replace(aaa, "aa", "b", &m, true), "ba");
    char text[] = "Hello hello HELLO";
    EXPECT_STREQ(Util::replace(text, "hello", "bye", &m, false), "bye bye bye");
    EXPECT_STREQ(Util::replace(text, "hello", "bye", nullptr, true), "Hello bye HELLO");
    EXPECT_EQ(Util::replace(text, "absent", "x", &m, true), text);
    EXPECT_EQ(Util::replace(text, "", "x", &m, true), text);
    // The size estimate must hold when every character grows.
    std::string many(5000, 'x');
    EXPECT_EQ(strlen(Util::replace(&many[0], "x", "<long>", &m, true)), 30000u);
}

TEST(IsInList, MatchesWholeCommaSeparatedItems) {
    for (const char* item : {"x", "y", "z", "x,y"}) EXPECT_TRUE(Util::isInList("x,y,z", item)) << item;
    EXPECT_TRUE(Util::isInList("abc", "abc"));
    for (const char* item : {"xy", "X", " y", ""}) EXPECT_FALSE(Util::isInList("x,y,z", item)) << item;
    EXPECT_FALSE(Util::isInList("ab,cd", "b"));
    EXPECT_FALSE(Util::isInList(nullptr, "x"));
}

TEST(TextHelpers, TrimEscapeEncodeAndCheck) {
    char a[] = " \t\v\f\r\n value  x \r\n";
    EXPECT_EQ(trim(a), a);
    EXPECT_STREQ(a, "value  x");
    char blanks[] = " \t\n ";
    EXPECT_STREQ(trim(blanks), "");

    Memory m;
    EXPECT_STREQ(Util::sanitize("a\\b/c\"d\ne\rf\tg\fh\bi", &m), "a\\\\b\\/c\\\"d\\ne\\rf\\tg\\fh\\bi");
    const char* plain = "Abc-1_2.3~";
    EXPECT_EQ(Util::encodeUrl(plain, &m), plain);
    char* enc = Util::encodeUrl("a b&c=d/é", &m);
    EXPECT_STREQ(enc, "a+b%26c%3Dd%2F%C3%A9");
    EXPECT_STREQ(decodeUrl(enc), "a b&c=d/é");
    char hex[3] = {0, 0, 0};
    charToHex(0xA7, hex);
    EXPECT_STREQ(hex, "A7");
    EXPECT_STREQ(Util::itoa(4294967295u, nullptr), "4294967295");
    const char* h = "abcabc";
    EXPECT_EQ(strrstr(h, "bc"), h + 4);

    EXPECT_TRUE(utf8_check("plain é 中 😀"));
    for (const char* bad : {"\xC3", "\xC0\xAF", "\xED\xA0\x80"}) EXPECT_FALSE(utf8_check(bad)) << bad;
    char broken[] = "ok\x01\xFF\xC3\xA9";
    EXPECT_STREQ(Util::makeWellFormed(broken), "ok  \xC3\xA9");
    char xml[] = "&lt;a&gt; &amp;amp; &quot;&#65;&#xe9; &bogus;";
    EXPECT_STREQ(Util::decodeXML(xml), "<a> &amp; \"A\xC3\xA9 &bogus;");
}

TEST(KeyValues, KeepsByteOrderAndReplacesExistingKeys) {
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
    EXPECT_STREQ(kv.keyAt(0), "K");  // upper case sorts before lower case
    EXPECT_EQ(kv.get("K"), vals[0]);
    EXPECT_EQ(kv.get("k"), nullptr);
    for (int i = 0; i < 300; ++i) EXPECT_EQ(kv.get(vals[i]), vals[i]);
    for (int i = 1; i < 301; ++i) EXPECT_LT(strcmp(kv.keyAt(i - 1), kv.keyAt(i)), 0);
}

TEST(KeyValues, LoadKeepsKeysAsTheyStandAndTrimsValues) {
    TempDir dir;
    spit(dir.file("kv.txt"), "k=v  \t\n noline\n lead=x=y\nempty=\nlast=dropped");
    FILE* f = fopen(dir.file("kv.txt").c_str(), "r");
    ASSERT_NE(f, nullptr);
    Memory m;
    KeyValues<char> kv;
    kv.load(f, &m, '=');
    fclose(f);
    EXPECT_EQ(kv.count(), 3);
    EXPECT_STREQ(kv.get("k"), "v");
    EXPECT_STREQ(kv.get(" lead"), "x=y");
    EXPECT_STREQ(kv.get("empty"), "");
    EXPECT_EQ(kv.get("last"), nullptr);
}
