// The one-pass reader: a JSON cursor and a YAML line reader that feed the
// same checks straight into a DesiredState. It gives up (false) at the
// first thing it does not know or the full reader would refuse; it never
// explains anything, so it never needs to know where it is.

#include "cli/desired_state/quick_reader.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>

#include "cli/desired_state/name_index.h"
#include "cli/preflight/strict_address.h"

namespace {

static_assert(std::endian::native == std::endian::little, "line_end reads words little-end first");

constexpr std::array<std::string_view, 3> kRootKeys{"version", "services", "proxy"};
constexpr std::array<std::string_view, 4> kServiceKeys{"target", "virtual_port", "clear_services",
                                                       "enabled"};
constexpr std::array<std::string_view, 3> kProxyKeys{"address", "type", "enabled"};
constexpr size_t kMaxNameLength = 255;
enum RootKey { kVersion, kServices, kProxy };
enum ServiceKey { kTarget, kVirtualPort, kClearServices, kServiceEnabled };
enum ProxyKey { kAddress, kType, kProxyEnabled };

// Byte classes: what may stand in a plain key, in a plain scalar, in a JSON
// string. Everything outside printable ASCII is in none of them.
enum : uint8_t { kWordByte = 1, kKeyByte = 2, kPlainByte = 4, kJsonByte = 8, kQuietByte = 16 };
constexpr std::array<uint8_t, 256> kByteClasses = [] {
    std::array<uint8_t, 256> classes{};
    for (int c = 0x20; c < 0x7f; c++) {
        const bool word = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
                          (c >= '0' && c <= '9') || c == '_' || c == '.';
        const bool flow = c == '#' || c == '\'' || c == '"' || c == ',' || c == '[' || c == ']' ||
                          c == '{' || c == '}';
        classes[c] = (word ? kWordByte : 0) | (word || c == '-' || c == ' ' ? kKeyByte : 0) |
                     (flow ? 0 : kPlainByte) | (c == '"' || c == '\\' ? 0 : kJsonByte) |
                     (flow || c == ' ' || c == ':' ? 0 : kQuietByte);
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

// The keys one mapping has had: a bit each.
struct SeenKeys {
    unsigned bits = 0;

    // The index of `key` in `allowed`, marked seen; -1 when unknown or seen.
    template <size_t N>
    int add(const std::array<std::string_view, N>& allowed, std::string_view key) {
        for (size_t i = 0; i < N; i++) {
            if (allowed[i].size() == key.size() && allowed[i][0] == key[0] && allowed[i] == key) {
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

// "a.b.c.d:port" in one pass: four decimals 0-255 and one 1-65535, none with
// a leading zero. It takes only what the strict endpoint reading takes, with
// the same address and port.
bool take_endpoint(Scalar value, Endpoint* endpoint) {
    const std::string_view text = value.text;
    size_t pos = 0;
    size_t colon = 0;
    uint32_t number = 0;
    for (int part = 0; part < 5; part++) {
        const size_t start = pos;
        const size_t most = part < 4 ? 3 : 5;
        for (number = 0;
             pos < text.size() && pos - start < most && text[pos] >= '0' && text[pos] <= '9';
             pos++) {
            number = number * 10 + static_cast<uint32_t>(text[pos] - '0');
        }
        if (pos == start || (pos - start > 1 && text[start] == '0') ||
            number > (part < 4 ? 255u : 65535u)) {
            return false;
        }
        if (part < 4) {
            colon = pos;
            if (pos == text.size() || text[pos++] != (part < 3 ? '.' : ':')) {
                return false;
            }
        }
    }
    if (number == 0 || pos != text.size()) {
        return false;
    }
    endpoint->address.assign(text.substr(0, colon));
    endpoint->port = static_cast<uint16_t>(number);
    return true;
}

bool take_port(Scalar value, std::optional<uint16_t>* port) {
    uint16_t number = 0;
    if (!value.plain || !parse_strict_port(value.text, &number)) {
        return false;
    }
    *port = number;
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
    bool string(std::string_view* out) {
        if (!take('"')) {
            return false;
        }
        const size_t start = pos_;
        // Eight bytes a step while none is a quote, a backslash or unprintable.
        for (; pos_ + 8 <= text_.size(); pos_ += 8) {
            uint64_t word;
            memcpy(&word, text_.data() + pos_, 8);
            const uint64_t stop = unprintable_bytes(word) | zero_bytes(word ^ (kOnes * '"')) |
                                  zero_bytes(word ^ (kOnes * '\\'));
            if (stop != 0) {
                pos_ += static_cast<size_t>(__builtin_ctzll(stop) >> 3);
                break;
            }
        }
        for (; pos_ < text_.size(); pos_++) {
            if (!is_a(text_[pos_], kJsonByte)) {
                if (text_[pos_] != '"') {
                    return false;
                }
                *out = text_.substr(start, pos_++ - start);
                return true;
            }
        }
        return false;
    }

    // A string, true, false, null, or a positive integer of up to nine
    // digits, as the full reader's JSON tree would hold it.
    bool scalar(Scalar* out) {
        if (next_is('"')) {
            out->plain = false;
            return string(&out->text);
        }
        out->plain = true;
        if (pos_ < text_.size() &&
            (text_[pos_] == 't' || text_[pos_] == 'f' || text_[pos_] == 'n')) {
            const std::string_view word = text_[pos_] == 't'   ? "true"
                                          : text_[pos_] == 'f' ? "false"
                                                               : "null";
            out->text = word;
            pos_ += word.size();
            return text_.substr(pos_ - word.size(), word.size()) == word;
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

    // A key and its colon.
    bool key(std::string_view* out) { return string(out) && take(':'); }

    // After a member or an item: true with `*done` when `close` ends the
    // object or list, true when a comma follows, false otherwise.
    bool after_item(char close, bool* done) {
        *done = take(close);
        return *done || take(',');
    }

private:
    void skip_space() {
        while (pos_ < text_.size() && (text_[pos_] == ' ' || text_[pos_] == '\n' ||
                                       text_[pos_] == '\r' || text_[pos_] == '\t')) {
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
                return json_null_or(json, [&] {
                    return json_object(json, [&](std::string_view name) {
                        DesiredService* service = collector->add_service(name);
                        return service != nullptr && json_service(json, service);
                    });
                });
            case kProxy:
                return json_null_or(json, [&] { return json_proxy(json, collector); });
            default:
                return false;
        }
    });
    return read && json.at_end() && seen.has(kVersion);
}

// ---- YAML: block mappings and sequences, one scalar a line.

// A line with content: its indentation and the rest, trailing spaces cut.
struct Line {
    size_t indent = 0;
    std::string_view body{};
};

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

// The lines of a text that hold more than blanks and a comment.
class YamlLines {
public:
    explicit YamlLines(std::string_view text) : text_(text) {}

    // The next such line, left for take(); false at the end.
    bool peek(Line* line) {
        while (!ready_ && pos_ < text_.size()) {
            const size_t end = line_end(text_, pos_);
            if (end == std::string_view::npos) {
                failed_ = true;
                return false;
            }
            size_t indent = pos_;
            uint64_t word;
            // Eight spaces a step: the indentation is mostly shorter.
            while (indent + 8 <= end &&
                   (memcpy(&word, text_.data() + indent, 8), word == kOnes * ' ')) {
                indent += 8;
            }
            if (indent + 8 <= end) {
                indent += static_cast<size_t>(__builtin_ctzll(word ^ (kOnes * ' ')) >> 3);
            }
            while (indent < end && text_[indent] == ' ') {
                indent++;
            }
            size_t last = end;
            while (last > indent && text_[last - 1] == ' ') {
                last--;
            }
            if (last > indent && text_[indent] != '#') {
                next_ = Line{indent - pos_, text_.substr(indent, last - indent)};
                ready_ = true;
            }
            pos_ = end + 1;
        }
        *line = next_;
        return ready_;
    }
    void take() { ready_ = false; }
    // Whether a line held a byte this reader leaves to the full one.
    bool failed() const { return failed_; }

    // The next line if it is indented exactly `indent`.
    bool peek_at(size_t indent, Line* line) { return peek(line) && line->indent == indent; }

private:
    std::string_view text_;
    size_t pos_ = 0;
    Line next_{};
    bool ready_ = false;
    bool failed_ = false;
};

// After a quoted scalar or a flow {} or []: nothing, or a comment.
bool only_comment(std::string_view rest) {
    return rest.empty() ||
           (rest[0] == ' ' && rest.find_first_not_of(' ') != std::string_view::npos &&
            rest[rest.find_first_not_of(' ')] == '#');
}

// A single- or double-quoted scalar on one line, without escapes; `rest`
// gets what follows the closing quote.
bool yaml_quoted(std::string_view body, Scalar* out, std::string_view* rest) {
    const char quote = body[0];
    const size_t close = body.find(quote, 1);
    if (close == std::string_view::npos) {
        return false;
    }
    out->text = body.substr(1, close - 1);
    out->plain = false;
    *rest = body.substr(close + 1);
    return quote == '\'' || out->text.find('\\') == std::string_view::npos;
}

// "key: rest" or "key:": a plain word (letters, digits, _ . - and inner
// spaces) or a quoted key, then a colon and a space or the end.
bool yaml_entry(std::string_view body, Scalar* key, std::string_view* rest) {
    size_t colon = 0;
    if (body[0] == '"' || body[0] == '\'') {
        if (!yaml_quoted(body, key, rest) || rest->empty() || (*rest)[0] != ':') {
            return false;
        }
        colon = body.size() - rest->size();
    } else {
        if (!is_a(body[0], kWordByte)) {
            return false;
        }
        while (colon < body.size() && is_a(body[colon], kKeyByte)) {
            colon++;
        }
        if (colon == body.size() || body[colon] != ':' || body[colon - 1] == ' ') {
            return false;
        }
        *key = Scalar{body.substr(0, colon), true};
    }
    if (colon + 1 < body.size() && body[colon + 1] != ' ') {
        return false;
    }
    size_t value = colon + 1;
    while (value < body.size() && body[value] == ' ') {
        value++;
    }
    *rest = body.substr(std::min(body.size(), value));
    return true;
}

// What follows a key's colon on its line.
enum class Inline { none, scalar, empty_mapping, empty_list };

// A plain scalar: a word-like start, no flow or quote characters, no ": ",
// a " #" starts a comment.
bool yaml_plain(std::string_view rest, Scalar* out) {
    if (!is_a(rest[0], kWordByte) && rest[0] != '~') {
        return false;
    }
    size_t end = 0;
    for (; end < rest.size(); end++) {
        const char c = rest[end];
        if (is_a(c, kQuietByte)) {
            continue;
        }
        if (c == ' ' && end + 1 < rest.size() && rest[end + 1] == '#') {
            break;
        }
        const bool colon_ends = c == ':' && (end + 1 == rest.size() || rest[end + 1] == ' ');
        if (colon_ends || !is_a(c, kPlainByte)) {
            return false;
        }
    }
    while (rest[end - 1] == ' ') {
        end--;
    }
    *out = Scalar{rest.substr(0, end), true};
    return true;
}

bool yaml_value(std::string_view rest, Inline* kind, Scalar* out) {
    *kind = Inline::scalar;
    if (rest.empty() || rest[0] == '#') {
        *kind = Inline::none;
        return true;
    }
    if (rest[0] == '"' || rest[0] == '\'') {
        std::string_view after;
        return yaml_quoted(rest, out, &after) && only_comment(after);
    }
    if (rest.starts_with("{}") || rest.starts_with("[]")) {
        *kind = rest[0] == '{' ? Inline::empty_mapping : Inline::empty_list;
        return only_comment(rest.substr(2));
    }
    return yaml_plain(rest, out);
}

// Whether the line after a key with nothing after its colon starts a block
// of its own: deeper, or a list at the key's own indentation.
bool yaml_block_follows(YamlLines& lines, size_t key_indent, Line* first) {
    if (!lines.peek(first)) {
        return false;
    }
    const bool item = first->body[0] == '-' && (first->body.size() == 1 || first->body[1] == ' ');
    return first->indent > key_indent || (first->indent == key_indent && item);
}

// The "- item" lines of a clear_services list, at the indentation of `first`.
bool yaml_clear_services(YamlLines& lines, const Line& first, std::vector<std::string>* out) {
    Line line;
    while (lines.peek_at(first.indent, &line) && line.body.starts_with("- ")) {
        lines.take();
        Inline kind;
        Scalar item;
        std::string_view rest = line.body.substr(2);
        rest.remove_prefix(std::min(rest.size(), rest.find_first_not_of(' ')));
        if (!yaml_value(rest, &kind, &item) || kind != Inline::scalar ||
            !take_clear_service(item, out)) {
            return false;
        }
    }
    return true;
}

// Calls `member(key, kind, value)` for each "key: value" line of the block
// mapping indented `indent`; stops at a line indented less. A line indented
// more than the entries (a continued scalar) is not for this reader.
template <typename Member>
bool yaml_mapping(YamlLines& lines, size_t indent, Member member) {
    Line line;
    while (lines.peek(&line) && line.indent >= indent) {
        Scalar key;
        Scalar value;
        std::string_view rest;
        Inline kind;
        if (line.indent != indent || !yaml_entry(line.body, &key, &rest) ||
            !yaml_value(rest, &kind, &value)) {
            return false;
        }
        lines.take();
        if (!member(key.text, kind, value)) {
            return false;
        }
    }
    return true;
}

bool yaml_service(YamlLines& lines, size_t name_indent, DesiredService* service) {
    Line first;
    if (!yaml_block_follows(lines, name_indent, &first) || first.indent == name_indent) {
        return false;
    }
    SeenKeys seen;
    const bool read =
        yaml_mapping(lines, first.indent, [&](std::string_view key, Inline kind, Scalar value) {
            const int index = seen.add(kServiceKeys, key);
            if (index == kClearServices) {
                Line items;
                if (kind == Inline::empty_list) {
                    return true;
                }
                return kind == Inline::none && yaml_block_follows(lines, first.indent, &items) &&
                       yaml_clear_services(lines, items, &service->clear_services);
            }
            // Nothing after the colon is a null or a block: never a field's value.
            return index >= 0 && kind == Inline::scalar &&
                   Collector::service_field(index, value, service);
        });
    return read && seen.has(kTarget);
}

// The value of "services" or "proxy": null, or a block mapping read by
// `block` from its indentation, or for services an empty {}.
template <typename Block>
bool yaml_null_or_block(YamlLines& lines, Inline kind, Scalar value, bool empty_allowed,
                        Block block) {
    Line first;
    switch (kind) {
        case Inline::scalar:
            return is_null(value);
        case Inline::empty_mapping:
            return empty_allowed;
        case Inline::none:
            if (!yaml_block_follows(lines, 0, &first)) {
                return true;
            }
            return first.indent > 0 && block(first.indent);
        default:
            return false;
    }
}

bool yaml_services(YamlLines& lines, size_t indent, Collector* collector) {
    return yaml_mapping(lines, indent, [&](std::string_view name, Inline kind, Scalar) {
        DesiredService* service = collector->add_service(name);
        return service != nullptr && kind == Inline::none && yaml_service(lines, indent, service);
    });
}

bool yaml_proxy(YamlLines& lines, size_t indent, Collector* collector) {
    SeenKeys seen;
    const bool read =
        yaml_mapping(lines, indent, [&](std::string_view key, Inline kind, Scalar value) {
            const int index = seen.add(kProxyKeys, key);
            return index >= 0 && kind == Inline::scalar && collector->proxy_field(index, value);
        });
    return read && seen.has(kAddress) && seen.has(kType);
}

bool read_yaml(std::string_view text, Collector* collector) {
    YamlLines lines(text);
    Line line;
    if (lines.peek_at(0, &line) && line.body == "---") {
        lines.take();
    }
    SeenKeys seen;
    const bool read = yaml_mapping(lines, 0, [&](std::string_view key, Inline kind, Scalar value) {
        switch (seen.add(kRootKeys, key)) {
            case kVersion:
                return kind == Inline::scalar && Collector::version(value);
            case kServices:
                return yaml_null_or_block(lines, kind, value, true, [&](size_t indent) {
                    return yaml_services(lines, indent, collector);
                });
            case kProxy:
                return yaml_null_or_block(lines, kind, value, false, [&](size_t indent) {
                    return yaml_proxy(lines, indent, collector);
                });
            default:
                return false;
        }
    });
    return read && !lines.peek(&line) && !lines.failed() && seen.has(kVersion);
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
