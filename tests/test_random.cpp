#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "random.h"

namespace {

std::vector<unsigned long long> numbers(const std::string& uid) {
    std::vector<unsigned long long> out;
    size_t at = 0;
    while (at <= uid.size()) {
        size_t dot = uid.find('.', at);
        if (dot == std::string::npos) dot = uid.size();
        out.push_back(strtoull(uid.substr(at, dot - at).c_str(), nullptr, 10));
        at = dot + 1;
    }
    return out;
}

TEST(Random, SopInstanceUidFormat) {
    const std::string root = "1.3.6.1.4.1.64523.";
    std::set<unsigned long long> fourths;
    for (int i = 0; i < 500; i++) {
        time_t before = time(nullptr);
        std::string uid = genSopInstanceId();
        time_t after = time(nullptr);
        ASSERT_EQ(0u, uid.compare(0, root.size(), root)) << uid;
        ASSERT_LE(uid.size(), 64u) << uid;
        ASSERT_EQ(std::string::npos, uid.find_first_not_of("0123456789.")) << uid;
        ASSERT_EQ(std::string::npos, uid.find("..")) << uid;
        std::vector<unsigned long long> n = numbers(uid);
        ASSERT_EQ(13u, n.size()) << uid;
        for (int k = 7; k < 10; k++) ASSERT_LE(n[k], 255u) << uid;
        ASSERT_EQ(0u, n[10] % 65536) << uid;
        ASSERT_EQ(0u, n[11] % 256) << uid;
        ASSERT_GE(n[11] >> 24, 128u) << uid;
        ASSERT_LE(n[11] >> 24, 191u) << uid;
        ASSERT_GE(n[12], (unsigned long long)before) << uid;
        ASSERT_LE(n[12], (unsigned long long)after) << uid;
        fourths.insert(n[10]);
    }
    EXPECT_GT(fourths.size(), 100u);  // the random bytes really vary
}

TEST(Random, UidsInTheSameSecondDiffer) {
    std::string a, b;
    for (int tries = 0; tries < 10; tries++) {
        a = genSopInstanceId();
        b = genSopInstanceId();
        if (numbers(a)[12] == numbers(b)[12]) break;
    }
    ASSERT_EQ(numbers(a)[12], numbers(b)[12]);
    EXPECT_NE(a, b);
}

TEST(Random, InstanceFromParts) {
    EXPECT_STREQ("1.3.6.1.4.1.64523", genInstanceFromParts("", "", "", ""));
    EXPECT_STREQ("1.3.6.1.4.1.64523", genInstanceFromParts(nullptr, nullptr, nullptr, nullptr));
    // 'a' = 97, 'b' = 98: 97 * 31 + 98 = 3105; then 3105 * 31 + 99 = 96354.
    EXPECT_STREQ("1.3.6.1.4.1.64523.3105", genInstanceFromParts("ab", "", nullptr, ""));
    EXPECT_STREQ("1.3.6.1.4.1.64523.96354.3105", genInstanceFromParts("abc", nullptr, "ab", ""));
    // Position is lost when parts are empty.
    EXPECT_STREQ(genInstanceFromParts("", "", "ab", ""), genInstanceFromParts("ab", "", "", ""));
    // 0xC3 counts as -61: 2^32 - 61 = 4294967235, mod 100000 = 67235.
    EXPECT_STREQ("1.3.6.1.4.1.64523.67235", genInstanceFromParts("\xC3", "", "", ""));
    // 'a' * 31 - 61 = 2946.
    EXPECT_STREQ("1.3.6.1.4.1.64523.2946", genInstanceFromParts("a\xC3", "", "", ""));
    // 122 * (31^7 - 1) / 30 = 111884630714, minus 26 * 2^32 = 215481018.
    EXPECT_STREQ("1.3.6.1.4.1.64523.81018.1.1.1",
                 genInstanceFromParts("zzzzzzz", "\x01", "\x01", "\x01"));
}

TEST(Random, UuidVersionAndVariant) {
    unsigned char u[16];
    memset(u, 0xFF, sizeof u);
    uuid_generate(u, true);
    EXPECT_EQ(0x4F, u[6]);
    EXPECT_EQ(0xBF, u[8]);
    for (int i : {0, 5, 7, 9, 15}) EXPECT_EQ(0xFF, u[i]);
    memset(u, 0, sizeof u);
    uuid_generate(u, true);
    EXPECT_EQ(0x40, u[6]);
    EXPECT_EQ(0x80, u[8]);

    std::set<std::string> seen;
    for (int i = 0; i < 2000; i++) {
        bool given = i % 2 == 0;
        if (given) getRandomNumber(u, 16);
        unsigned char in[16];
        memcpy(in, u, 16);
        uuid_generate(u, given);
        ASSERT_EQ(0x40, u[6] & 0xF0);
        ASSERT_EQ(0x80, u[8] & 0xC0);
        if (given) {
            ASSERT_EQ(in[6] & 0x0F, u[6] & 0x0F);
            ASSERT_EQ(0, memcmp(in, u, 6));
            ASSERT_EQ(0, memcmp(in + 9, u + 9, 7));
        }
        seen.insert(std::string((char*)u, 16));
    }
    EXPECT_EQ(2000u, seen.size());
}

TEST(Random, UuidPackIsBigEndian) {
    struct uuid rec = {0x01020304u, 0x0506, 0x0708, 0x090A, {0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10}};
    unsigned char packed[16];
    uuid_pack(&rec, packed);
    for (int i = 0; i < 16; i++) EXPECT_EQ(i + 1, packed[i]) << i;

    struct uuid back;
    uuid_unpack(packed, &back);
    EXPECT_EQ(rec.time_low, back.time_low);
    EXPECT_EQ(rec.time_mid, back.time_mid);
    EXPECT_EQ(rec.time_hi_and_version, back.time_hi_and_version);
    EXPECT_EQ(rec.clock_seq, back.clock_seq);
    EXPECT_EQ(0, memcmp(rec.node, back.node, 6));

    unsigned char high[16];
    memset(high, 0xF0, sizeof high);
    uuid_unpack(high, &back);
    EXPECT_EQ(0xF0F0F0F0u, back.time_low);
    EXPECT_EQ(0xF0F0, back.clock_seq);
}

TEST(Random, ConcurrentDraws) {
    const int threads = 8, draws = 300;
    std::mutex m;
    std::set<std::string> all;
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; t++)
        pool.emplace_back([&] {
            std::vector<std::string> mine;
            for (int i = 0; i < draws; i++) {
                unsigned char b[16];
                getRandomNumber(b, sizeof b);
                mine.emplace_back((char*)b, sizeof b);
            }
            std::lock_guard<std::mutex> g(m);
            all.insert(mine.begin(), mine.end());
        });
    for (std::thread& t : pool) t.join();
    EXPECT_EQ((size_t)threads * draws, all.size());
}

TEST(Random, LargeRequestsAreFilledToTheEnd) {
    // Beyond one generator request, and through the fallback source.
    for (bool fallback : {false, true}) {
        std::vector<unsigned char> buf(5000, 0);
        if (fallback)
            get_random_bytes(buf.data(), (int)buf.size());
        else
            getRandomNumber(buf.data(), (int)buf.size());
        int zeros = 0;
        for (size_t i = buf.size() - 1000; i < buf.size(); i++) zeros += buf[i] == 0;
        EXPECT_LT(zeros, 30) << (fallback ? "get_random_bytes" : "getRandomNumber");
    }
}

}  // namespace
