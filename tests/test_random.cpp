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
    for (size_t at = 0; at <= uid.size();) {
        size_t dot = std::min(uid.find('.', at), uid.size());
        out.push_back(strtoull(uid.substr(at, dot - at).c_str(), nullptr, 10));
        at = dot + 1;
    }
    return out;
}

TEST(Random, SopInstanceUidFormat) {
    const std::string root = "1.3.6.1.4.1.64523.";
    std::set<std::string> uids;
    std::set<unsigned long long> fourths;
    for (int i = 0; i < 500; i++) {
        time_t before = time(nullptr);
        std::string uid = genSopInstanceId();
        time_t after = time(nullptr);
        ASSERT_EQ(0u, uid.compare(0, root.size(), root)) << uid;
        ASSERT_LE(uid.size(), 64u) << uid;
        ASSERT_EQ(std::string::npos, uid.find_first_not_of("0123456789.")) << uid;
        std::vector<unsigned long long> n = numbers(uid);
        ASSERT_EQ(13u, n.size()) << uid;
        for (int k = 7; k < 10; k++) ASSERT_LE(n[k], 255u) << uid;
        ASSERT_EQ(0u, n[10] % 65536) << uid;
        ASSERT_EQ(0u, n[11] % 256) << uid;
        ASSERT_TRUE((n[11] >> 24) >= 128 && (n[11] >> 24) <= 191) << uid;  // variant bits
        ASSERT_TRUE(n[12] >= (unsigned long long)before && n[12] <= (unsigned long long)after) << uid;
        uids.insert(uid);
        fourths.insert(n[10]);
    }
    // Most of them share a second, so only the random parts tell them apart.
    EXPECT_EQ(500u, uids.size());
    EXPECT_GT(fourths.size(), 100u);
}

TEST(Random, InstanceFromParts) {
    EXPECT_STREQ("1.3.6.1.4.1.64523", genInstanceFromParts("", nullptr, "", nullptr));
    // 'a' = 97, 'b' = 98: 97 * 31 + 98 = 3105; then 3105 * 31 + 99 = 96354.
    EXPECT_STREQ("1.3.6.1.4.1.64523.96354.3105", genInstanceFromParts("abc", nullptr, "ab", ""));
    EXPECT_STREQ(genInstanceFromParts("", "", "ab", ""), genInstanceFromParts("ab", "", "", ""));
    // 0xC3 counts as -61: 2^32 - 61 = 4294967235, mod 100000 = 67235.
    EXPECT_STREQ("1.3.6.1.4.1.64523.67235", genInstanceFromParts("\xC3", "", "", ""));
    // 122 * (31^7 - 1) / 30 = 111884630714, minus 26 * 2^32 = 215481018.
    EXPECT_STREQ("1.3.6.1.4.1.64523.81018.1.1.1",
                 genInstanceFromParts("zzzzzzz", "\x01", "\x01", "\x01"));
}

TEST(Random, UuidVersionVariantAndPacking) {
    unsigned char u[16];
    for (unsigned char fill : {0x00, 0xFF}) {
        memset(u, fill, sizeof u);
        uuid_generate(u, true);
        EXPECT_EQ((fill & 0x0F) | 0x40, u[6]);
        EXPECT_EQ((fill & 0x3F) | 0x80, u[8]);
        for (int i : {0, 5, 7, 9, 15}) EXPECT_EQ(fill, u[i]);
    }
    std::set<std::string> seen;
    for (int i = 0; i < 100; i++) {
        uuid_generate(u, false);
        seen.insert(std::string((char*)u, 16));
    }
    EXPECT_EQ(100u, seen.size());

    struct uuid rec = {0x01020304u, 0x0506, 0x0708, 0x090A, {0x0B, 0x0C, 0x0D, 0x0E, 0x0F, 0x10}};
    unsigned char packed[16];
    uuid_pack(&rec, packed);
    for (int i = 0; i < 16; i++) EXPECT_EQ(i + 1, packed[i]) << i;
    struct uuid back;
    unsigned char again[16];
    uuid_unpack(packed, &back);
    uuid_pack(&back, again);
    EXPECT_EQ(0, memcmp(packed, again, 16));
}

TEST(Random, BytesAreDistinctAcrossThreadsAndFillLargeRequests) {
    std::mutex m;
    std::set<std::string> all;
    std::vector<std::thread> pool;
    for (int t = 0; t < 8; t++)
        pool.emplace_back([&] {
            for (int i = 0; i < 300; i++) {
                unsigned char b[16];
                getRandomNumber(b, sizeof b);
                std::lock_guard<std::mutex> g(m);
                all.emplace((char*)b, sizeof b);
            }
        });
    for (std::thread& t : pool) t.join();
    EXPECT_EQ(8u * 300u, all.size());

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
