// The one-pass reader: a JSON cursor and a YAML line reader that feed the
// same checks straight into a DesiredState. It gives up (false) at the
// first thing it does not know or the full reader would refuse; it never
// explains anything, so it never needs to know where it is.

#include "cli/desired_state/quick_reader.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include <emmintrin.h>

#include "cli/desired_state/name_index.h"
#include "cli/preflight/strict_address.h"

namespace {

static_assert(std::endian::native == std::endian::little, "line_end reads words little-end first");

constexpr std::array<std::string_view, 3> kRootKeys{"version", "services", "proxy"};
constexpr std::array<std::string_view, 4> kServiceKeys{"target", "virtual_port", "clear_services",
                                                       "enabled"};
constexpr std::array<std::string_view, 3> kProxyKeys{"address", "type", "enabled"};
// SeenKeys compares keys by loads from each end: 4 to 16 bytes.
template <size_t N>
constexpr bool short_keys(const std::array<std::string_view, N>& keys) {
    for (const std::string_view key : keys) {
        if (key.size() < 4 || key.size() > 16) {
            return false;
        }
    }
    return true;
}
static_assert(short_keys(kRootKeys) && short_keys(kServiceKeys) && short_keys(kProxyKeys));
constexpr size_t kMaxNameLength = 255;
enum RootKey { kVersion, kServices, kProxy };
enum ServiceKey { kTarget, kVirtualPort, kClearServices, kServiceEnabled };
enum ProxyKey { kAddress, kType, kProxyEnabled };

// Byte classes: what may stand in a plain key, in a plain scalar, in a JSON
// string. Everything outside printable ASCII is in none of them.
enum : uint8_t { kWordByte = 1, kKeyByte = 2, kPlainByte = 4, kJsonSpace = 8 };
constexpr std::array<uint8_t, 256> kByteClasses = [] {
    std::array<uint8_t, 256> classes{};
    for (int c = 0x20; c < 0x7f; c++) {
        const bool word = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '_' || c == '.';
        const bool flow = c == '#' || c == '\'' || c == '"' || c == ',' || c == '[' || c == ']' ||
                          c == '{' || c == '}';
        classes[c] = (word ? kWordByte : 0) | (word || c == '-' || c == ' ' ? kKeyByte : 0) |
                     (flow ? 0 : kPlainByte);
    }
    for (const char c : {' ', '\n', '\r', '\t'}) {
        classes[static_cast<unsigned char>(c)] |= kJsonSpace;
    }
    return classes;
}();

bool is_a(char c, uint8_t byte_class) {
    return (kByteClasses[static_cast<unsigned char>(c)] & byte_class) != 0;
}

constexpr uint64_t kOnes = 0x0101010101010101ull;
constexpr uint64_t kHighs = 0x8080808080808080ull;

// The high bit of each byte of `word` that is zero.
uint64_t zero_bytes(uint64_t word) {
    return (word - kOnes) & ~word & kHighs;
}

// The high bit of each byte of `word` outside printable ASCII; the lowest
// flagged byte is a true one (borrows only run upwards).
uint64_t unprintable_bytes(uint64_t word) {
    return (word & kHighs) | ((word - kOnes * 0x20) & ~word & kHighs) |
           zero_bytes(word ^ (kOnes * 0x7f));
}

// A scalar as the full reader sees it: its text and whether it was plain.
struct Scalar {
    std::string_view text{};
    bool plain = false;
};

// Whether `a` and `b`, both `size` bytes, 4 to 16, are the same: a load
// from each end of each, no call.
bool same_short(const char* a, const char* b, size_t size) {
    const auto ends_equal = [&](auto word) {
        decltype(word) x[2];
        decltype(word) y[2];
        const size_t back = size - sizeof word;
        memcpy(&x[0], a, sizeof word);
        memcpy(&x[1], a + back, sizeof word);
        memcpy(&y[0], b, sizeof word);
        memcpy(&y[1], b + back, sizeof word);
        return x[0] == y[0] && x[1] == y[1];
    };
    return size >= 8 ? ends_equal(uint64_t{}) : ends_equal(uint32_t{});
}

// The keys one mapping has had: a bit each.
struct SeenKeys {
    unsigned bits = 0;

    // The index of `key` in `allowed` (4 to 16 bytes each), marked seen; -1
    // when unknown or seen.
    template <size_t N>
    int add(const std::array<std::string_view, N>& allowed, std::string_view key) {
        for (size_t i = 0; i < N; i++) {
            if (allowed[i].size() == key.size() && allowed[i][0] == key[0] &&
                same_short(allowed[i].data(), key.data(), key.size())) {
                const unsigned bit = 1u << i;
                const bool again = (bits & bit) != 0;
                bits |= bit;
                return again ? -1 : static_cast<int>(i);
            }
        }
        return -1;
    }
    bool has(int index) const { return (bits & (1u << index)) != 0; }
};

bool is_null(Scalar value) {
    const std::string_view t = value.text;
    return value.plain && (t.empty() || t == "~" ||
                           (t.size() == 4 && (t[0] | 32) == 'n' && (t[1] | 32) == 'u' &&
                            (t[2] | 32) == 'l' && (t[3] | 32) == 'l'));
}

// A port at `p`: 1 to 5 digits, none leading with a zero, 1-65535. The
// byte after it, or null. Reads up to six bytes: the caller keeps them there.
const char* port_at(const char* p, uint32_t* port) {
    uint32_t number = static_cast<uint8_t>(p[0]) - uint32_t{'0'};
    if (number - 1 > 8) {
        return nullptr;  // not 1-9
    }
    for (size_t n = 1; n < 5; n++) {
        const uint32_t digit = static_cast<uint8_t>(p[n]) - uint32_t{'0'};
        if (digit > 9) {
            *port = number;
            return p + n;
        }
        number = number * 10 + digit;
    }
    if (number > 65535 || static_cast<uint8_t>(p[5]) - uint32_t{'0'} < 10) {
        return nullptr;
    }
    *port = number;
    return p + 5;
}

// One part of an address at `p`: 1 to 3 digits, none leading with a zero,
// at most 255; the byte after it, or null. Reads three bytes.
const char* octet_at(const char* p) {
    const uint32_t a = static_cast<uint8_t>(p[0]) - uint32_t{'0'};
    const uint32_t b = static_cast<uint8_t>(p[1]) - uint32_t{'0'};
    const uint32_t c = static_cast<uint8_t>(p[2]) - uint32_t{'0'};
    if (a > 9) {
        return nullptr;
    }
    if (b > 9) {
        return p + 1;
    }
    if (a == 0) {
        return nullptr;
    }
    if (c > 9) {
        return p + 2;
    }
    return a * 100 + b * 10 + c <= 255 ? p + 3 : nullptr;
}

// "a.b.c.d:port" at `p`, straight through: four parts 0-255 and a port
// 1-65535, none with a leading zero. The byte after the port, or null;
// `*colon` is where the address ends. Reads up to 24 bytes.
const char* endpoint_at(const char* p, const char** colon, uint32_t* port) {
    const char* q = p;
    for (const char separator : {'.', '.', '.', ':'}) {
        q = octet_at(q);
        if (q == nullptr || *q != separator) {
            return nullptr;
        }
        q++;
    }
    *colon = q - 1;
    return port_at(q, port);
}

// The strict endpoint reading of a scalar, on a padded copy so that the
// straight parse may look past its end.
bool take_endpoint(Scalar value, Endpoint* endpoint) {
    const std::string_view text = value.text;
    char padded[32] = {};
    if (text.size() > 21) {  // "255.255.255.255:65535"
        return false;
    }
    memcpy(padded, text.data(), text.size());
    const char* colon = nullptr;
    uint32_t port = 0;
    if (endpoint_at(padded, &colon, &port) != padded + text.size()) {
        return false;
    }
    endpoint->address.assign(text.data(), static_cast<size_t>(colon - padded));
    endpoint->port = static_cast<uint16_t>(port);
    return true;
}

// A port 1-65535 of at most five digits, none leading with a zero: the
// strict port reading, here so that it runs inline, once a service.
bool take_port(Scalar value, std::optional<uint16_t>* port) {
    const std::string_view text = value.text;
    uint32_t number = 0;
    for (const char c : text) {
        const auto digit = static_cast<uint32_t>(c - '0');
        if (digit > 9) {
            return false;
        }
        number = number * 10 + digit;
    }
    if (!value.plain || text.empty() || text.size() > 5 || text[0] == '0' || number > 65535) {
        return false;
    }
    *port = static_cast<uint16_t>(number);
    return true;
}

bool take_boolean(Scalar value, std::optional<bool>* flag) {
    const std::string_view t = value.text;
    if (value.plain && (t == "true" || t == "True" || t == "TRUE")) {
        *flag = true;
    } else if (value.plain && (t == "false" || t == "False" || t == "FALSE")) {
        *flag = false;
    } else {
        return false;
    }
    return true;
}

bool take_clear_service(Scalar value, std::vector<std::string>* services) {
    if (!is_strict_clear_service(value.text)) {
        return false;
    }
    services->emplace_back(value.text);
    return true;
}

bool take_proxy_type(Scalar value, std::string* type) {
    type->assign(value.text);
    for (char& c : *type) {
        c = c >= 'a' && c <= 'z' ? static_cast<char>(c - 32) : c;
    }
    return *type == "HTTP" || *type == "HTTPS" || *type == "SOCKS5";
}

// A service's fields as its straight-through reading finds them; `seen`
// holds a bit for each ServiceKey read.
struct QuickFields {
    std::string_view address{};
    uint16_t port = 0;
    std::optional<uint16_t> virtual_port{};
    std::optional<bool> enabled{};
    unsigned seen = 0;

    // Marks `key` seen; false when it was already.
    bool first(int key) {
        const unsigned bit = 1u << key;
        const bool again = (seen & bit) != 0;
        seen |= bit;
        return !again;
    }
};

// What both syntaxes fill: the state, and the names seen so far (views
// into the text, which outlives the reading).
class Collector {
public:
    Collector(DesiredState* state, size_t expected) : state_(state), names_(expected) {
        state_->services.reserve(expected);
    }

    // A new service named `name`, or null when the name is empty, too long or
    // seen before.
    DesiredService* add_service(std::string_view name) {
        const auto index = static_cast<uint32_t>(state_->services.size());
        // The name is ASCII here: only its length is left to check.
        if (name.empty() || name.size() > kMaxNameLength || !names_.add(name, index)) {
            return nullptr;
        }
        state_->services.emplace_back().name.assign(name);
        return &state_->services.back();
    }

    // A whole service read straight through; false, with nothing added, when
    // the name is empty, too long or seen before (the slow way refuses it).
    bool add_quick(std::string_view name, const QuickFields& fields) {
        const auto index = static_cast<uint32_t>(state_->services.size());
        if (name.empty() || name.size() > kMaxNameLength || !names_.add(name, index)) {
            return false;
        }
        DesiredService& service = state_->services.emplace_back();
        service.name.assign(name);
        service.target.address.assign(fields.address);
        service.target.port = fields.port;
        service.virtual_port = fields.virtual_port;
        service.enabled = fields.enabled;
        return true;
    }

    // Sets one field of `service`; `key` as SeenKeys gave it.
    static bool service_field(int key, Scalar value, DesiredService* service) {
        switch (key) {
            case kTarget:
                return take_endpoint(value, &service->target);
            case kVirtualPort:
                return take_port(value, &service->virtual_port);
            case kServiceEnabled:
                return take_boolean(value, &service->enabled);
            default:
                return false;  // clear_services is a list, never a scalar
        }
    }

    // Sets one scalar field of the proxy.
    bool proxy_field(int key, Scalar value) {
        DesiredProxy& proxy = state_->proxy ? *state_->proxy : state_->proxy.emplace();
        switch (key) {
            case kAddress:
                return take_endpoint(value, &proxy.address);
            case kType:
                return take_proxy_type(value, &proxy.type);
            default:
                return take_boolean(value, &proxy.enabled);
        }
    }

    static bool version(Scalar value) { return value.plain && value.text == "1"; }

    DesiredState& state() { return *state_; }

private:
    DesiredState* state_;
    NameIndex names_;
};

// ---- Services in the shape --export writes, read straight through.
//
// Each reader below takes one service whole or declines with nothing
// changed, and the general reader then reads it. They look ahead without
// bound checks: their callers leave them kYamlReach / kJsonReach bytes.

// The 16 bytes at `at`, unaligned.
__m128i load16(const char* at) {
    return _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
}

// Byte by byte: whether `low` <= byte <= `high` (both below 0x80).
__m128i bytes_within(__m128i bytes, char low, char high) {
    return _mm_and_si128(_mm_cmpgt_epi8(bytes, _mm_set1_epi8(static_cast<char>(low - 1))),
                         _mm_cmplt_epi8(bytes, _mm_set1_epi8(static_cast<char>(high + 1))));
}

// The spaces at `at`, up to 16.
size_t indent_at(const char* at) {
    const auto spaces =
        static_cast<uint32_t>(_mm_movemask_epi8(_mm_cmpeq_epi8(load16(at), _mm_set1_epi8(' '))));
    return static_cast<size_t>(std::countr_zero(~spaces));
}

// The bytes at `at` up to the first that is not a letter, digit, _ . or -;
// at most 64.
size_t name_run(const char* at) {
    for (size_t k = 0; k < 64; k += 16) {
        const __m128i c = load16(at + k);
        const __m128i letter = bytes_within(_mm_or_si128(c, _mm_set1_epi8(0x20)), 'a', 'z');
        const __m128i other = _mm_or_si128(
            _mm_or_si128(bytes_within(c, '0', '9'), letter),
            _mm_or_si128(bytes_within(c, '-', '.'), _mm_cmpeq_epi8(c, _mm_set1_epi8('_'))));
        const auto stops = static_cast<uint32_t>(_mm_movemask_epi8(other)) ^ 0xffffu;
        if (stops != 0) {
            return k + static_cast<size_t>(std::countr_zero(stops));
        }
    }
    return 64;
}

// The bytes of the 16 at `at` that end a JSON string read as it lies: the
// quote, the backslash, and everything outside printable ASCII.
uint32_t json_string_stops(const char* at) {
    const __m128i c = load16(at);
    const __m128i stop = _mm_or_si128(_mm_or_si128(_mm_cmplt_epi8(c, _mm_set1_epi8(0x20)),
                                                   _mm_cmpeq_epi8(c, _mm_set1_epi8(0x7f))),
                                      _mm_or_si128(_mm_cmpeq_epi8(c, _mm_set1_epi8('"')),
                                                   _mm_cmpeq_epi8(c, _mm_set1_epi8('\\'))));
    return static_cast<uint32_t>(_mm_movemask_epi8(stop));
}

// The bytes at `at` up to the first that ends a JSON string; at most 64.
size_t json_string_run(const char* at) {
    for (size_t k = 0; k < 64; k += 16) {
        const uint32_t stops = json_string_stops(at + k);
        if (stops != 0) {
            return k + static_cast<size_t>(std::countr_zero(stops));
        }
    }
    return 64;
}

// `true` or `false` at `p`: the byte after it, or null.
const char* boolean_at(const char* p, std::optional<bool>* flag) {
    if (same_short(p, "true", 4)) {
        *flag = true;
        return p + 4;
    }
    if (same_short(p, "false", 5)) {
        *flag = false;
        return p + 5;
    }
    return nullptr;
}

// The target's address and port at `p` into `fields`: the byte after the
// port, or null.
const char* quick_target(const char* p, QuickFields* fields) {
    const char* colon = nullptr;
    uint32_t port = 0;
    const char* end = endpoint_at(p, &colon, &port);
    if (end != nullptr) {
        fields->address = std::string_view(p, static_cast<size_t>(colon - p));
        fields->port = static_cast<uint16_t>(port);
    }
    return end;
}

// A virtual port at `p` into `fields`: the byte after it, or null.
const char* quick_port(const char* p, QuickFields* fields) {
    uint32_t port = 0;
    const char* end = port_at(p, &port);
    if (end != nullptr) {
        fields->virtual_port = static_cast<uint16_t>(port);
    }
    return end;
}

// Declines in a row after which a services' block is read the general way
// to its end: a file whose services all have another shape then costs
// little more than before the straight-through reading.
constexpr size_t kQuickTries = 8;

// The reach of yaml_quick_service: 64 bytes of name looked at past an
// indentation of up to 62, or a name line of at most 65 bytes, three field
// lines of at most 51, then the next line's indentation and key: about 210.
constexpr size_t kYamlReach = 320;  // with room to spare

// One "key: value" line of a service at `k`, its key: the byte after its
// line end, or null unless it is a target, virtual port or enabled flag
// not seen before, its value plain and nothing after it.
const char* yaml_quick_field(const char* k, QuickFields* fields) {
    const char* end = nullptr;
    switch (k[0]) {
        case 't':
            end = same_short(k, "target: ", 8) && fields->first(kTarget)
                      ? quick_target(k + 8, fields)
                      : nullptr;
            break;
        case 'v':
            end = same_short(k, "virtual_port: ", 14) && fields->first(kVirtualPort)
                      ? quick_port(k + 14, fields)
                      : nullptr;
            break;
        case 'e':
            end = same_short(k, "enabled: ", 9) && fields->first(kServiceEnabled)
                      ? boolean_at(k + 9, &fields->enabled)
                      : nullptr;
            break;
        default:
            break;
    }
    return end != nullptr && *end == '\n' ? end + 1 : nullptr;
}

// The service whose name line starts at `p`, indented `indent`: a plain
// name of letters, digits, _ . - and its colon alone, then its fields one
// a line at one deeper indentation, then a line of content indented less.
// The byte after its last field line, or null when it is not that shape.
const char* yaml_quick_service(const char* p, size_t indent, Collector* collector) {
    const char* name = p + indent;
    const size_t length = name_run(name);
    if (indent_at(p) != indent || !is_a(name[0], kWordByte) || length > 48 || name[length] != ':' ||
        name[length + 1] != '\n') {
        return nullptr;
    }
    const char* line = name + length + 2;
    const size_t deeper = indent_at(line);
    if (deeper <= indent || deeper >= 16) {
        return nullptr;
    }
    QuickFields fields;
    size_t at = deeper;
    for (; at == deeper; at = indent_at(line)) {
        line = yaml_quick_field(line + deeper, &fields);
        if (line == nullptr) {
            return nullptr;
        }
    }
    // A blank or comment line may hide more fields: the general reader's.
    const bool ends = at < deeper && line[at] != '#' && line[at] != '\n';
    return ends && (fields.seen & (1u << kTarget)) != 0 &&
                   collector->add_quick(std::string_view(name, length), fields)
               ? line
               : nullptr;
}

// The reach of json_quick_service: a name of 64 bytes with its quotes,
// runs of up to 17 bytes of white space around each colon, brace and
// comma, three members and the key of a fourth: about 510.
constexpr size_t kJsonReach = 640;  // with room to spare

// Up to 16 bytes of JSON white space at `p`: the first byte after them.
// None or one space, as json.dump and most writers put them, is two tests.
const char* json_space(const char* p) {
    p += *p == ' ' ? 1 : 0;
    for (int i = 0; i < 16 && is_a(*p, kJsonSpace); i++) {
        p++;
    }
    return p;
}

// A colon between white space at `p`: the byte after, or null.
const char* json_colon(const char* p) {
    p = json_space(p);
    return *p == ':' ? json_space(p + 1) : nullptr;
}

// The value of the member at `k` (just after its key's opening quote) when
// its key is `key`, given with its quote, colon and space: at once after
// those, else after a colon between white space. Null for another key.
const char* json_value_of(const char* k, std::string_view key) {
    if (same_short(k, key.data(), key.size())) {
        return k + key.size();
    }
    return same_short(k, key.data(), key.size() - 2) ? json_colon(k + key.size() - 2) : nullptr;
}

// One member of a service at `k`, just after its key's opening quote: the
// byte after its value, or null unless it is a target string, a virtual
// port or an enabled flag not seen before.
const char* json_quick_field(const char* k, QuickFields* fields) {
    const char* value = nullptr;
    switch (k[0]) {
        case 't':
            value = json_value_of(k, "target\": ");
            if (value == nullptr || *value != '"' || !fields->first(kTarget)) {
                return nullptr;
            }
            value = quick_target(value + 1, fields);
            return value != nullptr && *value == '"' ? value + 1 : nullptr;
        case 'v':
            value = json_value_of(k, "virtual_port\": ");
            return value != nullptr && fields->first(kVirtualPort) ? quick_port(value, fields)
                                                                   : nullptr;
        case 'e':
            value = json_value_of(k, "enabled\": ");
            return value != nullptr && fields->first(kServiceEnabled)
                       ? boolean_at(value, &fields->enabled)
                       : nullptr;
        default:
            return nullptr;
    }
}

// The member at `p` of the services' object, white space first: a name
// without escapes, then an object of target, virtual port and enabled
// flag. The byte after its closing brace, or null when it is not that shape.
const char* json_quick_service(const char* p, Collector* collector) {
    p = json_space(p);
    const char* name = p + 1;
    const size_t length = json_string_run(name);
    if (*p != '"' || name[length] != '"') {
        return nullptr;
    }
    p = same_short(name + length, "\": {", 4) ? name + length + 3 : json_colon(name + length + 1);
    if (p == nullptr || *p != '{') {
        return nullptr;
    }
    QuickFields fields;
    p = json_space(p + 1);
    for (;;) {
        if (*p != '"' || (p = json_quick_field(p + 1, &fields)) == nullptr) {
            return nullptr;
        }
        if (p[0] == ',' && p[1] == ' ' && p[2] == '"') {
            p += 2;  // json.dump's separator
            continue;
        }
        p = json_space(p);
        if (*p != ',') {
            break;
        }
        p = json_space(p + 1);
    }
    return *p == '}' && (fields.seen & (1u << kTarget)) != 0 &&
                   collector->add_quick(std::string_view(name, length), fields)
               ? p + 1
               : nullptr;
}

// ---- JSON: any object of the format's shape, strings without escapes.

class JsonCursor {
public:
    explicit JsonCursor(std::string_view text) : text_(text) {}

    // Skips white space, then takes `c` if it comes next.
    bool take(char c) {
        skip_space();
        if (pos_ < text_.size() && text_[pos_] == c) {
            pos_++;
            return true;
        }
        return false;
    }
    bool next_is(char c) {
        skip_space();
        return pos_ < text_.size() && text_[pos_] == c;
    }
    bool at_end() {
        skip_space();
        return pos_ == text_.size();
    }

    // A string of printable ASCII without escapes.
    bool string(std::string_view* out) { return take('"') && string_rest(out); }

    // The rest of a string after its opening quote, its end found 16 bytes
    // a step.
    bool string_rest(std::string_view* out) {
        const size_t start = pos_;
        for (;; pos_ += 16) {
            const char* at = text_.data() + pos_;
            char tail[16];
            // The last block, padded with bytes that stop the search.
            if (pos_ + 16 > text_.size()) {
                memset(tail, 0, sizeof tail);
                memcpy(tail, at, text_.size() - pos_);
                at = tail;
            }
            const uint32_t bits = json_string_stops(at);
            if (bits != 0) {
                pos_ += static_cast<size_t>(std::countr_zero(bits));
                break;
            }
        }
        if (pos_ >= text_.size() || text_[pos_] != '"') {
            return false;
        }
        *out = text_.substr(start, pos_++ - start);
        return true;
    }

    // A string, true, false, null, or a positive integer of up to nine
    // digits, as the full reader's JSON tree would hold it.
    bool scalar(Scalar* out) {
        if (next_is('"')) {
            out->plain = false;
            pos_++;
            return string_rest(&out->text);
        }
        out->plain = true;
        if (pos_ < text_.size() &&
            (text_[pos_] == 't' || text_[pos_] == 'f' || text_[pos_] == 'n')) {
            const std::string_view word = text_[pos_] == 't'   ? "true"
                                          : text_[pos_] == 'f' ? "false"
                                                               : "null";
            out->text = word;
            pos_ += word.size();
            return pos_ <= text_.size() &&
                   same_short(text_.data() + pos_ - word.size(), word.data(), word.size());
        }
        const size_t start = pos_;
        while (pos_ < text_.size() && text_[pos_] >= '0' && text_[pos_] <= '9') {
            pos_++;
        }
        out->text = text_.substr(start, pos_ - start);
        const bool more =
            pos_ < text_.size() && (text_[pos_] == '.' || text_[pos_] == 'e' || text_[pos_] == 'E');
        return !out->text.empty() && out->text.size() <= 9 && out->text[0] != '0' && !more;
    }

    // The next member of the services' object when json_quick_service takes
    // it; false, with nothing read, when not.
    bool quick_service(Collector* collector) {
        if (pos_ + kJsonReach > text_.size()) {
            return false;
        }
        const char* end = json_quick_service(text_.data() + pos_, collector);
        if (end != nullptr) {
            pos_ = static_cast<size_t>(end - text_.data());
        }
        return end != nullptr;
    }

    // A key and its colon.
    bool key(std::string_view* out) { return string(out) && take(':'); }

    // After a member or an item: true with `*done` when `close` ends the
    // object or list, true when a comma follows, false otherwise.
    bool after_item(char close, bool* done) {
        skip_space();
        if (pos_ == text_.size() || (text_[pos_] != close && text_[pos_] != ',')) {
            return false;
        }
        *done = text_[pos_++] == close;
        return true;
    }

private:
    void skip_space() {
        while (pos_ < text_.size() && is_a(text_[pos_], kJsonSpace)) {
            pos_++;
        }
    }

    std::string_view text_;
    size_t pos_ = 0;
};

// Calls `member(key)` for each member of the object that comes next.
template <typename Member>
bool json_object(JsonCursor& json, Member member) {
    if (!json.take('{')) {
        return false;
    }
    if (json.take('}')) {
        return true;
    }
    for (bool done = false; !done;) {
        std::string_view key;
        if (!json.key(&key) || !member(key) || !json.after_item('}', &done)) {
            return false;
        }
    }
    return true;
}

bool json_clear_services(JsonCursor& json, std::vector<std::string>* services) {
    if (!json.take('[')) {
        return false;
    }
    if (json.take(']')) {
        return true;
    }
    for (bool done = false; !done;) {
        Scalar item;
        if (!json.scalar(&item) || !take_clear_service(item, services) ||
            !json.after_item(']', &done)) {
            return false;
        }
    }
    return true;
}

bool json_service(JsonCursor& json, DesiredService* service) {
    SeenKeys seen;
    const bool read = json_object(json, [&](std::string_view key) {
        const int index = seen.add(kServiceKeys, key);
        if (index == kClearServices) {
            return json_clear_services(json, &service->clear_services);
        }
        Scalar value;
        return index >= 0 && json.scalar(&value) && Collector::service_field(index, value, service);
    });
    return read && seen.has(kTarget);
}

// The services' object: each member straight through when it has the
// common shape, else key by key.
bool json_services(JsonCursor& json, Collector* collector) {
    if (!json.take('{')) {
        return false;
    }
    if (json.take('}')) {
        return true;
    }
    size_t declined = 0;
    for (bool done = false; !done;) {
        if (declined < kQuickTries && json.quick_service(collector)) {
            declined = 0;
        } else {
            declined++;
            std::string_view name;
            DesiredService* service = nullptr;
            if (!json.key(&name) || (service = collector->add_service(name)) == nullptr ||
                !json_service(json, service)) {
                return false;
            }
        }
        if (!json.after_item('}', &done)) {
            return false;
        }
    }
    return true;
}

// A null, or an object whose members `object` reads.
template <typename Object>
bool json_null_or(JsonCursor& json, Object object) {
    if (json.next_is('{')) {
        return object();
    }
    Scalar value;
    return json.scalar(&value) && is_null(value);
}

bool json_proxy(JsonCursor& json, Collector* collector) {
    SeenKeys seen;
    const bool read = json_object(json, [&](std::string_view key) {
        const int index = seen.add(kProxyKeys, key);
        Scalar value;
        return index >= 0 && json.scalar(&value) && collector->proxy_field(index, value);
    });
    return read && seen.has(kAddress) && seen.has(kType);
}

bool read_json(std::string_view text, Collector* collector) {
    JsonCursor json(text);
    SeenKeys seen;
    const bool read = json_object(json, [&](std::string_view key) {
        Scalar value;
        switch (seen.add(kRootKeys, key)) {
            case kVersion:
                return json.scalar(&value) && Collector::version(value);
            case kServices:
                return json_null_or(json, [&] { return json_services(json, collector); });
            case kProxy:
                return json_null_or(json, [&] { return json_proxy(json, collector); });
            default:
                return false;
        }
    });
    return read && json.at_end() && seen.has(kVersion);
}

// ---- YAML: block mappings and sequences, one scalar a line.

// Where the line at `pos` ends (its newline or the end of the text), or npos
// when it holds a byte outside printable ASCII: tabs, CR and UTF-8 are the
// full reader's. Eight bytes a step while none is special.
size_t line_end(std::string_view text, size_t pos) {
    for (; pos + 8 <= text.size(); pos += 8) {
        uint64_t word;
        memcpy(&word, text.data() + pos, 8);
        const uint64_t special = unprintable_bytes(word);
        if (special != 0) {
            const size_t at = pos + static_cast<size_t>(__builtin_ctzll(special) >> 3);
            return text[at] == '\n' ? at : std::string_view::npos;
        }
    }
    for (; pos < text.size() && text[pos] != '\n'; pos++) {
        if (text[pos] < 0x20 || text[pos] > 0x7e) {
            return std::string_view::npos;
        }
    }
    return pos;
}

// Sixteen bytes as bits (bit i for byte i): the spaces, the bytes outside
// printable ASCII (one ends the line), and the bytes a plain key may not
// hold (anything but letters, digits, _ . - and spaces).
struct Block {
    uint32_t space = 0;
    uint32_t stop = 0;
    uint32_t odd = 0;
};

Block classify(const char* at) {
    const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(at));
    const auto is = [&c](char b) { return _mm_cmpeq_epi8(c, _mm_set1_epi8(b)); };
    const auto within = [](__m128i v, char low, char high) {
        return _mm_and_si128(_mm_cmpgt_epi8(v, _mm_set1_epi8(static_cast<char>(low - 1))),
                             _mm_cmplt_epi8(v, _mm_set1_epi8(static_cast<char>(high + 1))));
    };
    // Bytes from 0x80 are negative: below 0x20 as well.
    const __m128i stop = _mm_or_si128(_mm_cmplt_epi8(c, _mm_set1_epi8(0x20)), is(0x7f));
    const __m128i space = is(' ');
    const __m128i letter = within(_mm_or_si128(c, _mm_set1_epi8(0x20)), 'a', 'z');
    const __m128i key =
        _mm_or_si128(_mm_or_si128(letter, within(c, '0', '9')),
                     _mm_or_si128(_mm_or_si128(within(c, '-', '.'), is('_')), space));
    return Block{static_cast<uint32_t>(_mm_movemask_epi8(space)),
                 static_cast<uint32_t>(_mm_movemask_epi8(stop)),
                 static_cast<uint32_t>(_mm_movemask_epi8(key)) ^ 0xffffu};
}

// The bits from `from` up to (not including) `to`, both at most 63.
uint64_t bits_between(size_t from, size_t to) {
    return ((uint64_t{1} << to) - 1) & ~((uint64_t{1} << from) - 1);
}

// What follows a key's colon (or an item's dash) on its line; `bad` when
// it is nothing this reader knows.
enum class Inline { none, scalar, empty_mapping, empty_list, bad };

// A line with content: its indentation, the rest with trailing spaces cut,
// and what it says when it is "key: value" or "- value".
struct Line {
    size_t indent = 0;
    std::string_view body{};
    bool entry = false;
    bool item = false;
    Scalar key{};
    Inline kind = Inline::bad;
    Scalar value{};
};

// After a quoted scalar or a flow {} or []: nothing, or a comment.
bool only_comment(std::string_view rest) {
    const size_t mark = rest.find_first_not_of(' ');
    return rest.empty() || (rest[0] == ' ' && mark != std::string_view::npos && rest[mark] == '#');
}

// A single- or double-quoted scalar at the start of `text`, without
// escapes; `rest` gets what follows the closing quote.
bool yaml_quoted(std::string_view text, Scalar* out, std::string_view* rest) {
    const char quote = text[0];
    const size_t close = text.find(quote, 1);
    if (close == std::string_view::npos) {
        return false;
    }
    out->text = text.substr(1, close - 1);
    out->plain = false;
    *rest = text.substr(close + 1);
    return quote == '\'' || out->text.find('\\') == std::string_view::npos;
}

// The lines of a text that hold more than blanks and a comment, each read
// in one pass of 16-byte blocks: lines of content are at most 63 bytes,
// longer ones (other than comments) are left to the full reader.
class YamlLines {
public:
    explicit YamlLines(std::string_view text) : text_(text) {}

    // The next such line, left for take(); null at the end or when a line
    // is not for this reader (failed() then tells). Kept small: it is asked
    // again for the same line as often as for a new one.
    const Line* peek() {
        if (!ready_ && !failed_ && pos_ < text_.size()) {
            advance();
        }
        return ready_ && !failed_ ? &line_ : nullptr;
    }
    void take() { ready_ = false; }
    bool failed() const { return failed_; }

    // The service at the next line when yaml_quick_service takes it (a line
    // already looked at is read again); false, with nothing read, when not.
    bool quick_service(size_t indent, Collector* collector) {
        if (ready_ && !failed_) {
            pos_ = line_start_;
            ready_ = false;
        }
        // pos_ may stand one past the end after a last line without newline.
        if (ready_ || failed_ || pos_ + kYamlReach > text_.size()) {
            return false;
        }
        const char* end = yaml_quick_service(text_.data() + pos_, indent, collector);
        if (end != nullptr) {
            pos_ = static_cast<size_t>(end - text_.data());
        }
        return end != nullptr;
    }

    // The next line if it is indented exactly `indent`.
    const Line* peek_at(size_t indent) {
        const Line* line = peek();
        return line != nullptr && line->indent == indent ? line : nullptr;
    }

private:
    // The bits of the line at pos_ up to its end (`*length`, at most 63),
    // or false with `*length` 64 when no end comes within 64 bytes.
    bool scan(uint64_t* space, uint64_t* odd, size_t* length) const {
        *space = 0;
        *odd = 0;
        const bool room = pos_ + 64 <= text_.size();
        for (size_t k = 0; k < 64; k += 16) {
            const char* at = text_.data() + pos_ + k;
            char tail[16];
            // The last block of the text, padded with line ends.
            if (!room && pos_ + k + 16 > text_.size()) {
                memset(tail, '\n', sizeof tail);
                memcpy(tail, at, text_.size() - pos_ - k);
                at = tail;
            }
            const Block block = classify(at);
            *space |= uint64_t{block.space} << k;
            *odd |= uint64_t{block.odd} << k;
            if (block.stop != 0) {
                *length = k + static_cast<size_t>(std::countr_zero(block.stop));
                return true;
            }
        }
        *length = 64;
        return false;
    }

    // Reads lines until one has content, the text ends or a line fails.
    [[gnu::noinline]] void advance() {
        while (!ready_ && !failed_ && pos_ < text_.size()) {
            failed_ = !read_line();
        }
    }

    // Reads the line at pos_ into line_ (ready_ when it has content) and
    // steps past it; false when it is not for this reader.
    bool read_line() {
        uint64_t space;
        uint64_t odd;
        size_t length;
        const bool short_line = scan(&space, &odd, &length);
        const char* p = text_.data() + pos_;
        const size_t indent = static_cast<size_t>(std::countr_zero(~space));
        if (!short_line) {
            // Only a comment may run on; its end is found a word at a time.
            const size_t end = line_end(text_, pos_ + 64);
            pos_ = end == std::string_view::npos ? text_.size() : end + 1;
            return indent < 64 && p[indent] == '#' && end != std::string_view::npos;
        }
        pos_ += length;
        if (pos_ < text_.size() && text_[pos_++] != '\n') {
            return false;  // tabs, CR and UTF-8 are the full reader's
        }
        const uint64_t content = ~space & bits_between(0, length);
        if (content == 0 || p[indent] == '#') {
            return true;
        }
        const size_t last = 64 - static_cast<size_t>(std::countl_zero(content));
        line_start_ = static_cast<size_t>(p - text_.data());
        // Key and value are set wherever they are read.
        line_.indent = indent;
        line_.body = std::string_view(p + indent, last - indent);
        line_.entry = false;
        line_.item = false;
        line_.kind = Inline::bad;
        ready_ = true;
        read_entry(p, content, odd, last);
        return true;
    }

    // Fills line_'s entry or item: the key, and what follows.
    void read_entry(const char* p, uint64_t content, uint64_t odd, size_t last) {
        const size_t indent = line_.indent;
        size_t colon = 0;
        if (p[indent] == '-' && (last == indent + 1 || p[indent + 1] == ' ')) {
            line_.item = true;
            colon = indent;
        } else if (is_a(p[indent], kWordByte)) {
            colon = static_cast<size_t>(std::countr_zero(odd & ~bits_between(0, indent)));
            if (colon >= last || p[colon] != ':' || p[colon - 1] == ' ') {
                return;
            }
            line_.key = Scalar{std::string_view(p + indent, colon - indent), true};
        } else if (p[indent] == '"' || p[indent] == '\'') {
            std::string_view rest;
            if (!yaml_quoted(line_.body, &line_.key, &rest) || rest.empty() || rest[0] != ':') {
                return;
            }
            colon = last - rest.size();
        } else {
            return;
        }
        if (colon + 1 < last && p[colon + 1] != ' ') {
            return;
        }
        line_.entry = !line_.item;
        const uint64_t after = content & ~bits_between(0, colon + 1);
        line_.kind = after == 0 ? Inline::none
                                : value(p, static_cast<size_t>(std::countr_zero(after)), odd, last);
    }

    // The value that starts at `v` and ends by `last`, into line_.value.
    Inline value(const char* p, size_t v, uint64_t odd, size_t last) {
        const std::string_view rest(p + v, last - v);
        if (p[v] == '#') {
            return Inline::none;
        }
        if (p[v] == '"' || p[v] == '\'') {
            std::string_view after;
            const bool read = yaml_quoted(rest, &line_.value, &after) && only_comment(after);
            return read ? Inline::scalar : Inline::bad;
        }
        if (rest.starts_with("{}") || rest.starts_with("[]")) {
            return !only_comment(rest.substr(2)) ? Inline::bad
                   : p[v] == '{'                 ? Inline::empty_mapping
                                                 : Inline::empty_list;
        }
        return plain(p, v, odd, last) ? Inline::scalar : Inline::bad;
    }

    // A plain scalar: a word-like start, no flow or quote characters, no
    // ": ", and " #" starts a comment. Only the odd bytes need a look.
    bool plain(const char* p, size_t v, uint64_t odd, size_t last) {
        if (!is_a(p[v], kWordByte) && p[v] != '~') {
            return false;
        }
        size_t end = last;
        for (uint64_t left = odd & bits_between(v + 1, last); left != 0; left &= left - 1) {
            const size_t at = static_cast<size_t>(std::countr_zero(left));
            if (p[at] == '#' && p[at - 1] == ' ') {
                end = at;
                break;
            }
            const bool bad =
                p[at] == ':' ? at + 1 == last || p[at + 1] == ' ' : !is_a(p[at], kPlainByte);
            if (bad) {
                return false;
            }
        }
        while (p[end - 1] == ' ') {
            end--;
        }
        line_.value = Scalar{std::string_view(p + v, end - v), true};
        return true;
    }

    std::string_view text_;
    size_t pos_ = 0;
    Line line_{};
    size_t line_start_ = 0;  // of the line in line_
    bool ready_ = false;
    bool failed_ = false;
};

// Whether the line after a key with nothing after its colon starts a block
// of its own: deeper, or a list at the key's own indentation. `*first` is
// that line.
bool yaml_block_follows(YamlLines& lines, size_t key_indent, const Line** first) {
    *first = lines.peek();
    const Line* line = *first;
    return line != nullptr &&
           (line->indent > key_indent || (line->indent == key_indent && line->item));
}

// The "- item" lines of a clear_services list, at the indentation `indent`.
bool yaml_clear_services(YamlLines& lines, size_t indent, std::vector<std::string>* out) {
    for (const Line* line;
         (line = lines.peek_at(indent)) != nullptr && line->body.starts_with("- ");) {
        lines.take();
        if (line->kind != Inline::scalar || !take_clear_service(line->value, out)) {
            return false;
        }
    }
    return true;
}

// Calls `member(line)` for each "key: value" line of the block mapping
// indented `indent`; stops at a line indented less. A line indented more
// than the entries (a continued scalar) is not for this reader.
template <typename Member>
bool yaml_mapping(YamlLines& lines, size_t indent, Member member) {
    for (const Line* line; (line = lines.peek()) != nullptr && line->indent >= indent;) {
        if (line->indent != indent || !line->entry || line->kind == Inline::bad) {
            return false;
        }
        lines.take();
        if (!member(*line)) {
            return false;
        }
    }
    return true;
}

bool yaml_service(YamlLines& lines, size_t name_indent, DesiredService* service) {
    const Line* first;
    if (!yaml_block_follows(lines, name_indent, &first) || first->indent == name_indent) {
        return false;
    }
    const size_t indent = first->indent;
    SeenKeys seen;
    const bool read = yaml_mapping(lines, indent, [&](const Line& line) {
        const int index = seen.add(kServiceKeys, line.key.text);
        if (index == kClearServices) {
            const Line* items;
            if (line.kind == Inline::empty_list) {
                return true;
            }
            return line.kind == Inline::none && yaml_block_follows(lines, indent, &items) &&
                   yaml_clear_services(lines, items->indent, &service->clear_services);
        }
        // Nothing after the colon is a null or a block: never a field's value.
        return index >= 0 && line.kind == Inline::scalar &&
               Collector::service_field(index, line.value, service);
    });
    return read && seen.has(kTarget);
}

// The value of "services" or "proxy" (`line`): null, or a block mapping
// read by `block` from its indentation, or for services an empty {}.
template <typename Block>
bool yaml_null_or_block(YamlLines& lines, const Line& line, bool empty_allowed, Block block) {
    const Line* first;
    switch (line.kind) {
        case Inline::scalar:
            return is_null(line.value);
        case Inline::empty_mapping:
            return empty_allowed;
        case Inline::none:
            if (!yaml_block_follows(lines, 0, &first)) {
                return !lines.failed();
            }
            return first->indent > 0 && block(first->indent);
        default:
            return false;
    }
}

// The services' block mapping, indented `indent`: each service straight
// through when it has the common shape, else line by line.
bool yaml_services(YamlLines& lines, size_t indent, Collector* collector) {
    size_t declined = 0;
    for (;;) {
        if (declined < kQuickTries && lines.quick_service(indent, collector)) {
            declined = 0;
            continue;
        }
        declined++;
        const Line* line = lines.peek();
        if (line == nullptr || line->indent < indent) {
            return true;
        }
        if (line->indent != indent || !line->entry || line->kind != Inline::none) {
            return false;
        }
        lines.take();
        DesiredService* service = collector->add_service(line->key.text);
        if (service == nullptr || !yaml_service(lines, indent, service)) {
            return false;
        }
    }
}

bool yaml_proxy(YamlLines& lines, size_t indent, Collector* collector) {
    SeenKeys seen;
    const bool read = yaml_mapping(lines, indent, [&](const Line& line) {
        const int index = seen.add(kProxyKeys, line.key.text);
        return index >= 0 && line.kind == Inline::scalar &&
               collector->proxy_field(index, line.value);
    });
    return read && seen.has(kAddress) && seen.has(kType);
}

bool read_yaml(std::string_view text, Collector* collector) {
    YamlLines lines(text);
    const Line* start = lines.peek_at(0);
    if (start != nullptr && start->body == "---") {
        lines.take();
    }
    SeenKeys seen;
    const bool read = yaml_mapping(lines, 0, [&](const Line& line) {
        switch (seen.add(kRootKeys, line.key.text)) {
            case kVersion:
                return line.kind == Inline::scalar && Collector::version(line.value);
            case kServices:
                return yaml_null_or_block(lines, line, true, [&](size_t indent) {
                    return yaml_services(lines, indent, collector);
                });
            case kProxy:
                return yaml_null_or_block(lines, line, false, [&](size_t indent) {
                    return yaml_proxy(lines, indent, collector);
                });
            default:
                return false;
        }
    });
    return read && lines.peek() == nullptr && !lines.failed() && seen.has(kVersion);
}

}  // namespace

bool read_desired_state_quickly(std::string_view text, DesiredState* state) {
    const size_t start = text.find_first_not_of(" \t\r\n");
    if (start == std::string_view::npos) {
        return false;
    }
    // An export spends 80 to 85 bytes on a service.
    Collector collector(state, text.size() / 80);
    return text[start] == '{' ? read_json(text, &collector) : read_yaml(text, &collector);
}
