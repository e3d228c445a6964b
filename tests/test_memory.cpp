#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "memory.h"
#include "testUtil.h"

TEST(Memory, ChunkIsSizedFromTheLastRoundsHighWater) {
    Memory big;
    big.malloc(100);
    EXPECT_EQ(big.chunkSize(), Memory::MIN_CHUNK);
    big.malloc(500000);
    EXPECT_EQ(big.used(), 500100);
    big.reset();
    EXPECT_EQ(big.highWater(), 102400);
    EXPECT_EQ(big.chunkSize(), 0);
    big.malloc(1);
    EXPECT_EQ(big.chunkSize(), 102400);

    Memory small;
    small.malloc(100);
    small.reset();
    EXPECT_EQ(small.highWater(), 100);
    small.malloc(1);
    EXPECT_EQ(small.chunkSize(), Memory::MIN_CHUNK);
}

TEST(Memory, AlignedChunkWithSeparateBlocksForOversizedRequests) {
    Memory m;
    char* first = static_cast<char*>(m.malloc(3));
    EXPECT_EQ(static_cast<char*>(m.malloc(13)) - first, 8);
    EXPECT_EQ(m.imalloc(20000), nullptr);
    EXPECT_EQ(m.blockCount(), 0);
    char* big = static_cast<char*>(m.malloc(20000));
    ASSERT_NE(big, nullptr);
    memset(big, 'x', 20000);
    EXPECT_EQ(m.blockCount(), 1);
    EXPECT_EQ(static_cast<char*>(m.malloc(16)) - first, 24);  // the chunk still serves
    EXPECT_EQ(static_cast<char*>(m.imalloc(16)) - first, 40);
    EXPECT_EQ(m.used(), 20032);  // imalloc does not count

    // The block list grows by 1,024 slots when full; everything is freed at reset.
    for (int i = 0; i < 1100; ++i) m.malloc(20000 + i);
    m.add(::malloc(10));
    EXPECT_EQ(m.blockCount(), 1102);
    EXPECT_EQ(m.blockCapacity(), 2048);
    m.reset();
    EXPECT_EQ(m.blockCount(), 0);
    EXPECT_NE(m.malloc(1), nullptr);
}

TEST(InternalCache, RingWrapsAtTheEndAndAlignsOffsets) {
    const int size = InternalCache::SIZE;
    char* base = InternalCache::m_cacheHandle;
    ASSERT_NE(base, nullptr);

    InternalCache::m_current_offset = size - 104;
    EXPECT_EQ(InternalCache::getCacheReturn(nullptr, 102, false), base + size - 104);
    EXPECT_EQ(InternalCache::currentOffset(), size - 2);

    InternalCache::m_current_offset = size - 104;
    EXPECT_EQ(InternalCache::getCacheReturn(nullptr, 103, false), base);
    EXPECT_EQ(InternalCache::currentOffset(), 103);

    char* aligned = InternalCache::getCacheReturn("hello");
    EXPECT_EQ(aligned, base + 104);
    EXPECT_STREQ(aligned, "hello");

    // A size shorter than the text bounds the copy.
    char* cut = InternalCache::getCacheReturn("abcdef", 4, false);
    EXPECT_STREQ(cut, "abc");
}

TEST(GrowingString, AppendsGrowsAndBuildsZeroSeparatedLists) {
    GrowingString g;
    g.add(nullptr).add("").add("abc", 2);
    EXPECT_EQ(g.length(), 2u);
    EXPECT_STREQ(g.data(), "ab");
    std::string longText(600, 'y');
    g.add(longText.c_str());
    EXPECT_EQ(g.length(), 602u);
    EXPECT_EQ(g.capacity(), 600u + 512u + 1024u);
    Memory m;
    char* copy = g.get(&m);
    EXPECT_EQ(std::string(copy), "ab" + longText);

    GrowingString list;
    list.add1("a").add1(nullptr).add1("bc");
    EXPECT_EQ(list.length(), 6u);
    EXPECT_EQ(std::string(list.data(), 6), std::string("a\0\0bc\0", 6));
    EXPECT_STREQ(list.get(nullptr), "a");
}

TEST(InternalCache, FgetsReadsLongLinesWholeAndDropsAnUnterminatedLastLine) {
    TempDir dir;
    std::string longLine(10000, 'L');
    spit(dir.file("f.txt"), longLine + "\nsecond\ntail");
    for (bool useArena : {true, false}) {
        Memory m;
        FILE* f = fopen(dir.file("f.txt").c_str(), "r");
        ASSERT_NE(f, nullptr);
        char* buffer = nullptr;
        int size = 0;
        char* line = InternalCache::fgets(&buffer, &size, f, useArena ? &m : nullptr);
        ASSERT_NE(line, nullptr);
        EXPECT_EQ(std::string(line), longLine + "\n");
        EXPECT_EQ(size, 16384);
        EXPECT_EQ(line, buffer);
        line = InternalCache::fgets(&buffer, &size, f, useArena ? &m : nullptr);
        ASSERT_NE(line, nullptr);
        EXPECT_STREQ(line, "second\n");
        EXPECT_EQ(InternalCache::fgets(&buffer, &size, f, useArena ? &m : nullptr), nullptr);
        fclose(f);
    }
}
