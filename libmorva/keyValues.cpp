#include "keyValues.h"

#include <cstdlib>
#include <cstring>

#include "memory.h"
#include "text.h"

KeyValues<char>::KeyValues() : KeyValues(4096, 64) {}

KeyValues<char>::KeyValues(int capacity, int poolSize) : m_capacity(capacity > 1 ? capacity : 2), m_poolSize(poolSize > 1 ? poolSize : 2) {
    m_entries = static_cast<Entry*>(::malloc(sizeof(Entry) * m_capacity));
    m_pool = static_cast<char*>(::malloc(m_poolSize));
}

KeyValues<char>::~KeyValues() {
    if (m_owns) {
        ::free(m_entries);
        ::free(m_pool);
    }
}

int KeyValues<char>::search(const char* key) const {
    int low = 0, high = m_count;
    int probe = m_count / 2;
    while (high > low) {
        int c = strcmp(m_pool + m_entries[probe].keyOffset, key);
        if (c == 0) return probe;
        if (c < 0)
            low = probe + 1;
        else
            high = probe;
        probe = low + (high - low) / 2;
    }
    return -low - 1;
}

uint32_t KeyValues<char>::addKeyValue(const char* key, char* value, int growth) {
    if (!key) key = "";
    if (growth < 1) growth = 64;
    int at = search(key);
    if (at >= 0) {
        m_entries[at].value = value;
        return m_entries[at].keyOffset;
    }
    at = -at - 1;
    int keyLength = static_cast<int>(strlen(key));
    if (m_poolUsed + keyLength + 1 >= m_poolSize) {
        m_poolSize += growth * 64 + keyLength + 1;
        m_pool = static_cast<char*>(::realloc(m_pool, m_poolSize));
    }
    uint32_t offset = static_cast<uint32_t>(m_poolUsed);
    memcpy(m_pool + m_poolUsed, key, keyLength + 1);
    m_poolUsed += keyLength + 1;
    if (m_count + 1 >= m_capacity) {
        m_capacity += growth;
        m_entries = static_cast<Entry*>(::realloc(m_entries, sizeof(Entry) * m_capacity));
    }
    memmove(m_entries + at + 1, m_entries + at, sizeof(Entry) * (m_count - at));
    m_entries[at].keyOffset = offset;
    m_entries[at].value = value;
    ++m_count;
    return offset;
}

char* KeyValues<char>::get(const char* key) const {
    if (!key) return nullptr;
    int at = search(key);
    return at >= 0 ? m_entries[at].value : nullptr;
}

void KeyValues<char>::load(FILE* file, Memory* memory, char separator) {
    if (!file) return;
    char* line = nullptr;
    int size = 0;
    while (InternalCache::fgets(&line, &size, file, memory)) {
        char* sep = strchr(line, separator);
        if (!sep) continue;
        *sep = '\0';
        char* value = rtrim(sep + 1);
        size_t n = strlen(value) + 1;
        char* copy = memory ? static_cast<char*>(memory->malloc(n)) : InternalCache::getCacheReturn(nullptr, n, false);
        memcpy(copy, value, n);
        addKeyValue(line, copy, 64);
    }
}
