// One-pass JSON tokenizer, linear in the text. The text is neither copied nor
// decoded: tokens are offsets into the caller's text, which must outlive the
// parser. Every value handed out is a NUL-terminated copy in the parser's own
// arena, valid until the parser is destroyed. Lenient by design; its quirks
// are relied upon.
#pragma once
#include <cstddef>

#include "memory.h"

struct JsnToken {
    int type;    // JSN_PRIMITIVE, JSN_OBJECT, JSN_ARRAY, JSN_STRING
    int start;   // first byte (string: after the quote; container: the bracket)
    int end;     // one past the last byte (string: the closing quote); -1 while open
    int size;    // direct children; a key string has 1 when a value follows
    int parent;  // enclosing token, -1 at top level
};

enum { JSN_PRIMITIVE = 0, JSN_OBJECT = 1, JSN_ARRAY = 2, JSN_STRING = 3 };

class JsnParser : public Memory {
public:
    // Parses at once, reading at most length bytes (stops early at a NUL).
    // Bad JSON never throws: failed is set and the tokens made so far remain.
    JsnParser(char* text, int length);
    ~JsnParser() override;

    // 0 success, -1 out of memory (never produced), -2 invalid, -3 incomplete.
    // The tokenizer steps; the constructor runs parse() once.
    int parse();
    int parseString();
    int parsePrimitive();

    // Look-ups by parent token (0 = the document), key and index.
    // Index 0: the key's value. Index N >= 1 into an array value: getString
    // counts elements from 1, the numeric accessors from 0 (kept as is).
    // Not found: "" (static), 0, 0.0, false.
    char* getString(int parent, const char* key, int index);
    int getInt(int parent, const char* key, int index);
    double getFloat(int parent, const char* key, int index);
    bool getBool(int parent, const char* key, int index);
    // Keys match by prefix here (key "ab" finds a key "a"). Token index or -1.
    int getObject(int parent, const char* key, int index);
    // Raw text of what getObject finds (string values keep their quotes);
    // "{ }" when nothing is found.
    char* getFullObject(int parent, const char* key, int index);
    // The index-th prefix-matching key (from 0) whose value is an array:
    // its element count (else 0) and its raw text, brackets included (else "[ ]").
    int getArrayNum(int parent, const char* key, int index);
    char* getFullArray(int parent, const char* key, int index);

    // Token access for diagnostics and tests.
    int tokenCount() const { return m_count; }
    const JsnToken& token(int i) const { return m_tokens[i]; }
    int result() const { return m_result; }

    char* text;
    unsigned int length;
    bool failed;

private:
    int findValue(int parent, const char* key, int index, bool countFromOne);
    int findKey(int parent, const char* key, int from, bool prefix) const;
    bool keyEquals(const JsnToken& t, const char* key, bool prefix) const;
    int childAt(int container, int n) const;
    int arrayAfterKey(int parent, const char* key, int index) const;
    char* copyText0(const char* s);
    int appendToken(int type, int start, int end);
    char* copyText(int start, int end);

    unsigned int m_pos;
    int m_parent;
    int m_count;
    int m_capacity;
    JsnToken* m_tokens;
    int m_result;
};

// Follows a document arriving piece by piece, reading it as JsnParser does
// (strings with their escapes and the two bytes passed over after a "\u"
// escape, bare words that take in brackets and quotes, the end at a NUL), so
// that a receiver parses the whole text only when it can be complete.
// Constant memory and time per byte; the pieces are not kept.
class JsnBalance {
public:
    void add(const char* bytes, size_t n);
    // False while JsnParser would still answer -3 (incomplete) for the text so
    // far; true for every text that it parses.
    bool mayParse() const;
    // JsnParser can never parse this text, whatever follows.
    bool hopeless() const { return m_state == State::Hopeless; }

private:
    enum class State : unsigned char { Before, Between, Word, String, Escape, Hex, Skip, Ended, Hopeless };
    void step(char c);

    State m_state = State::Before;
    int m_left = 0;       // hex digits or bytes to pass over still due
    size_t m_depth = 0;   // open objects and arrays
};
