// JsonWriter: the one writer of the tool's --json output. Builds one JSON
// object as text, keys in the order they are added, strings escaped. Nothing
// here throws: a writer that could not allocate is marked incomplete (its
// callers run inside libevent callbacks, which an exception must not cross).
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <string_view>

class JsonWriter {
public:
    // A null value leaves the key out.
    JsonWriter& text(const char* key, const char* value);
    JsonWriter& number(const char* key, int64_t value);
    // One decimal place (latencies in milliseconds).
    JsonWriter& decimal(const char* key, double value);
    JsonWriter& boolean(const char* key, bool value);
    // `json` is a complete JSON value (an object or an array) written as is.
    JsonWriter& value(const char* key, const std::string& json);
    // Appends the fields of `other` after this object's own.
    JsonWriter& merge(const JsonWriter& other);
    // False once an append could not allocate.
    bool complete() const { return complete_; }
    // No field yet.
    bool empty() const { return fields_.empty(); }
    // The object's text; empty when incomplete or out of memory.
    std::string object() const noexcept;

private:
    template <typename Append>
    JsonWriter& append(Append append_field) noexcept;
    void key(const char* name);
    std::string fields_;
    bool complete_ = true;
};

// `items`, each a complete JSON value, as one JSON array; empty when out of
// memory.
std::string json_array(const std::string* items, size_t count) noexcept;

// Length of the run at the start of `text` that a JSON string holds as it
// is: no quote, backslash or control character.
size_t json_plain_prefix(std::string_view text) noexcept;

// The bytes past ASCII at the start of `text` (not empty): a well-formed
// UTF-8 sequence goes to *valid as it is; a bad one (with the continuation
// bytes after it) as U+FFFD, so the output stays UTF-8 whatever the user
// typed. Returns how many bytes were taken.
size_t json_non_ascii(std::string_view text, std::string_view* valid) noexcept;

// Writes `text` as a JSON string, quotes included, through put(string_view):
// runs of plain bytes in one call each, and each quote, backslash or control
// character escaped (a control as \n, \t or \u00XX). Bytes that are not
// UTF-8 are written as U+FFFD.
template <typename Put>
void write_json_string(std::string_view text, Put&& put) {
    put(std::string_view("\"", 1));
    size_t run = 0;  // start of the plain bytes not yet written
    for (size_t i = json_plain_prefix(text); i < text.size();
         i = run + json_plain_prefix(text.substr(run))) {
        const auto byte = static_cast<unsigned char>(text[i]);
        put(text.substr(run, i - run));
        if (byte >= 0x80) {
            std::string_view sequence;
            run = i + json_non_ascii(text.substr(i), &sequence);
            put(sequence);
            continue;
        }
        char escaped[8] = {'\\', static_cast<char>(byte)};
        size_t length = 2;
        if (byte == '\n' || byte == '\t') {
            escaped[1] = byte == '\n' ? 'n' : 't';
        } else if (byte < 0x20) {
            length = static_cast<size_t>(snprintf(escaped, sizeof escaped, "\\u%04x", byte));
        }
        put(std::string_view(escaped, length));
        run = i + 1;
    }
    put(text.substr(run));
    put(std::string_view("\"", 1));
}
