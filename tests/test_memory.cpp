// The process-wide facilities under one mutex each, the scratch cache and the
// random generator, and the caller's arenas.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "memory.h"
#include "random.h"

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
}

// Results stay inside the ring and are not handed to two threads at once.
TEST(InternalCache, RingUnderThreadsAndAtItsEnd) {
    const char* base = InternalCache::m_cacheHandle;
    for (int left = 1; left < 80; ++left) {
        for (size_t size = 1; size < 80; size += 3) {
            InternalCache::m_current_offset = InternalCache::SIZE - left;
            char* p = InternalCache::getCacheReturn(nullptr, size, false);
            ASSERT_TRUE(p >= base && p + size <= base + InternalCache::SIZE && (p - base) % 8 == 0) << left << " " << size;
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
        (fallback ? get_random_bytes : [](void* b, int n) { getRandomNumber((unsigned char*)b, n); })(buf.data(), (int)buf.size());
        int zeros = 0;
        for (size_t i = buf.size() - 1000; i < buf.size(); i++) zeros += buf[i] == 0;
        EXPECT_LT(zeros, 30) << fallback;
    }
}
