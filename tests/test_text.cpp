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
    EXPECT_STREQ(p[0], "a");
    EXPECT_STREQ(p[1], "");
    EXPECT_STREQ(p[2], "b");

    p = Util::split("a&b&", '&', &n, nullptr);
    ASSERT_EQ(n, 3);
    EXPECT_STREQ(p[2], "");

    const char* whole = "nosep";
    p = Util::split(whole, '&', &n, nullptr);
    ASSERT_EQ(n, 1);
    EXPECT_EQ(p[0], whole);
    p = Util::split(whole, '&', &n, &m);
    ASSERT_EQ(n, 1);
    EXPECT_STREQ(p[0], "nosep");
    EXPECT_NE(p[0], whole);

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
    // The estimate must hold when every character grows.
    std::string many(5000, 'x');
    char* grown = Util::replace(&many[0], "x", "<long>", &m, true);
    EXPECT_EQ(strlen(grown), 30000u);
}

TEST(IsInList, MatchesWholeCommaSeparatedItems) {
    for (const char* item : {"x", "y", "z", "x,y"}) EXPECT_TRUE(Util::isInList("x,y,z", item)) << item;
    EXPECT_TRUE(Util::isInList("abc", "abc"));
    for (const char* item : {"xy", "X", " y", "b", ""}) EXPECT_FALSE(Util::isInList("x,y,z", item)) << item;
    EXPECT_FALSE(Util::isInList("ab,cd", "b"));
    EXPECT_FALSE(Util::isInList(nullptr, "x"));
}

TEST(Trim, RemovesPosixWhiteSpaceInPlace) {
    char a[] = " \t\v\f\r\n value  x \r\n";
    EXPECT_EQ(trim(a), a);
    EXPECT_STREQ(a, "value  x");
    char blanks[] = " \t\n ";
    EXPECT_STREQ(trim(blanks), "");
    char left[] = "  l ";
    EXPECT_STREQ(ltrim(left), "l ");
    EXPECT_EQ(trim(nullptr), nullptr);
}

TEST(Sanitize, EscapesForJsonStrings) {
    Memory m;
    EXPECT_STREQ(Util::sanitize("a\\b/c\"d\ne\rf\tg\fh\bi", &m), "a\\\\b\\/c\\\"d\\ne\\rf\\tg\\fh\\bi");
    EXPECT_STREQ(Util::sanitize("\\n", nullptr), "\\\\n");
    EXPECT_STREQ(Util::sanitize("plain", &m), "plain");
}

TEST(UrlAndHex, EncodeDecodeRoundTrip) {
    Memory m;
    const char* plain = "Abc-1_2.3~";
    EXPECT_EQ(Util::encodeUrl(plain, &m), plain);
    EXPECT_EQ(encodeUrl(plain, false), nullptr);
    char* enc = Util::encodeUrl("a b&c=d/é", &m);
    EXPECT_STREQ(enc, "a+b%26c%3Dd%2F%C3%A9");
    char* pct = encodeUrl("a b", false);
    EXPECT_STREQ(pct, "a%20b");
    free(pct);
    EXPECT_STREQ(decodeUrl(enc), "a b&c=d/é");

    char hex[3] = {0, 0, 0};
    EXPECT_EQ(charToHex(0xA7, hex), hex + 2);
    EXPECT_STREQ(hex, "A7");
    EXPECT_STREQ(Util::itoa(0, &m), "0");
    EXPECT_STREQ(Util::itoa(4294967295u, nullptr), "4294967295");
}

TEST(TextChecks, StrrstrUtf8AndXml) {
    const char* h = "abcabc";
    EXPECT_EQ(strrstr(h, "bc"), h + 4);
    EXPECT_EQ(strrstr(h, "abcabc"), h);
    EXPECT_EQ(strrstr("a", "abc"), nullptr);

    EXPECT_TRUE(utf8_check("plain é 中 😀"));
    EXPECT_FALSE(utf8_check("\xC3"));
    EXPECT_FALSE(utf8_check("\xC0\xAF"));      // overlong
    EXPECT_FALSE(utf8_check("\xED\xA0\x80"));  // surrogate
    char broken[] = "ok\x01\xFF\xC3\xA9";
    EXPECT_STREQ(Util::makeWellFormed(broken), "ok  \xC3\xA9");

    char xml[] = "&lt;a&gt; &amp;amp; &quot;&apos; &#65;&#xe9;&#x1F600; &bogus; &#; &#x110000;";
    EXPECT_STREQ(Util::decodeXML(xml), "<a> &amp; \"' A\xC3\xA9\xF0\x9F\x98\x80 &bogus; &#; &#x110000;");
}

TEST(KeyValues, KeepsByteOrderAndReplacesExistingKeys) {
    KeyValues<char> kv;
    char one[] = "1", two[] = "2", three[] = "3", four[] = "4";
    kv.addKeyValue("beta", one);
    kv.addKeyValue("alpha", two);
    uint32_t off = kv.addKeyValue("Zulu", three);
    EXPECT_EQ(kv.addKeyValue("Zulu", four), off);
    ASSERT_EQ(kv.count(), 3);
    EXPECT_STREQ(kv.keyAt(0), "Zulu");
    EXPECT_STREQ(kv.keyAt(1), "alpha");
    EXPECT_STREQ(kv.keyAt(2), "beta");
    EXPECT_EQ(kv.get("Zulu"), four);
    EXPECT_EQ(kv.get("alpha"), two);
    EXPECT_EQ(kv.get("zulu"), nullptr);

    // Many keys force pool and entry growth; lookups stay exact.
    KeyValues<char> small(4, 8);
    static char vals[300][8];
    for (int i = 299; i >= 0; --i) {
        snprintf(vals[i], sizeof vals[i], "%d", i);
        small.addKeyValue(vals[i], vals[i], 1);
    }
    ASSERT_EQ(small.count(), 300);
    for (int i = 0; i < 300; ++i) EXPECT_EQ(small.get(vals[i]), vals[i]);
    for (int i = 1; i < 300; ++i) EXPECT_LT(strcmp(small.keyAt(i - 1), small.keyAt(i)), 0);
}

TEST(KeyValues, LoadKeepsKeysAsTheyStandAndTrimsValues) {
    TempDir dir;
    spit(dir.file("kv.txt"), "k=v  \t\n noline\n lead=x=y\nempty=\nk=again\nlast=dropped");
    FILE* f = fopen(dir.file("kv.txt").c_str(), "r");
    ASSERT_NE(f, nullptr);
    Memory m;
    KeyValues<char> kv;
    kv.load(f, &m, '=');
    fclose(f);
    EXPECT_EQ(kv.count(), 3);
    EXPECT_STREQ(kv.get("k"), "again");
    EXPECT_STREQ(kv.get(" lead"), "x=y");
    EXPECT_STREQ(kv.get("empty"), "");
    EXPECT_EQ(kv.get("lead"), nullptr);
    EXPECT_EQ(kv.get("last"), nullptr);
}
