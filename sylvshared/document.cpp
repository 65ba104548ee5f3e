// One-pass JSON parser into an arena per document.
//
// The largest documents the tool reads are service lists: one string per
// service, each holding a JSON text of its own, with an escaped quote every
// few bytes. So strings are decoded in one pass, 16 bytes at a time between
// escapes, straight into the arena, and every value is a 16-byte node there:
// one allocation per document, not per value.
//
// Bounds: a peer may send up to 16 MiB. At most kMaxValues values (4 MiB of
// nodes), kMaxDepth levels (the parser recurses once per level) and
// kMaxKeyComparisons comparisons to find repeated keys (objects keep one
// member per key, and checking costs one pass over the members before it),
// so no text costs more than a few times its size or a few milliseconds.

#include "document.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace sylvshared {

struct Chunk {
    Chunk* next;
};

namespace {

constexpr size_t kAlign = alignof(Node);
constexpr size_t kMinChunk = 4096;
constexpr size_t kMaxChunk = size_t{4} << 20;
constexpr size_t kKeptEntries = 65'536;
constexpr size_t kFirstEntries = 16;

size_t round_up(size_t size) {
    return (size + kAlign - 1) & ~(kAlign - 1);
}

// Adds a chunk able to hold `size` bytes; false when memory runs out.
bool add_chunk(Arena& arena, size_t size, size_t grown) {
    const size_t wanted = std::max(size, std::min(std::max(grown, kMinChunk), kMaxChunk));
    auto* chunk = static_cast<Chunk*>(malloc(round_up(sizeof(Chunk)) + wanted));
    if (chunk == nullptr) {
        arena.out_of_memory = true;
        return false;
    }
    chunk->next = arena.chunks;
    arena.chunks = chunk;
    arena.cursor = reinterpret_cast<char*>(chunk) + round_up(sizeof(Chunk));
    arena.end = arena.cursor + wanted;
    return true;
}

void* allocate(Arena& arena, size_t size) {
    size = round_up(size);
    if (static_cast<size_t>(arena.end - arena.cursor) < size) {
        const size_t used =
            arena.chunks == nullptr ? 0 : static_cast<size_t>(arena.end - arena.cursor);
        if (!add_chunk(arena, size, 2 * used)) {
            return nullptr;
        }
    }
    void* place = arena.cursor;
    arena.cursor += size;
    return place;
}

void free_chunks(Arena& arena) {
    for (Chunk* chunk = arena.chunks; chunk != nullptr;) {
        Chunk* next = chunk->next;
        free(chunk);
        chunk = next;
    }
    arena = Arena{};
}

// Bytes after the lead byte of a well-formed UTF-8 sequence, with the range
// its second byte must fall in (which rules out overlong forms, surrogates
// and code points past U+10FFFF). 0 continuation bytes: not a lead byte.
struct Utf8Lead {
    int continuation;
    uint8_t low;
    uint8_t high;
};

Utf8Lead utf8_lead(uint8_t byte) {
    if (byte >= 0xC2 && byte <= 0xDF)
        return {1, 0x80, 0xBF};
    if (byte == 0xE0)
        return {2, 0xA0, 0xBF};
    if (byte == 0xED)
        return {2, 0x80, 0x9F};
    if (byte >= 0xE1 && byte <= 0xEF)
        return {2, 0x80, 0xBF};
    if (byte == 0xF0)
        return {3, 0x90, 0xBF};
    if (byte >= 0xF1 && byte <= 0xF3)
        return {3, 0x80, 0xBF};
    if (byte == 0xF4)
        return {3, 0x80, 0x8F};
    return {0, 0, 0};
}

// Length of the well-formed sequence at `in`, or 0; `*bad` is then the
// length of its longest valid start (at least 1), which U+FFFD replaces.
size_t utf8_sequence(const uint8_t* in, const uint8_t* end, size_t* bad) {
    const Utf8Lead lead = utf8_lead(in[0]);
    size_t length = 1;
    for (int i = 0; i < lead.continuation; ++i, ++length) {
        const uint8_t low = i == 0 ? lead.low : 0x80;
        const uint8_t high = i == 0 ? lead.high : 0xBF;
        if (in + length >= end || in[length] < low || in[length] > high) {
            *bad = length;
            return 0;
        }
    }
    if (lead.continuation == 0) {
        *bad = 1;
        return 0;
    }
    return length;
}

char* put_utf8(char* out, uint32_t code) {
    if (code < 0x80) {
        *out++ = static_cast<char>(code);
    } else if (code < 0x800) {
        *out++ = static_cast<char>(0xC0 | code >> 6);
        *out++ = static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
        *out++ = static_cast<char>(0xE0 | code >> 12);
        *out++ = static_cast<char>(0x80 | (code >> 6 & 0x3F));
        *out++ = static_cast<char>(0x80 | (code & 0x3F));
    } else {
        *out++ = static_cast<char>(0xF0 | code >> 18);
        *out++ = static_cast<char>(0x80 | (code >> 12 & 0x3F));
        *out++ = static_cast<char>(0x80 | (code >> 6 & 0x3F));
        *out++ = static_cast<char>(0x80 | (code & 0x3F));
    }
    return out;
}

constexpr uint32_t kReplacement = 0xFFFD;

int hex_digit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The four hex digits at `in` (which has at least 4 bytes before `end`), or -1.
int32_t hex4(const char* in, const char* end) {
    if (end - in < 4) {
        return -1;
    }
    int32_t value = 0;
    for (int i = 0; i < 4; ++i) {
        const int digit = hex_digit(in[i]);
        if (digit < 0) {
            return -1;
        }
        value = value << 4 | digit;
    }
    return value;
}

// Keys are NUL-terminated, so the first bytes compare even for empty keys,
// and most keys of an object differ there: memcmp is rarely needed.
bool same_key(const Member& member, const char* key, size_t size) {
    return member.key_size == size && member.key[0] == key[0] && memcmp(member.key, key, size) == 0;
}

// Elements and members of the open containers, moved into the arena when
// each closes. One pair per thread, kept between documents: most are small.
struct ParseStacks {
    std::vector<Node> items;
    std::vector<Member> members;
};

// A pointer rather than the stacks themselves: a thread_local with a
// destructor registers it at first use, which allocates, and glibc aborts
// when that fails. The pair lives as long as its thread.
thread_local ParseStacks* parse_stacks = nullptr;

// The calling thread's stacks, emptied; null when they cannot be made.
ParseStacks* empty_parse_stacks() {
    if (parse_stacks == nullptr) {
        parse_stacks = new (std::nothrow) ParseStacks;
    }
    if (parse_stacks != nullptr) {
        parse_stacks->items.clear();
        parse_stacks->members.clear();
    }
    return parse_stacks;
}

class Parser {
public:
    Parser(const char* text, size_t length, Arena& arena, ParseStacks& stacks,
           bool in_place = false)
        : p_(text),
          end_(text + length),
          arena_(arena),
          in_place_(in_place),
          items_(stacks.items),
          members_(stacks.members) {}
    // A hostile document may have grown the stacks to megabytes: let go.
    ~Parser() {
        if (items_.capacity() > kKeptEntries)
            std::vector<Node>().swap(items_);
        if (members_.capacity() > kKeptEntries)
            std::vector<Member>().swap(members_);
    }

    bool document(Node& root) {
        skip_space();
        if (!value(root)) {
            return false;
        }
        skip_space();
        return p_ == end_;
    }

private:
    const char* p_;
    const char* end_;
    Arena& arena_;
    bool in_place_;
    uint64_t values_ = 0;
    uint64_t comparisons_ = 0;
    int depth_ = 0;
    std::vector<Node>& items_;
    std::vector<Member>& members_;

    void skip_space() {
        while (p_ < end_ && (*p_ == ' ' || *p_ == '\n' || *p_ == '\r' || *p_ == '\t')) {
            ++p_;
        }
    }

    bool literal(const char* word, size_t size) {
        if (static_cast<size_t>(end_ - p_) < size || memcmp(p_, word, size) != 0) {
            return false;
        }
        p_ += size;
        return true;
    }

    bool value(Node& out) {
        if (++values_ > kMaxValues || p_ == end_) {
            return false;
        }
        out = Node{};
        switch (*p_) {
            case '{':
                return object(out);
            case '[':
                return list(out);
            case '"':
                out.kind = Kind::String;
                return in_place_ ? long_string(out) : string(&out.text, &out.size);
            case 't':
                out.kind = Kind::Boolean;
                out.boolean = true;
                return literal("true", 4);
            case 'f':
                out.kind = Kind::Boolean;
                return literal("false", 5);
            case 'n':
                out.kind = Kind::Null;
                return literal("null", 4);
            default:
                return number(out);
        }
    }

    // Digits from p_, at least one; false when there are none.
    bool digits() {
        const char* start = p_;
        while (p_ < end_ && *p_ >= '0' && *p_ <= '9') {
            ++p_;
        }
        return p_ != start;
    }

    bool number(Node& out) {
        const char* start = p_;
        const bool negative = *p_ == '-';
        p_ += negative ? 1 : 0;
        const char* first_digit = p_;
        if (!digits() || (*first_digit == '0' && p_ - first_digit > 1)) {
            return false;
        }
        bool integral = true;
        if (p_ < end_ && *p_ == '.') {
            ++p_;
            integral = false;
            if (!digits())
                return false;
        }
        if (p_ < end_ && (*p_ == 'e' || *p_ == 'E')) {
            ++p_;
            integral = false;
            p_ += p_ < end_ && (*p_ == '+' || *p_ == '-') ? 1 : 0;
            if (!digits())
                return false;
        }
        if (integral && integer(first_digit, negative, out)) {
            return true;
        }
        out.kind = Kind::Real;
        out.real = strtod(start, nullptr);  // grammar checked: strtod stops at p_
        return true;
    }

    // Integer node for the digits from `from` to p_; false when it does not
    // fit 64 bits (it is then read as a real number).
    bool integer(const char* from, bool negative, Node& out) {
        uint64_t magnitude = 0;
        for (; from < p_; ++from) {
            const uint64_t digit = static_cast<uint64_t>(*from - '0');
            if (magnitude > (UINT64_MAX - digit) / 10) {
                return false;
            }
            magnitude = magnitude * 10 + digit;
        }
        if (negative) {
            if (magnitude > uint64_t{1} << 63) {
                return false;
            }
            out.kind = Kind::Integer;
            out.integer = static_cast<int64_t>(0 - magnitude);
        } else {
            out.kind = magnitude > INT64_MAX ? Kind::Unsigned : Kind::Integer;
            out.unsigned_integer = magnitude;
        }
        return true;
    }

    // Copies 16 bytes from in to out (both have room) and returns how many
    // of them come before the first quote, backslash, control character or
    // byte outside ASCII.
    static size_t plain_run(const char* in, char* out) {
#ifdef __SSE2__
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out), bytes);
        // Signed compare: below 0x20 also catches every byte >= 0x80.
        const int mask =
            _mm_movemask_epi8(_mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')),
                                                        _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))),
                                           _mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20))));
        return mask == 0 ? 16 : static_cast<size_t>(__builtin_ctz(static_cast<unsigned>(mask)));
#else
        size_t run = 0;
        while (run < 16 && is_plain(in[run])) {
            out[run] = in[run];
            ++run;
        }
        return run;
#endif
    }

    // 16 bytes at `in` whose only special bytes are escaped quotes wholly
    // among them (a service's text inside the listing), written to out
    // without their backslashes (out has room for 32). Returns the bytes
    // written, or -1 (nothing written) for any other block.
    static int quoted_block(const char* in, char* out) {
#ifdef __SSE2__
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        unsigned backslashes =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))));
        const auto quotes =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"'))));
        // Signed compare: below 0x20 also catches every byte >= 0x80.
        const int others = _mm_movemask_epi8(_mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20)));
        // Each backslash followed by a quote, each quote after a backslash.
        if (backslashes == 0 || others != 0 || quotes != backslashes << 1) {
            return -1;
        }
        alignas(16) char block[32];
        _mm_store_si128(reinterpret_cast<__m128i*>(block), bytes);
        char* start = out;
        unsigned from = 0;
        for (; backslashes != 0; backslashes &= backslashes - 1) {
            const auto at = static_cast<unsigned>(__builtin_ctz(backslashes));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + from)));
            out += at - from;
            *out++ = '"';
            from = at + 2;
        }
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out),
                         _mm_loadu_si128(reinterpret_cast<const __m128i*>(block + from)));
        return static_cast<int>(out - start) + static_cast<int>(16 - from);
#else
        (void)in;
        (void)out;
        return -1;
#endif
    }

    static bool is_plain(char c) {
        const auto byte = static_cast<uint8_t>(c);
        return byte >= 0x20 && byte < 0x80 && byte != '"' && byte != '\\';
    }

    // The character a one-letter escape stands for, or 0 when not one.
    static char escaped(char letter) {
        switch (letter) {
            case '"':
                return '"';
            case '\\':
                return '\\';
            case '/':
                return '/';
            case 'b':
                return '\b';
            case 'f':
                return '\f';
            case 'n':
                return '\n';
            case 'r':
                return '\r';
            case 't':
                return '\t';
            default:
                return 0;
        }
    }

    // One escape at `in`; writes its character at *out. Returns the next
    // input byte, or null when the escape is not JSON.
    const char* escape(const char* in, const char* end, char** out) {
        if (end - in < 2) {
            return nullptr;
        }
        const char letter = in[1];
        if (const char character = escaped(letter)) {
            *(*out)++ = character;
            return in + 2;
        }
        if (letter != 'u') {
            return nullptr;
        }
        int32_t code = hex4(in + 2, end);
        if (code < 0) {
            return nullptr;
        }
        in += 6;
        if (code >= 0xD800 && code <= 0xDBFF && end - in >= 6 && in[0] == '\\' && in[1] == 'u') {
            const int32_t low = hex4(in + 2, end);
            if (low >= 0xDC00 && low <= 0xDFFF) {
                code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
                in += 6;
            }
        }
        if (code >= 0xD800 && code <= 0xDFFF) {
            code = kReplacement;  // a surrogate without its pair
        }
        *out = put_utf8(*out, static_cast<uint32_t>(code));
        return in;
    }

    // Moves the string being decoded, [*place, *out), to a new chunk with
    // room for twice as much; false when memory runs out.
    bool grow(char** place, char** out, char** limit) {
        const size_t kept = static_cast<size_t>(*out - *place);
        const size_t room = 2 * static_cast<size_t>(*limit - *place) + 64;
        if (!add_chunk(arena_, room, room)) {
            return false;
        }
        if (kept > 0) {  // an arena without chunks has no place yet
            memcpy(arena_.cursor, *place, kept);
        }
        *place = arena_.cursor;
        *out = *place + kept;
        *limit = arena_.end;
        return true;
    }

    // One byte at `in` that plain_run stopped at, other than the closing
    // quote, into *out. Returns the next input byte, or null when the
    // string is not JSON.
    const char* special(const char* in, char** out) {
        const auto byte = static_cast<uint8_t>(*in);
        if (byte == '\\') {
            return escape(in, end_, out);
        }
        if (byte < 0x20) {
            return nullptr;
        }
        if (byte < 0x80) {
            *(*out)++ = *in;
            return in + 1;
        }
        size_t bad = 0;
        const auto* at = reinterpret_cast<const uint8_t*>(in);
        const size_t length = utf8_sequence(at, reinterpret_cast<const uint8_t*>(end_), &bad);
        if (length == 0) {
            *out = put_utf8(*out, kReplacement);
            return in + bad;
        }
        memcpy(*out, in, length);
        *out += length;
        return in + length;
    }

public:
    // The string at p_, decoded in one pass into the rest of the arena's
    // chunk (grown when it runs out), which then keeps just what it holds.
    bool string(const char** text, uint32_t* size) {
        const char* in = p_ + 1;
        char* place = arena_.cursor;
        char* out = place;
        char* limit = arena_.end;
        for (;;) {
            if (limit - out < 40 && !grow(&place, &out, &limit)) {
                return false;
            }
            if (end_ - in >= 16) {
                if (const int written = quoted_block(in, out); written >= 0) {
                    in += 16;
                    out += written;
                    continue;
                }
                const size_t run = plain_run(in, out);
                in += run;
                out += run;
                if (run == 16) {
                    continue;
                }
            } else if (in == end_) {
                return false;
            }
            if (*in == '"') {
                break;
            }
            // An escaped quote: in a service list, one every few bytes.
            if (*in == '\\' && end_ - in >= 2 && in[1] == '"') {
                *out++ = '"';
                in += 2;
                continue;
            }
            if ((in = special(in, &out)) == nullptr) {
                return false;
            }
        }
        *out = '\0';
        *text = place;
        *size = static_cast<uint32_t>(out - place);
        arena_.cursor = place + round_up(*size + 1);
        p_ = in + 1;
        return true;
    }

private:
    // One escape at `in` checked, not decoded: the byte after it, or null.
    const char* skip_escape(const char* in) const {
        if (end_ - in < 2) {
            return nullptr;
        }
        if (escaped(in[1]) != 0) {
            return in + 2;
        }
        return in[1] == 'u' && hex4(in + 2, end_) >= 0 ? in + 6 : nullptr;
    }

    // Offset of the first quote, backslash or control byte among the 16 at
    // `in`, or 16 when each backslash there is an escaped quote wholly
    // inside the block (a service's text inside the listing).
    static unsigned special_or_quoted(const char* in) {
#ifdef __SSE2__
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        const auto backslashes =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))));
        const auto quotes =
            static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"'))));
        const auto controls = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(
            _mm_and_si128(bytes, _mm_set1_epi8(static_cast<char>(0xE0))), _mm_setzero_si128())));
        if (controls == 0 && quotes == backslashes << 1) {
            return 16;
        }
        return static_cast<unsigned>(__builtin_ctz(backslashes | quotes | controls));
#else
        unsigned at = 0;
        while (at < 16 && in[at] != '"' && in[at] != '\\' && static_cast<uint8_t>(in[at]) >= 0x20) {
            ++at;
        }
        return at;
#endif
    }

    // Bit masks of 64 bytes: backslashes, quotes, and bytes outside
    // printable ASCII (controls, DEL and bytes from 0x80).
    struct Marks {
        uint64_t backslashes;
        uint64_t quotes;
        uint64_t odd;
    };

    // Bits of the bytes outside printable ASCII among the 64 at `in`.
    static uint64_t odd_bits(const char* in) {
        uint64_t odd = 0;
        for (int at = 0; at < 64; ++at) {
            const bool outside = static_cast<signed char>(in[at]) < 0x20 || in[at] == 0x7F;
            odd |= outside ? 1ULL << at : 0;
        }
        return odd;
    }

#ifdef __SSE2__
    // Backslashes and quotes of the 16 bytes at `in`, shifted to `at`; the
    // bytes outside printable ASCII gathered into `odd`.
    static void mark16(const char* in, int at, Marks& marks, __m128i& odd) {
        const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(in));
        const auto bit = [at](__m128i set) {
            return static_cast<uint64_t>(static_cast<unsigned>(_mm_movemask_epi8(set))) << at;
        };
        marks.backslashes |= bit(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\')));
        marks.quotes |= bit(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')));
        // Signed: below 0x20 also holds every byte from 0x80.
        odd = _mm_or_si128(odd, _mm_or_si128(_mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20)),
                                             _mm_cmpeq_epi8(bytes, _mm_set1_epi8(0x7F))));
    }
#endif

    // Marks of the 64 readable bytes at `in`; where the odd bytes lie is
    // only worked out when there are some.
    static Marks marks64(const char* in) {
        Marks marks{0, 0, 0};
#ifdef __SSE2__
        __m128i odd = _mm_setzero_si128();
        mark16(in, 0, marks, odd);
        mark16(in + 16, 16, marks, odd);
        mark16(in + 32, 32, marks, odd);
        mark16(in + 48, 48, marks, odd);
        if (_mm_movemask_epi8(odd) != 0) {
            marks.odd = odd_bits(in);
        }
#else
        for (int at = 0; at < 64; ++at) {
            const uint64_t bit = 1ULL << at;
            marks.backslashes |= in[at] == '\\' ? bit : 0;
            marks.quotes |= in[at] == '"' ? bit : 0;
        }
        marks.odd = odd_bits(in);
#endif
        return marks;
    }

    // Marks of the bytes from `in` to end_ (fewer than 64), the rest read
    // as quotes.
    [[gnu::noinline]] Marks marks_near_end(const char* in) const {
        char padded[64];
        const auto size = static_cast<size_t>(end_ - in);
        memcpy(padded, in, size);
        memset(padded + size, '"', sizeof padded - size);
        return marks64(padded);
    }

    // End of the string whose text starts at `in`, read 64 bytes a step
    // while its only escapes are \" and its bytes printable ASCII (then
    // *quotes_only stays true); the first other byte hands the rest to
    // string_end_slow. Starts each step at a byte no backslash escapes.
    const char* string_end(const char* in, bool* quotes_only) const {
        for (;;) {
            const Marks marks = end_ - in >= 64 ? marks64(in) : marks_near_end(in);
            const uint64_t escaped = marks.backslashes << 1;
            const uint64_t open = marks.quotes & ~escaped;
            const uint64_t before = open != 0 ? (open & (0 - open)) - 1 : ~0ULL;
            if ((((escaped & ~marks.quotes) | marks.odd) & before) != 0) {
                *quotes_only = false;
                return string_end_slow(in);
            }
            if (open != 0) {
                const char* close = in + __builtin_ctzll(open);
                return close < end_ ? close : nullptr;
            }
            if (end_ - in <= 64) {
                return nullptr;  // the text ends inside the string
            }
            // A backslash last: its escaped byte opens the next step.
            in += marks.backslashes >> 63 != 0 ? 63 : 64;
        }
    }

    // End of the string whose text starts at `in`: its closing quote, with
    // every escape checked; null when the string is not JSON. Bytes that
    // are not UTF-8 are left for decoding to replace.
    const char* string_end_slow(const char* in) const {
        for (;;) {
            if (end_ - in >= 16) {
                const unsigned at = special_or_quoted(in);
                in += at;
                if (at == 16) {
                    continue;
                }
            } else {
                while (in < end_ && *in != '"' && *in != '\\' &&
                       static_cast<uint8_t>(*in) >= 0x20) {
                    ++in;
                }
                if (in == end_) {
                    return nullptr;
                }
            }
            if (*in == '"') {
                return in;
            }
            if (*in != '\\' || (in = skip_escape(in)) == nullptr) {
                return nullptr;  // a control byte
            }
        }
    }

    // A string at p_ kept where it lies when long (see Node::escaped),
    // decoded as usual when short.
    bool long_string(Node& out) {
        bool quotes_only = true;
        const char* close = string_end(p_ + 1, &quotes_only);
        if (close == nullptr) {
            return false;
        }
        const auto size = static_cast<size_t>(close - (p_ + 1));
        if (size < kInPlaceString || size > UINT32_MAX) {
            return string(&out.text, &out.size);
        }
        out.escaped = true;
        out.quotes_only = quotes_only;
        out.text = p_ + 1;
        out.size = static_cast<uint32_t>(size);
        p_ = close + 1;
        return true;
    }

    // Moves the last `count` entries of `stack` into the arena.
    template <typename T>
    const T* settle(std::vector<T>& stack, size_t base) {
        const size_t count = stack.size() - base;
        auto* place = static_cast<T*>(allocate(arena_, sizeof(T) * (count > 0 ? count : 1)));
        if (place != nullptr && count > 0) {
            memcpy(static_cast<void*>(place), stack.data() + base, sizeof(T) * count);
        }
        stack.resize(base);
        return place;
    }

    // Opens a container at p_: false when nested too deep.
    bool open(char close, bool* empty) {
        ++p_;
        if (++depth_ > kMaxDepth) {
            return false;
        }
        skip_space();
        *empty = p_ < end_ && *p_ == close;
        p_ += *empty ? 1 : 0;
        return true;
    }

    // After an element: true with *more for ',', true at the closing byte.
    bool next(char close, bool* more) {
        skip_space();
        if (p_ < end_ && (*p_ == ',' || *p_ == close)) {
            *more = *p_++ == ',';
            return true;
        }
        return false;
    }

    bool list(Node& out) {
        const size_t base = items_.size();
        bool empty = false;
        bool more = false;
        if (!open(']', &empty))
            return false;
        for (more = !empty; more;) {
            Node item;
            skip_space();
            if (!value(item))
                return false;
            items_.push_back(item);
            if (!next(']', &more))
                return false;
        }
        out.kind = Kind::List;
        out.size = static_cast<uint32_t>(items_.size() - base);
        out.items = settle(items_, base);
        --depth_;
        return out.items != nullptr;
    }

    // Index among the open object's members of `key`, or -1. Counted
    // against kMaxKeyComparisons.
    long repeated(size_t base, const char* key, uint32_t size) {
        comparisons_ += members_.size() - base;
        for (size_t i = base; i < members_.size(); ++i) {
            if (same_key(members_[i], key, size)) {
                return static_cast<long>(i);
            }
        }
        return -1;
    }

    // One "key": value pair into the open object starting at base.
    bool member(size_t base) {
        Member entry{};
        skip_space();
        if (p_ == end_ || *p_ != '"' || !string(&entry.key, &entry.key_size))
            return false;
        skip_space();
        if (p_ == end_ || *p_++ != ':')
            return false;
        skip_space();
        if (!value(entry.value))
            return false;
        const long found = repeated(base, entry.key, entry.key_size);
        if (comparisons_ > kMaxKeyComparisons)
            return false;
        // A repeated key keeps its first place and takes the last value.
        if (found >= 0) {
            members_[static_cast<size_t>(found)].value = entry.value;
        } else {
            members_.push_back(entry);
        }
        return true;
    }

    bool object(Node& out) {
        const size_t base = members_.size();
        bool empty = false;
        bool more = false;
        if (!open('}', &empty))
            return false;
        for (more = !empty; more;) {
            if (!member(base) || !next('}', &more))
                return false;
        }
        out.kind = Kind::Object;
        out.size = static_cast<uint32_t>(members_.size() - base);
        out.members = settle(members_, base);
        --depth_;
        return out.members != nullptr;
    }
};

}  // namespace

Document* new_document(size_t first_chunk) {
    auto* document = new (std::nothrow) Document{1, Arena{}, Node{}};
    if (document != nullptr && !add_chunk(document->arena, first_chunk, first_chunk)) {
        delete document;
        return nullptr;
    }
    return document;
}

char* copy_text(Document* document, const char* text, size_t size) {
    auto* place = static_cast<char*>(allocate(document->arena, size + 1));
    if (place != nullptr) {
        memcpy(place, text, size);
        place[size] = '\0';
    }
    return place;
}

namespace {

// parse_into, with long strings left in place when asked.
bool parse_text(Arena& arena, const char* text, size_t length, Node& root, bool in_place) {
    bool parsed = false;
    bool out_of_memory = true;
    ParseStacks* stacks = empty_parse_stacks();
    if (stacks != nullptr) {
        try {
            if (stacks->items.capacity() == 0) {
                // Room for a small document from the start, not doubling up to it.
                stacks->items.reserve(kFirstEntries);
                stacks->members.reserve(kFirstEntries);
            }
            Parser parser(text, length, arena, *stacks, in_place);
            parsed = parser.document(root);
            out_of_memory = arena.out_of_memory;
        } catch (...) {  // the parse stacks ran out of memory
            parsed = false;
        }
    }
    if (!parsed) {
        errno = out_of_memory ? ENOMEM : EINVAL;
    }
    return parsed;
}

// A document for `length` bytes of text, parsed as parse_text does.
Document* parse_whole(const char* text, size_t length, bool in_place) {
    // Strings decode to no more than their text, so one chunk of twice the
    // text holds most documents whole; untouched pages of it cost nothing.
    Document* document = new_document(2 * length + 256);
    if (document == nullptr) {
        errno = ENOMEM;
        return nullptr;
    }
    if (!parse_text(document->arena, text, length, document->root, in_place)) {
        const int error = errno;
        release(document);
        errno = error;
        return nullptr;
    }
    return document;
}

}  // namespace

bool parse_into(Arena& arena, const char* text, size_t length, Node& root) {
    return parse_text(arena, text, length, root, false);
}

bool decode_text(Arena& arena, const Node& node, const char** text, uint32_t* size) {
    // The node's text was checked with its quotes around it: read it again
    // from the opening one. The parse stacks are not touched.
    ParseStacks none;
    Parser parser(node.text - 1, size_t{node.size} + 2, arena, none);
    return parser.string(text, size);
}

void reset_arena(Arena& arena, bool keep) {
    Chunk* only = arena.chunks;
    if (!keep || only == nullptr || only->next != nullptr) {
        free_chunks(arena);
        return;
    }
    // The one chunk starts right after its header (see add_chunk).
    arena.cursor = reinterpret_cast<char*>(only) + round_up(sizeof(Chunk));
    arena.out_of_memory = false;
}

bool ready_arena(Arena& arena, size_t length) {
    const size_t room = 2 * length + 256;
    reset_arena(arena, true);
    if (arena.chunks != nullptr && static_cast<size_t>(arena.end - arena.cursor) >= room) {
        return true;
    }
    free_chunks(arena);
    return add_chunk(arena, room, room);
}

Document* parse_document(const char* text, size_t length) {
    return parse_whole(text, length, false);
}

Document* parse_in_place(const char* text, size_t length) {
    return parse_whole(text, length, true);
}

void retain(Document* document) {
    ++document->references;
}

void release(Document* document) {
    if (document != nullptr && --document->references == 0) {
        free_chunks(document->arena);
        delete document;
    }
}

size_t utf8_cut(std::string_view text, size_t limit) noexcept {
    if (text.size() <= limit) {
        return text.size();
    }
    size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    return cut;
}

const Node* find_member(const Node* object, const char* key) {
    if (object == nullptr || object->kind != Kind::Object || key == nullptr) {
        return nullptr;
    }
    const size_t size = strlen(key);
    for (uint32_t i = 0; i < object->size; ++i) {
        const Member& member = object->members[i];
        if (same_key(member, key, size)) {
            return &member.value;
        }
    }
    return nullptr;
}

}  // namespace sylvshared
