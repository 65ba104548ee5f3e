// JsonWriter: the one writer of the tool's --json output. Builds one JSON
// object as text, keys in the order they are added, strings escaped. Nothing
// here throws: a writer that could not allocate is marked incomplete (its
// callers run inside libevent callbacks, which an exception must not cross).
#pragma once

#include <cstdint>
#include <string>

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
