#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "memory.h"
#include "testUtil.h"

TEST(Memory, ChunkIsSizedFromTheLastRoundsHighWater) {
    Memory big, small;
    big.malloc(100);
    EXPECT_EQ(big.chunkSize(), Memory::MIN_CHUNK);
    big.malloc(500000);
    EXPECT_EQ(big.used(), 500100);
    big.reset();
    EXPECT_EQ(big.highWater(), Memory::MAX_HIGH_WATER);
    EXPECT_EQ(big.chunkSize(), 0);
    big.malloc(1);
    EXPECT_EQ(big.chunkSize(), Memory::MAX_HIGH_WATER);

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
    char* big = static_cast<char*>(m.malloc(20000));
    ASSERT_NE(big, nullptr);
    memset(big, 'x', 20000);
    EXPECT_EQ(m.blockCount(), 1);
    EXPECT_EQ(static_cast<char*>(m.malloc(16)) - first, 24);  // the chunk still serves
    EXPECT_EQ(static_cast<char*>(m.imalloc(16)) - first, 40);
    EXPECT_EQ(m.used(), 20032);  // imalloc does not count

    // Past the first 1,024 blocks the list grows; reset frees them all.
    for (int i = 0; i < 1100; ++i) m.malloc(20000 + i);
    m.add(::malloc(10));
    EXPECT_EQ(m.blockCount(), 1102);
    m.reset();
    EXPECT_EQ(m.blockCount(), 0);
}

TEST(InternalCache, RingWrapsAtTheEndAndAlignsOffsets) {
    const int size = InternalCache::SIZE;
    char* base = InternalCache::m_cacheHandle;
    InternalCache::m_current_offset = size - 104;
    EXPECT_EQ(InternalCache::getCacheReturn(nullptr, 102, false), base + size - 104);
    EXPECT_EQ(InternalCache::currentOffset(), size - 2);
    InternalCache::m_current_offset = size - 104;
    EXPECT_EQ(InternalCache::getCacheReturn(nullptr, 103, false), base);
    EXPECT_EQ(InternalCache::currentOffset(), 103);

    char* aligned = InternalCache::getCacheReturn("hello");
    EXPECT_EQ(aligned, base + 104);
    EXPECT_STREQ(aligned, "hello");
    EXPECT_STREQ(InternalCache::getCacheReturn("abcdef", 4, false), "abc");
}

TEST(GrowingString, AppendsGrowsAndBuildsZeroSeparatedLists) {
    GrowingString g;
    g.add(nullptr).add("").add("abc", 2);
    std::string longText(600, 'y');
    g.add(longText.c_str());
    EXPECT_EQ(g.length(), 602u);
    EXPECT_EQ(g.capacity(), 600u + 512u + 1024u);
    Memory m;
    EXPECT_EQ(std::string(g.get(&m)), "ab" + longText);

    GrowingString list;
    list.add1("a").add1(nullptr).add1("bc");
    EXPECT_EQ(std::string(list.data(), list.length()), std::string("a\0\0bc\0", 6));
    EXPECT_STREQ(list.get(nullptr), "a");
}

TEST(InternalCache, FgetsReadsLongLinesWholeAndDropsAnUnterminatedLastLine) {
    TempDir dir;
    std::string longLine(10000, 'L');
    spit(dir.file("f.txt"), longLine + "\nsecond\ntail");
    Memory m;
    for (Memory* arena : {&m, static_cast<Memory*>(nullptr)}) {
        FILE* f = fopen(dir.file("f.txt").c_str(), "r");
        ASSERT_NE(f, nullptr);
        char* buffer = nullptr;
        int size = 0;
        char* line = InternalCache::fgets(&buffer, &size, f, arena);
        EXPECT_EQ(std::string(line ? line : "(none)"), longLine + "\n");
        EXPECT_EQ(size, 16384);
        line = InternalCache::fgets(&buffer, &size, f, arena);
        EXPECT_STREQ(line, "second\n");
        EXPECT_EQ(InternalCache::fgets(&buffer, &size, f, arena), nullptr);
        fclose(f);
    }
}
