// Scratch memory: caller-owned arenas, the process-wide 1 MiB ring, and an
// appendable string. Nothing handed out here is ever freed piece by piece.
#pragma once
#include <cstddef>
#include <cstdio>
#include <pthread.h>

#include "bounds.h"

class Memory {
public:
    Memory();
    virtual ~Memory();
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;

    // Scratch bytes valid until reset(); never null (falls back to the ring).
    void* malloc(size_t size);
    // Bytes from the current chunk only; null when they do not fit.
    void* imalloc(size_t size);
    // Adopts a system allocation, freed at reset(); returns it.
    void* add(void* p);
    void reset();

    // Introspection for tests and diagnostics.
    int chunkSize() const { return m_chunkSize; }
    int chunkOffset() const { return m_chunkOffset; }
    int highWater() const { return m_highWater; }
    int used() const { return m_used; }
    int blockCount() const { return m_blockCount; }
    int blockCapacity() const { return m_blockCapacity; }

    static constexpr int MIN_CHUNK = 10240;
    static constexpr int MAX_HIGH_WATER = 102400;

private:
    void addBlock(void* p);

    int m_blockCount = 0;
    int m_blockCapacity = 1024;
    void** m_blocks;
    int m_growth = 1024;
    char* m_chunk = nullptr;
    int m_chunkOffset = 0;
    int m_chunkSize = 0;
    int m_used = 0;
    int m_highWater = 0;
};

class GrowingString {
public:
    GrowingString();
    virtual ~GrowingString();
    GrowingString(const GrowingString&) = delete;
    GrowingString& operator=(const GrowingString&) = delete;

    // Appends; a length below 1 means strlen(text). Null/empty text: no-op.
    GrowingString& add(const char* text, int length = 0);
    // Appends the text and its zero byte (null counts as empty).
    GrowingString& add1(const char* text);
    // Copy up to the first zero byte, in the arena or (null) in the ring.
    char* get(Memory* memory);

    const char* data() const { return m_buffer; }
    unsigned int length() const { return m_length; }
    unsigned int capacity() const { return m_capacity; }

private:
    void reserveFor(unsigned int n);
    char* m_buffer;
    unsigned int m_length = 0;
    unsigned int m_capacity = 512;
};

// Process-wide ring buffer. Text from it is valid only until the ring wraps.
class InternalCache {
public:
    static constexpr int SIZE = Limits::RING_SIZE;

    // Reserves size bytes (8-byte aligned, wraps when offset + size >= SIZE - 1);
    // copies text there when given. blockSignals masks all signals meanwhile.
    static char* getCacheReturn(const char* text, size_t size, bool blockSignals);
    static char* getCacheReturn(const char* text);

    // Reads one whole line of any length into *buffer (grown in the arena or
    // the ring). Returns null at end of file; a last line without a newline
    // is never returned.
    static char* fgets(char** buffer, int* size, FILE* file, Memory* memory);

    static int currentOffset() { return m_current_offset; }

    static char* m_cacheHandle;
    static int m_current_offset;
    static pthread_mutex_t m_mutex;
};
