// Parsed JSON documents: read-only trees held in one arena per document and
// shared, with a reference count, by every handle that points into them.
// Internal to sylvshared; nothing here throws.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "sylvshared/json.h"
#include "sylvshared/tenants.h"

namespace sylvshared {

enum class Kind : uint8_t { Null, Boolean, Integer, Unsigned, Real, String, List, Object };

struct Member;

// One value. `size` is a string's byte count, a list's element count or an
// object's member count.
struct Node {
    Kind kind;
    // A string left as it lies in the parsed text: `text` is its raw JSON
    // between the quotes (checked, not NUL-terminated), `size` that count;
    // decode_text gives what it reads as. Only parse_in_place makes these.
    bool escaped;
    // An escaped string whose only escapes are \" and whose bytes are all
    // printable ASCII, 0x20 to 0x7E (a service as the agent writes it): a
    // reader may take each backslash there for an escaped quote.
    bool quotes_only;
    uint32_t size;
    union {
        bool boolean;
        int64_t integer;
        uint64_t unsigned_integer;
        double real;
        const char* text;  // NUL-terminated, valid UTF-8 (unless escaped)
        const Node* items;
        const Member* members;
    };
};

struct Member {
    const char* key;  // NUL-terminated
    uint32_t key_size;
    Node value;
};

// Bump allocator: chunks released together with the document.
struct Chunk;
struct Arena {
    Chunk* chunks;
    char* cursor;
    char* end;
    bool out_of_memory;  // a chunk could not be had
};

struct Document {
    uint64_t references;
    Arena arena;
    Node root;
};

// Most values one document may hold, deepest nesting, and the budget of key
// comparisons spent finding repeated keys: together they bound the time and
// memory any text can cost (see document.cpp).
constexpr uint64_t kMaxValues = 262'144;
constexpr int kMaxDepth = 128;
constexpr uint64_t kMaxKeyComparisons = 4'000'000;

// New document (one reference) for `length` bytes of text, or null when the
// text is not JSON, passes a bound above, or memory runs out. Bytes that are
// not UTF-8 inside strings each become U+FFFD.
Document* parse_document(const char* text, size_t length);
// parse_document for a text that outlives the document: strings of
// kInPlaceString raw bytes or more stay where they lie (Node::escaped),
// checked but not decoded, so a listing is not held twice.
constexpr uint32_t kInPlaceString = 64;
Document* parse_in_place(const char* text, size_t length);
// The text an escaped string node reads as (NUL-terminated, U+FFFD for bad
// UTF-8), decoded into `arena`; false when memory runs out.
bool decode_text(Arena& arena, const Node& node, const char** text, uint32_t* size);
// New empty document (one reference) whose arena callers fill, or null.
Document* new_document(size_t first_chunk);
// NUL-terminated copy of `size` bytes in the document's arena, or null.
char* copy_text(Document* document, const char* text, size_t size);
// Parses `length` bytes of text into `arena` (kept between texts by a
// caller that reads many small ones) with the bounds and U+FFFD rule of
// parse_document; `root` points into the arena. False when the text is not
// JSON or passes a bound (errno EINVAL) or memory runs out (ENOMEM).
bool parse_into(Arena& arena, const char* text, size_t length, Node& root);
// Empties an arena for the next text, keeping its first chunk when it is
// the only one; reset_arena(arena, false) frees it all.
void reset_arena(Arena& arena, bool keep);
// Empties an arena for a text of `length` bytes, its one chunk holding
// twice that (as parse_document's does): a long text's strings then decode
// in place rather than through chunks that double. False when memory runs
// out.
bool ready_arena(Arena& arena, size_t length);
void retain(Document* document);
// Drops one reference; the last one frees the arena. Null is ignored.
void release(Document* document);
// The member `key` of an object node, or null (last of repeated keys wins at
// parse time, so there is one).
const Node* find_member(const Node* object, const char* key);

// The node a handle views, or null for a built value (json.cpp).
const Node* parsed_node(const JsonValue* value);

}  // namespace sylvshared
