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

TEST(Random, SopInstanceUidsAreValidDistinctAndCarryTheTime) {
    const std::string root = "1.3.6.1.4.1.64523.";
    std::set<std::string> uids;
    for (int i = 0; i < 500; i++) {
        time_t before = time(nullptr);
        std::string uid = genSopInstanceId();
        ASSERT_EQ(uid.compare(0, root.size(), root), 0) << uid;
        ASSERT_LE(uid.size(), 64u) << uid;
        ASSERT_EQ(uid.find_first_not_of("0123456789."), std::string::npos) << uid;
        ASSERT_EQ(uid.find(".."), std::string::npos) << uid;
        long long stamp = atoll(uid.substr(uid.rfind('.') + 1).c_str());
        ASSERT_TRUE(stamp >= before && stamp <= time(nullptr)) << uid;
        uids.insert(uid);
    }
    // Most of them share a second: only the random parts tell them apart.
    EXPECT_EQ(uids.size(), 500u);

    // UIDs from parts: the same parts the same UID, empty parts add nothing.
    EXPECT_STREQ(genInstanceFromParts("", nullptr, "", nullptr), "1.3.6.1.4.1.64523");
    std::string ab = genInstanceFromParts("ab", "", "", "");
    EXPECT_EQ(ab, genInstanceFromParts("", nullptr, "ab", ""));
    EXPECT_NE(ab, genInstanceFromParts("ba", "", "", ""));
    EXPECT_EQ(ab.compare(0, root.size(), root), 0);
    EXPECT_LE(strlen(genInstanceFromParts("zzzzzzzz", "\xC3", "x", "y")), 64u);
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
    EXPECT_EQ(all.size(), 8u * 300u);
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
