#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "memory.h"

// Small and oversized requests, past the first 1,024 blocks: every piece is
// aligned, usable whole, and untouched by the others until reset.
TEST(Memory, ArenaPiecesNeverOverlap) {
    Memory m;
    std::vector<std::pair<unsigned char*, size_t>> pieces;
    for (size_t i = 0; i < 2400; ++i) {
        size_t n = i % 2 ? 1 + i % 13 : Memory::MIN_CHUNK + 1 + i;
        auto* p = static_cast<unsigned char*>(i == 7 ? m.add(::malloc(n)) : m.malloc(n));
        ASSERT_EQ(reinterpret_cast<uintptr_t>(p) % 8, 0u) << i;
        memset(p, static_cast<int>(i), n);
        pieces.emplace_back(p, n);
    }
    for (size_t i = 0; i < pieces.size(); ++i)
        ASSERT_EQ(std::string(reinterpret_cast<char*>(pieces[i].first), pieces[i].second),
                  std::string(pieces[i].second, static_cast<char>(i))) << i;
    m.reset();
    EXPECT_EQ(m.blockCount(), 0);
    EXPECT_NE(m.malloc(5000), nullptr);  // reused after reset
}

// Results stay inside the ring and are not handed to two threads at once.
TEST(InternalCache, RingUnderThreadsAndAtItsEnd) {
    const char* base = InternalCache::m_cacheHandle;
    for (int left = 1; left < 80; ++left) {
        for (size_t size = 1; size < 80; size += 3) {
            InternalCache::m_current_offset = InternalCache::SIZE - left;
            char* p = InternalCache::getCacheReturn(nullptr, size, false);
            ASSERT_TRUE(p >= base && p + size <= base + InternalCache::SIZE) << left << " " << size;
            ASSERT_EQ((p - base) % 8, 0);
        }
    }
    std::vector<std::thread> threads;
    std::vector<int> bad(4, 0);
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([t, &bad] {
            std::string mine(40 + t, static_cast<char>('a' + t));
            for (int i = 0; i < 5000; ++i) {
                char* p = InternalCache::getCacheReturn(mine.c_str(), mine.size() + 1, i % 2 == 0);
                bad[t] += mine != p;
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_EQ(bad, std::vector<int>(4, 0));
    EXPECT_STREQ(InternalCache::getCacheReturn("abcdef", 4, false), "abc");
}

TEST(GrowingString, AppendsAndBuildsZeroSeparatedLists) {
    GrowingString g;
    std::string longText(600, 'y');
    g.add(nullptr).add("").add("abc", 2).add(longText.c_str()).add1("z").add1(nullptr);
    EXPECT_EQ(std::string(g.data(), g.length()), "ab" + longText + std::string("z\0\0", 3));
    Memory m;
    EXPECT_EQ(std::string(g.get(&m)), "ab" + longText + "z");
}
