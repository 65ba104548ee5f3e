// walk_tenants: each element's text read in one pass straight from its
// text (as it lies in the answer, when the parse left it there) when it is
// plain (as the Transfer Agent writes services: an object of
// strings without escapes, numbers, booleans and small values), picking the
// wanted fields as views into it. Anything else is parsed by the document
// parser into one arena reused from element to element, then its members
// matched against the wanted fields (the parser already kept one member per
// key, the last value).

#include "sylvshared/tenants.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cstring>

#include "document.h"

#ifdef __SSE2__
#include <emmintrin.h>
#endif

namespace sylvshared {

namespace {

// Each reader sets its field whatever the value: a repeated key read by
// the plain reading overrides the one before, as the parser's last value.
void read_text(const Node& value, TenantText& field) {
    if (value.kind == Kind::String) {
        field = {std::string_view(value.text, value.size), true};
    } else if (value.kind == Kind::Boolean) {
        field = {value.boolean ? "true" : "false", true};
    } else {
        field = {};
    }
}

void read_number(const Node& value, TenantNumber& field) {
    field.present = true;
    field.value = -1;
    if (value.kind == Kind::Integer && value.integer >= INT_MIN && value.integer <= INT_MAX) {
        field.value = static_cast<int>(value.integer);
    }
}

// Where a member's value goes: at most one of the three is set.
struct Target {
    TenantText* text = nullptr;
    TenantNumber* number = nullptr;
    int* ack = nullptr;
};

// The field a key names (sizes first: one comparison per key at most
// two), or none. Inlined: the plain reading calls it once a member.
[[gnu::always_inline]] inline Target target_of(const char* key, size_t size, TenantFields& fields) {
    const auto is = [key](const char* name, size_t n) { return memcmp(key, name, n) == 0; };
    switch (size) {
        case 3:
            return is("ack", 3) ? Target{nullptr, nullptr, &fields.ack} : Target{};
        case 4:
            return is("uuid", 4)   ? Target{&fields.uuid}
                   : is("port", 4) ? Target{nullptr, &fields.port}
                                   : Target{};
        case 6:
            return is("status", 6)   ? Target{&fields.status}
                   : is("reason", 6) ? Target{&fields.reason}
                                     : Target{};
        case 10:
            return is("ip_address", 10) ? Target{&fields.ip_address} : Target{};
        case 11:
            return is("tenant_name", 11) ? Target{&fields.name} : Target{};
        case 12:
            return is("synchronized", 12)   ? Target{&fields.synchronized}
                   : is("virtual_port", 12) ? Target{nullptr, &fields.virtual_port}
                                            : Target{};
        case 13:
            return is("onion_address", 13) ? Target{&fields.onion_address} : Target{};
        default:
            return {};
    }
}

// Stores one parsed member when it is a wanted field.
void pick(const Member& member, TenantFields& fields) {
    const Node& value = member.value;
    const Target target = target_of(member.key, member.key_size, fields);
    if (target.text != nullptr) {
        read_text(value, *target.text);
    } else if (target.number != nullptr) {
        read_number(value, *target.number);
    } else if (target.ack != nullptr) {
        *target.ack = value.kind != Kind::Boolean ? -1 : value.boolean ? 1 : 0;
    }
}

// No field: each absent.
TenantFields no_fields() {
    TenantFields fields{};
    fields.port.value = -1;
    fields.virtual_port.value = -1;
    fields.ack = -1;
    return fields;
}

// The fields of a parsed element; a value that is not an object has none.
TenantFields fields_of(const Node& root) {
    TenantFields fields = no_fields();
    if (root.kind == Kind::Object) {
        for (uint32_t i = 0; i < root.size; ++i) {
            pick(root.members[i], fields);
        }
    }
    return fields;
}

// The plain reading gives up, for the parser to decide, past these: with at
// most kPlainValues values no object can reach the parser's bound on key
// comparisons (kMaxKeyComparisons) nor its other bounds, so what the plain
// reading accepts the parser accepts too.
constexpr int kPlainValues = 1024;
constexpr int kPlainDepth = 32;

// One element's text read without building anything. Each reader returns
// false when the text is not plain (an escape, a byte outside ASCII or a
// control character in a string, a number that is not a short integer,
// nesting or size past the bounds above) or not JSON: the caller then parses
// the element, which tells the two apart. An escaped reader reads the
// element's text as it lies in the answer, its quotes escaped (\"), and
// only a text with no other escape nor byte outside printable ASCII (one
// with either is not plain).
template <bool Escaped>
class PlainReader {
public:
    // text[length] must be readable and end every token: the NUL after a C
    // text, or the closing quote of an escaped one (whose escapes were
    // checked). The reader then needs no bound check but for literals.
    PlainReader(const char* text, size_t length) : p_(text), end_(text + length) {}

    // The fields of a text holding one object.
    bool service(TenantFields& fields) {
        skip_space();
        if (*p_ != '{') {
            return false;
        }
        ++p_;
        if (!take('}') && !members(fields)) {
            return false;
        }
        skip_space();
        return p_ == end_;
    }

private:
    const char* p_;
    const char* end_;
    int values_ = 0;

    static constexpr ptrdiff_t kQuote = Escaped ? 2 : 1;
    // The bytes \" read as one (host order).
    static constexpr uint16_t kEscapedQuote = [] {
        const char bytes[2] = {'\\', '"'};
        return std::bit_cast<uint16_t>(bytes);
    }();

    // Whether a quote of the element's text is at `at` (at most end_). An
    // escaped text lies in a parsed C text: the two bytes at its closing
    // quote are readable, and a backslash before that quote is not its last.
    bool quote_at(const char* at) const {
        if constexpr (Escaped) {
            uint16_t pair;
            memcpy(&pair, at, 2);
            return pair == kEscapedQuote;
        } else {
            return *at == '"';
        }
    }

    void skip_space() {
        constexpr uint64_t kSpaces = 1ULL << ' ' | 1ULL << '\n' | 1ULL << '\r' | 1ULL << '\t';
        while (static_cast<uint8_t>(*p_) <= ' ' &&
               (kSpaces >> static_cast<uint8_t>(*p_) & 1) != 0) {
            ++p_;
        }
    }

    bool take(char c) {
        skip_space();
        if (*p_ == c) {
            ++p_;
            return true;
        }
        return false;
    }

    // Bytes before the first quote, backslash, control character or byte
    // outside ASCII, from p_. An escaped text holds only printable ASCII
    // and escaped quotes (Node::quotes_only): its run ends at a backslash.
    size_t plain_run() const {
        const char* at = p_;
        if constexpr (Escaped) {
#ifdef __SSE2__
            for (; end_ - at >= 16; at += 16) {
                const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
                const int mask = _mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\')));
                if (mask != 0) {
                    return static_cast<size_t>(at - p_) +
                           static_cast<unsigned>(__builtin_ctz(static_cast<unsigned>(mask)));
                }
            }
#endif
            while (*at != '\\' && *at != '"') {
                ++at;
            }
            return static_cast<size_t>(at - p_);
        }
#ifdef __SSE2__
        for (; end_ - at >= 16; at += 16) {
            const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
            // Signed compare: below 0x20 also catches every byte >= 0x80.
            const int mask = _mm_movemask_epi8(
                _mm_or_si128(_mm_or_si128(_mm_cmpeq_epi8(bytes, _mm_set1_epi8('"')),
                                          _mm_cmpeq_epi8(bytes, _mm_set1_epi8('\\'))),
                             _mm_cmplt_epi8(bytes, _mm_set1_epi8(0x20))));
            if (mask != 0) {
                return static_cast<size_t>(at - p_) +
                       static_cast<unsigned>(__builtin_ctz(static_cast<unsigned>(mask)));
            }
        }
#endif
        while (static_cast<signed char>(*at) >= 0x20 && *at != '"' && *at != '\\') {
            ++at;
        }
        return static_cast<size_t>(at - p_);
    }

    // A string at p_ (its opening quote) with nothing to decode.
    bool string(std::string_view* text) {
        p_ += kQuote;
        const size_t run = plain_run();
        if (!quote_at(p_ + run)) {
            return false;
        }
        *text = std::string_view(p_, run);
        p_ += static_cast<ptrdiff_t>(run) + kQuote;
        return true;
    }

    bool literal(const char* word, size_t size) {
        if (static_cast<size_t>(end_ - p_) < size || memcmp(p_, word, size) != 0) {
            return false;
        }
        p_ += size;
        return true;
    }

    // An integer of at most 18 digits, without a leading zero.
    bool integer(int64_t* value) {
        const bool negative = *p_ == '-';
        p_ += negative ? 1 : 0;
        const char* first = p_;
        int64_t magnitude = 0;
        while (*p_ >= '0' && *p_ <= '9') {
            if (p_ - first == 18) {
                return false;  // a 19th digit could overflow: the parser reads it
            }
            magnitude = magnitude * 10 + (*p_++ - '0');
        }
        const ptrdiff_t digits = p_ - first;
        if (digits == 0 || (*first == '0' && digits > 1)) {
            return false;
        }
        if (*p_ == '.' || *p_ == 'e' || *p_ == 'E') {
            return false;
        }
        *value = negative ? -magnitude : magnitude;
        return true;
    }

    // Any value at p_, kept in `node` when asked (nested values only
    // checked: a container reads as Kind::List).
    bool value(Node* node, int depth) {
        if (++values_ > kPlainValues || depth > kPlainDepth) {
            return false;
        }
        skip_space();
        node->kind = Kind::List;
        if (quote_at(p_)) {
            std::string_view text;
            if (!string(&text)) {
                return false;
            }
            node->kind = Kind::String;
            node->text = text.data();
            node->size = static_cast<uint32_t>(text.size());
            return true;
        }
        switch (*p_) {
            case '{':
                return object(depth + 1);
            case '[':
                return list(depth + 1);
            case 't':
                node->kind = Kind::Boolean;
                node->boolean = true;
                return literal("true", 4);
            case 'f':
                node->kind = Kind::Boolean;
                node->boolean = false;
                return literal("false", 5);
            case 'n':
                node->kind = Kind::Null;
                return literal("null", 4);
            default:
                node->kind = Kind::Integer;
                return integer(&node->integer);
        }
    }

    // A member's value at p_ stored in its target as the getters read it:
    // a text from a string or a boolean, a number from an integer within
    // int (else -1, still present), ack from a boolean (else -1).
    bool member_value(const Target& target) {
        if (++values_ > kPlainValues) {
            return false;
        }
        TenantText text{};
        int64_t number = -1;
        int ack = -1;
        if (quote_at(p_)) {
            std::string_view run;
            if (!string(&run)) {
                return false;
            }
            text = {run, true};
        } else if (*p_ == 't' || *p_ == 'f') {
            const bool yes = *p_ == 't';
            if (!(yes ? literal("true", 4) : literal("false", 5))) {
                return false;
            }
            text = {yes ? "true" : "false", true};
            ack = yes ? 1 : 0;
        } else if (*p_ == 'n') {
            if (!literal("null", 4)) {
                return false;
            }
        } else if (*p_ == '{' || *p_ == '[') {
            if (!(*p_ == '{' ? object(1) : list(1))) {
                return false;
            }
        } else {
            int64_t value;
            if (!integer(&value)) {
                return false;
            }
            number = value >= INT_MIN && value <= INT_MAX ? value : -1;
        }
        if (target.text != nullptr) {
            *target.text = text;
        } else if (target.number != nullptr) {
            *target.number = {static_cast<int>(number), true};
        } else if (target.ack != nullptr) {
            *target.ack = ack;
        }
        return true;
    }

    // The members of the outermost object, after its '{' (not empty):
    // each repeated key overrides the one before.
    bool members(TenantFields& fields) {
        for (;;) {
            skip_space();
            if (!quote_at(p_)) {
                return false;
            }
            std::string_view key;
            if (!string(&key)) {
                return false;
            }
            if (p_[0] == ':' && p_[1] == ' ') {  // as the agent writes it
                p_ += 2;
            } else if (!take(':')) {
                return false;
            }
            skip_space();
            if (!member_value(target_of(key.data(), key.size(), fields))) {
                return false;
            }
            if (p_[0] == ',' && p_[1] == ' ') {
                p_ += 2;
                continue;
            }
            skip_space();
            if (*p_ == ',') {
                ++p_;
            } else {
                return take('}');
            }
        }
    }

    bool list(int depth) {
        ++p_;
        if (take(']')) {
            return true;
        }
        do {
            Node ignored;
            if (!value(&ignored, depth)) {
                return false;
            }
        } while (take(','));
        return take(']');
    }

    // A nested object at p_, only checked.
    bool object(int depth) {
        if (*p_ != '{') {
            return false;
        }
        ++p_;
        if (take('}')) {
            return true;
        }
        do {
            Node ignored;
            std::string_view key;
            skip_space();
            if (!quote_at(p_) || !string(&key) || !take(':') || !value(&ignored, depth)) {
                return false;
            }
        } while (take(','));
        return take('}');
    }
};

// The element texts of the list: nodes of a parsed value, or the records of
// json_get_list_value for a built one.
struct ElementTexts {
    const Node* list = nullptr;
    JsonListItem** items = nullptr;
    int count = 0;

    // String node of element i (its text NUL-terminated unless escaped), or
    // null when it is not a string.
    const Node* text(int i, Node& built) const {
        if (list != nullptr) {
            const Node& item = list->items[i];
            return item.kind == Kind::String ? &item : nullptr;
        }
        if (items[i]->type != JSON_LIST_ITEM_STRING) {
            return nullptr;
        }
        built = Node{};
        built.text = items[i]->text;
        return &built;
    }
};

// Finds the list; TENANTS_WALKED, TENANTS_NO_LIST or TENANTS_NO_MEMORY.
int find_texts(const JsonValue* data, ElementTexts& texts) {
    if (const Node* root = parsed_node(data)) {
        texts.list = find_member(root, "tenants");
        if (texts.list == nullptr || texts.list->kind != Kind::List) {
            return TENANTS_NO_LIST;
        }
        texts.count = static_cast<int>(texts.list->size);
        return TENANTS_WALKED;
    }
    errno = 0;
    texts.items = json_get_list_value(data, "tenants", &texts.count);
    if (texts.items == nullptr) {
        return errno == ENOMEM ? TENANTS_NO_MEMORY : TENANTS_NO_LIST;
    }
    return TENANTS_WALKED;
}

// What reading one element's text came to.
enum class Read { service, not_json, no_memory };

// The fields of the element text, read plainly when it allows, else parsed
// into `arena`.
Read read_element(const char* text, size_t length, Arena& arena, TenantFields& fields) {
    fields = no_fields();
    if (PlainReader<false>(text, length).service(fields)) {
        fields.without_nul = true;
        return Read::service;
    }
    Node root{};
    if (!ready_arena(arena, length)) {
        return Read::no_memory;
    }
    if (!parse_into(arena, text, length, root)) {
        return errno == ENOMEM ? Read::no_memory : Read::not_json;
    }
    fields = fields_of(root);
    return Read::service;
}

// read_element for a string node: an escaped one read as it lies when
// plain, else decoded into `scratch` first.
Read read_string(const Node& item, Arena& arena, Arena& scratch, TenantFields& fields) {
    if (item.escaped) {
        fields = no_fields();
        // Another escape or byte would stop the plain reading anyway.
        if (item.quotes_only && PlainReader<true>(item.text, item.size).service(fields)) {
            // Its strings end at the first backslash, in printable bytes.
            fields.without_nul = true;
            fields.printable = true;
            return Read::service;
        }
        Node decoded = item;
        reset_arena(scratch, true);
        if (!decode_text(scratch, item, &decoded.text, &decoded.size)) {
            return Read::no_memory;
        }
        // The getters' reading of an element: json_parse stops at a NUL.
        return read_element(decoded.text, strlen(decoded.text), arena, fields);
    }
    return read_element(item.text, strlen(item.text), arena, fields);
}

}  // namespace

int walk_tenants(const JsonValue* data, TenantVisitor visit, void* context) noexcept {
    ElementTexts texts;
    int result = find_texts(data, texts);
    Arena arena{};
    Arena scratch{};
    for (int i = 0; result == TENANTS_WALKED && i < texts.count; ++i) {
        Node built;
        const Node* item = texts.text(i, built);
        if (item == nullptr) {
            if (!visit(context, i, TenantElement::not_string, nullptr))
                break;
            continue;
        }
        TenantFields fields;
        const Read read = read_string(*item, arena, scratch, fields);
        if (read == Read::no_memory) {
            result = TENANTS_NO_MEMORY;
        } else if (!visit(context, i,
                          read == Read::service ? TenantElement::service : TenantElement::not_json,
                          read == Read::service ? &fields : nullptr)) {
            break;
        }
    }
    reset_arena(arena, false);
    reset_arena(scratch, false);
    json_free_list_value(texts.items, texts.count);
    return result;
}

int copy_field(const TenantText& field, char* buffer, size_t size) noexcept {
    if (!field.present || buffer == nullptr || size == 0) {
        return -1;
    }
    const size_t length = utf8_cut(field.text, std::min<size_t>(size - 1, INT_MAX));
    memcpy(buffer, field.text.data(), length);
    buffer[length] = '\0';
    return static_cast<int>(length);
}

}  // namespace sylvshared
