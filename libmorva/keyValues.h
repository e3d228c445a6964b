// Sorted key/value table with binary search (strcmp order). Keys are copied
// into the table's pool; values are the caller's pointers and must outlive it.
#pragma once
#include <cstdint>
#include <cstdio>

class Memory;

template <typename T>
class KeyValues;

template <>
class KeyValues<char> {
public:
    struct Entry {
        uint32_t keyOffset;
        char* value;
    };

    KeyValues();
    // Room for `capacity` entries and a key pool of `poolSize` bytes to start with.
    KeyValues(int capacity, int poolSize);
    virtual ~KeyValues();
    KeyValues(const KeyValues&) = delete;
    KeyValues& operator=(const KeyValues&) = delete;

    // Insert or replace; growth is the step for the entry array (callers pass 64).
    uint32_t addKeyValue(const char* key, char* value, int growth = 64);
    // The value, or null when the key is absent.
    char* get(const char* key) const;
    // Lines "key<sep>value": key as it stands, value right-trimmed and copied
    // into the arena. Lines without the separator are skipped.
    void load(FILE* file, Memory* memory, char separator);

    int count() const { return m_count; }
    const char* keyAt(int i) const { return m_pool + m_entries[i].keyOffset; }
    char* valueAt(int i) const { return m_entries[i].value; }

private:
    // Index of the key, or -(insertion point) - 1.
    int search(const char* key) const;

    bool m_owns = true;
    Entry* m_entries;
    int m_count = 0;
    int m_capacity = 4096;
    char* m_pool;
    int m_poolUsed = 0;
    int m_poolSize = 64;
};
