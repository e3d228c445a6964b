#include "memory.h"

#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "exception.h"
#include "locks.h"

namespace {
const int BLOCK_SLOTS = 1024;
const int FGETS_START = 4096;

inline size_t roundUp8(size_t n) { return (n + 7) & ~static_cast<size_t>(7); }
}  // namespace

// ---------------------------------------------------------------- Memory

Memory::Memory() { m_blocks = static_cast<void**>(::malloc(sizeof(void*) * BLOCK_SLOTS)); }

Memory::~Memory() {
    reset();
    ::free(m_blocks);
}

void Memory::addBlock(void* p) {
    if (m_blockCount + 1 >= m_blockCapacity) {
        m_blockCapacity += m_growth;
        m_blocks = static_cast<void**>(::realloc(m_blocks, sizeof(void*) * m_blockCapacity));
    }
    m_blocks[m_blockCount++] = p;
}

void* Memory::imalloc(size_t size) {
    if (!m_chunk) {
        int want = std::max(m_highWater, MIN_CHUNK);
        m_chunk = static_cast<char*>(::malloc(want));
        if (!m_chunk) return nullptr;
        m_chunkSize = want;
        m_chunkOffset = 0;
    }
    if (m_chunkOffset > 0) m_chunkOffset = static_cast<int>(roundUp8(m_chunkOffset));
    if (static_cast<size_t>(m_chunkOffset) + size > static_cast<size_t>(m_chunkSize)) return nullptr;
    void* p = m_chunk + m_chunkOffset;
    m_chunkOffset += static_cast<int>(size);
    return p;
}

void* Memory::malloc(size_t size) {
    if (void* p = imalloc(size)) {
        m_used += static_cast<int>(size);
        return p;
    }
    void* p = ::malloc(size ? size : 1);
    if (!p) {
        logSysError("Malloc Failure - using InternalCache space");
        return InternalCache::getCacheReturn(nullptr, size, false);
    }
    addBlock(p);
    m_used += static_cast<int>(size);
    return p;
}

void* Memory::add(void* p) {
    if (p) addBlock(p);
    return p;
}

void Memory::reset() {
    for (int i = 0; i < m_blockCount; ++i) ::free(m_blocks[i]);
    m_blockCount = 0;
    m_chunkOffset = 0;
    m_chunkSize = 0;
    ::free(m_chunk);
    m_chunk = nullptr;
    if (m_used > m_highWater) m_highWater = std::min(m_used, MAX_HIGH_WATER);
    m_used = 0;
}

// ---------------------------------------------------------- GrowingString

GrowingString::GrowingString() {
    m_buffer = static_cast<char*>(::malloc(m_capacity));
    m_buffer[0] = '\0';
}

GrowingString::~GrowingString() { ::free(m_buffer); }

void GrowingString::reserveFor(unsigned int n) {
    if (m_length + n + 1 >= m_capacity) {
        m_capacity = n + m_capacity + 1024;
        m_buffer = static_cast<char*>(::realloc(m_buffer, m_capacity));
    }
}

GrowingString& GrowingString::add(const char* text, int length) {
    if (!text || !*text) return *this;
    unsigned int n = length < 1 ? static_cast<unsigned int>(strlen(text)) : static_cast<unsigned int>(length);
    reserveFor(n);
    memcpy(m_buffer + m_length, text, n);
    m_length += n;
    m_buffer[m_length] = '\0';
    return *this;
}

GrowingString& GrowingString::add1(const char* text) {
    if (!text) text = "";
    unsigned int n = static_cast<unsigned int>(strlen(text)) + 1;
    reserveFor(n);
    memcpy(m_buffer + m_length, text, n);
    m_length += n;
    m_buffer[m_length] = '\0';
    return *this;
}

char* GrowingString::get(Memory* memory) {
    size_t room = m_length + 1;
    char* out = memory ? static_cast<char*>(memory->malloc(room))
                       : InternalCache::getCacheReturn(nullptr, room, false);
    strcpy(out, m_buffer);
    return out;
}

// ---------------------------------------------------------- InternalCache

char* InternalCache::m_cacheHandle = static_cast<char*>(::malloc(InternalCache::SIZE));
int InternalCache::m_current_offset = 0;
pthread_mutex_t InternalCache::m_mutex = PTHREAD_MUTEX_INITIALIZER;

char* InternalCache::getCacheReturn(const char* text, size_t size, bool blockSignals) {
    sigset_t all, previous;
    if (blockSignals) {
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
    }
    Util::setMutexLock(&m_mutex);
    // Another translation unit's static initialiser may get here first.
    if (!m_cacheHandle) m_cacheHandle = static_cast<char*>(::malloc(SIZE));
    char* result;
    if (size >= static_cast<size_t>(SIZE - 1)) {
        // Cannot fit in the ring at all; a leaked block is the lesser evil.
        result = static_cast<char*>(::malloc(size));
    } else {
        size_t offset = static_cast<size_t>(m_current_offset);
        if (offset + size >= static_cast<size_t>(SIZE - 1)) {
            offset = 0;
        } else if (offset > 0) {
            offset = roundUp8(offset);
            if (offset + size > static_cast<size_t>(SIZE)) offset = 0;
        }
        result = m_cacheHandle + offset;
        m_current_offset = static_cast<int>(offset + size);
    }
    if (text && result) {
        size_t n = strnlen(text, size ? size - 1 : 0);
        memcpy(result, text, n);
        if (size) result[n] = '\0';
    }
    pthread_mutex_unlock(&m_mutex);
    if (blockSignals) pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return result;
}

char* InternalCache::getCacheReturn(const char* text) {
    return getCacheReturn(text, text ? strlen(text) + 1 : 1, false);
}

static char* takeBuffer(size_t size, Memory* memory) {
    return memory ? static_cast<char*>(memory->malloc(size)) : InternalCache::getCacheReturn(nullptr, size, false);
}

char* InternalCache::fgets(char** buffer, int* size, FILE* file, Memory* memory) {
    if (!*buffer || *size == 0) {
        *size = FGETS_START;
        *buffer = takeBuffer(FGETS_START, memory);
    }
    if (!::fgets(*buffer, *size, file)) return nullptr;
    for (;;) {
        size_t len = strlen(*buffer);
        if (len > 0 && (*buffer)[len - 1] == '\n') return *buffer;
        int oldSize = *size;
        int newSize = oldSize * 2;
        char* grown = takeBuffer(newSize, memory);
        // A ring buffer this large may wrap onto the old one.
        memmove(grown, *buffer, oldSize);
        *buffer = grown;
        *size = newSize;
        if (!::fgets(grown + oldSize - 1, oldSize + 1, file)) return nullptr;
    }
}
