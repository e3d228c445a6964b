#include "jsn.h"

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {
const int TOKEN_STEP = 512;
char g_empty[1] = {0};

bool isHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'F') || (c >= 'a' && c <= 'f');
}
}  // namespace

JsnParser::JsnParser(char* text_, int length_)
    : text(text_),
      length(length_ > 0 && text_ ? (unsigned int)length_ : 0),
      failed(false),
      m_pos(0),
      m_parent(-1),
      m_count(0),
      m_capacity(TOKEN_STEP),
      m_tokens((JsnToken*)::malloc(sizeof(JsnToken) * TOKEN_STEP)),
      m_result(0) {
    try {
        m_result = parse();
    } catch (...) {
        ::free(m_tokens);
        m_tokens = nullptr;
        reset();
        throw;
    }
    failed = m_result != 0;
}

JsnParser::~JsnParser() { ::free(m_tokens); }

int JsnParser::appendToken(int type, int start, int end) {
    if (m_count + 1 >= m_capacity) {
        // Doubling: growing by a fixed step would copy the table once per step.
        m_capacity += m_capacity > TOKEN_STEP ? m_capacity : TOKEN_STEP;
        m_tokens = (JsnToken*)::realloc(m_tokens, sizeof(JsnToken) * m_capacity);
    }
    JsnToken& t = m_tokens[m_count];
    t.type = type;
    t.start = start;
    t.end = end;
    t.size = 0;
    t.parent = -1;
    return m_count++;
}

int JsnParser::parse() {
    while (m_pos < length && isspace((unsigned char)text[m_pos])) m_pos++;
    if (m_pos >= length || text[m_pos] != '{') return -3;

    // The objects and arrays not yet closed, innermost last. A closing
    // bracket belongs to the innermost one: it is the first open token met
    // walking up from the last token, found here without the walk.
    std::vector<int> open;
    for (; m_pos < length && text[m_pos] != '\0'; m_pos++) {
        char c = text[m_pos];
        switch (c) {
        case '{':
        case '[': {
            int i = appendToken(c == '{' ? JSN_OBJECT : JSN_ARRAY, (int)m_pos, -1);
            if (m_parent != -1) {
                m_tokens[m_parent].size++;
                m_tokens[i].parent = m_parent;
            }
            m_parent = i;
            open.push_back(i);
            break;
        }
        case '}':
        case ']': {
            if (m_count < 2) return -2;
            // Everything is closed: a stray bracket is ignored.
            if (open.empty()) break;
            JsnToken& t = m_tokens[open.back()];
            if (t.type != (c == '}' ? JSN_OBJECT : JSN_ARRAY)) return -2;
            t.end = (int)m_pos + 1;
            m_parent = t.parent;
            open.pop_back();
            break;
        }
        case '"': {
            int r = parseString();
            if (r < 0) return r;
            if (m_parent != -1) m_tokens[m_parent].size++;
            break;
        }
        case '\t':
        case '\r':
        case '\n':
        case ' ':
            break;
        case ':':
            m_parent = m_count - 1;
            break;
        case ',':
            if (m_parent != -1 && m_tokens[m_parent].type != JSN_OBJECT &&
                m_tokens[m_parent].type != JSN_ARRAY)
                m_parent = m_tokens[m_parent].parent;
            break;
        default:
            parsePrimitive();
            if (m_parent != -1) m_tokens[m_parent].size++;
            break;
        }
    }
    return open.empty() ? 0 : -3;
}

int JsnParser::parseString() {
    unsigned int start = m_pos;
    m_pos++;
    for (; m_pos < length && text[m_pos] != '\0'; m_pos++) {
        char c = text[m_pos];
        if (c == '"') {
            int i = appendToken(JSN_STRING, (int)start + 1, (int)m_pos);
            m_tokens[i].parent = m_parent;
            return 0;
        }
        if (c != '\\' || m_pos + 1 >= length) continue;
        m_pos++;
        switch (text[m_pos]) {
        case '"':
        case '/':
        case '\\':
        case 'b':
        case 'f':
        case 'r':
        case 'n':
        case 't':
            break;
        case 'u': {
            m_pos++;
            int digits = 0;
            for (; digits < 4 && m_pos < length && text[m_pos] != '\0'; digits++, m_pos++) {
                if (!isHex(text[m_pos])) {
                    m_pos = start;
                    return -2;
                }
            }
            // Now just past the last digit. A complete escape passes over the
            // two bytes after it (the loop's increment adds one more); a cut
            // one lets the loop see the end.
            if (digits == 4)
                m_pos += 1;
            else
                m_pos -= 1;
            break;
        }
        default:
            fputs("JSON parse error - backslash problem\n", stderr);
            m_pos = start;
            return -2;
        }
    }
    m_pos = start;
    return -3;
}

int JsnParser::parsePrimitive() {
    unsigned int start = m_pos;
    for (; m_pos < length; m_pos++) {
        char c = text[m_pos];
        if (c == '\0' || c == '\t' || c == '\n' || c == '\r' || c == ' ' || c == ',' ||
            c == ':' || c == ']' || c == '}')
            break;
    }
    int i = appendToken(JSN_PRIMITIVE, (int)start, (int)m_pos);
    m_tokens[i].parent = m_parent;
    m_pos--;
    return 0;
}

bool JsnParser::keyEquals(const JsnToken& t, const char* key, bool prefix) const {
    if (t.end < t.start) return false;
    size_t n = (size_t)(t.end - t.start);
    size_t k = strlen(key);
    if (prefix ? n > k : n != k) return false;
    return memcmp(text + t.start, key, n) == 0;
}

int JsnParser::findKey(int parent, const char* key, int from, bool prefix) const {
    for (int i = from; i < m_count; i++)
        if (m_tokens[i].parent == parent && keyEquals(m_tokens[i], key, prefix)) return i;
    return -1;
}

// The n-th child (from 0) of a token, or -1.
int JsnParser::childAt(int container, int n) const {
    for (int i = container + 1; i < m_count; i++) {
        if (m_tokens[i].parent != container) continue;
        if (n-- == 0) return i;
    }
    return -1;
}

int JsnParser::findValue(int parent, const char* key, int index, bool countFromOne) {
    if (!key || index < 0) return -1;
    int k = findKey(parent, key, 0, false);
    if (k < 0) return -1;
    if (index == 0) return m_tokens[k].size == 1 ? childAt(k, 0) : -1;
    int c = k + 1;
    if (c >= m_count) return -1;
    const JsnToken& ct = m_tokens[c];
    if ((ct.type != JSN_OBJECT && ct.type != JSN_ARRAY) || ct.size < index) return -1;
    return childAt(c, countFromOne ? index - 1 : index);
}

char* JsnParser::copyText(int start, int end) {
    size_t n = (size_t)(end - start);
    char* out = (char*)malloc(n + 1);
    memcpy(out, text + start, n);
    out[n] = 0;
    return out;
}

char* JsnParser::getString(int parent, const char* key, int index) {
    int v = findValue(parent, key, index, true);
    if (v < 0) return g_empty;
    const JsnToken& t = m_tokens[v];
    if (t.type != JSN_PRIMITIVE && t.type != JSN_STRING) return g_empty;
    return copyText(t.start, t.end);
}

int JsnParser::getInt(int parent, const char* key, int index) {
    int v = findValue(parent, key, index, false);
    if (v < 0 || m_tokens[v].type != JSN_PRIMITIVE) return 0;
    // The token is copied because the caller's text need not end in a NUL.
    return (int)strtol(copyText(m_tokens[v].start, m_tokens[v].end), nullptr, 10);
}

double JsnParser::getFloat(int parent, const char* key, int index) {
    int v = findValue(parent, key, index, false);
    if (v < 0 || m_tokens[v].type != JSN_PRIMITIVE) return 0.0;
    return atof(copyText(m_tokens[v].start, m_tokens[v].end));
}

bool JsnParser::getBool(int parent, const char* key, int index) {
    int v = findValue(parent, key, index, false);
    if (v < 0 || m_tokens[v].type != JSN_PRIMITIVE) return false;
    return tolower((unsigned char)text[m_tokens[v].start]) == 't';
}

int JsnParser::getObject(int parent, const char* key, int index) {
    if (!key || index < 0) return -1;
    int k = findKey(parent, key, 0, true);
    if (k < 0) return -1;
    int v = childAt(k, 0);
    if (v < 0) return -1;
    if (m_tokens[v].type != JSN_ARRAY) return index == 0 ? v : -1;
    if (index == 0) return -1;
    int e = childAt(v, index - 1);
    return e >= 0 && m_tokens[e].type == JSN_OBJECT ? e : -1;
}

char* JsnParser::getFullObject(int parent, const char* key, int index) {
    int v = getObject(parent, key, index);
    if (v < 0 || m_tokens[v].end < m_tokens[v].start) return copyText0("{ }");
    int start = m_tokens[v].start;
    int end = m_tokens[v].end;
    char first = text[start];
    if (first != '{' && first != '[' && start > 0 && text[start - 1] == '"') {
        start--;
        if ((unsigned int)end < length) end++;
    }
    return copyText(start, end);
}

int JsnParser::arrayAfterKey(int parent, const char* key, int index) const {
    if (!key || index < 0) return -1;
    int k = -1;
    for (int n = 0; n <= index; n++) {
        k = findKey(parent, key, k + 1, true);
        if (k < 0) return -1;
    }
    int a = k + 1;
    if (a >= m_count || m_tokens[a].type != JSN_ARRAY) return -1;
    return a;
}

int JsnParser::getArrayNum(int parent, const char* key, int index) {
    int a = arrayAfterKey(parent, key, index);
    return a < 0 ? 0 : m_tokens[a].size;
}

char* JsnParser::getFullArray(int parent, const char* key, int index) {
    int a = arrayAfterKey(parent, key, index);
    if (a < 0 || m_tokens[a].end < m_tokens[a].start) return copyText0("[ ]");
    return copyText(m_tokens[a].start, m_tokens[a].end);
}

char* JsnParser::copyText0(const char* s) {
    size_t n = strlen(s) + 1;
    char* out = (char*)malloc(n);
    memcpy(out, s, n);
    return out;
}

// ------------------------------------------------------------------ balance

void JsnBalance::add(const char* bytes, size_t n) {
    for (size_t i = 0; i < n && m_state != State::Ended && m_state != State::Hopeless; i++) step(bytes[i]);
}

void JsnBalance::step(char c) {
    switch (m_state) {
    case State::Before:
        if (isspace((unsigned char)c)) return;
        m_state = c == '{' ? State::Between : State::Hopeless;
        m_depth = 1;
        return;
    case State::Word:
        // A bare word runs on over brackets and quotes.
        if (c != '\0' && c != '\t' && c != '\n' && c != '\r' && c != ' ' && c != ',' && c != ':' && c != ']' &&
            c != '}')
            return;
        m_state = State::Between;
        break;  // the delimiter counts as it does between tokens
    case State::String:
        if (c == '"') m_state = State::Between;
        if (c == '\\') m_state = State::Escape;
        if (c == '\0') m_state = State::Hopeless;
        return;
    case State::Escape:
        m_state = strchr("\"/\\bfrnt", c) && c ? State::String : c == 'u' ? State::Hex : State::Hopeless;
        m_left = 4;
        return;
    case State::Hex:
        if (!isHex(c)) {
            m_state = State::Hopeless;
            return;
        }
        if (--m_left == 0) {
            m_state = State::Skip;
            m_left = 2;
        }
        return;
    case State::Skip:
        if (--m_left == 0) m_state = State::String;
        return;
    case State::Between:
    case State::Ended:
    case State::Hopeless:
        break;
    }
    switch (c) {
    case '{':
    case '[':
        m_depth++;
        break;
    case '}':
    case ']':
        if (m_depth > 0) m_depth--;
        break;
    case '"':
        m_state = State::String;
        break;
    case '\0':
        m_state = State::Ended;
        break;
    case '\t':
    case '\n':
    case '\r':
    case ' ':
    case ':':
    case ',':
        break;
    default:
        m_state = State::Word;
        break;
    }
}

bool JsnBalance::mayParse() const {
    return m_depth == 0 && (m_state == State::Between || m_state == State::Word || m_state == State::Ended);
}
