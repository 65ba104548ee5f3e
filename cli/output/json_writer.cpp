#include "cli/output/json_writer.h"

#include <cstdio>
#include <new>

namespace {

// Quotes and escapes `text`; control characters become \u00XX.
void append_string(std::string& out, const char* text) {
    out += '"';
    for (const char* c = text; *c != '\0'; c++) {
        const auto byte = static_cast<unsigned char>(*c);
        if (byte == '"' || byte == '\\') {
            out += '\\';
            out += *c;
        } else if (byte == '\n') {
            out += "\\n";
        } else if (byte == '\t') {
            out += "\\t";
        } else if (byte < 0x20) {
            char escaped[8];
            snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += *c;
        }
    }
    out += '"';
}

}  // namespace

// Only called from inside append(), which catches what this may throw.
void JsonWriter::key(const char* name) {
    if (!fields_.empty()) {
        fields_ += ", ";
    }
    append_string(fields_, name);
    fields_ += ": ";
}

template <typename Append>
JsonWriter& JsonWriter::append(Append append_field) noexcept {
    if (!complete_) {
        return *this;
    }
    try {
        append_field();
    } catch (const std::bad_alloc&) {
        complete_ = false;
    }
    return *this;
}

JsonWriter& JsonWriter::text(const char* name, const char* value) {
    if (value == nullptr) {
        return *this;
    }
    return append([&] {
        key(name);
        append_string(fields_, value);
    });
}

JsonWriter& JsonWriter::number(const char* name, int64_t value) {
    return append([&] {
        key(name);
        fields_ += std::to_string(value);
    });
}

JsonWriter& JsonWriter::decimal(const char* name, double value) {
    char written[32];
    snprintf(written, sizeof written, "%.1f", value);
    return append([&] {
        key(name);
        fields_ += written;
    });
}

JsonWriter& JsonWriter::boolean(const char* name, bool value) {
    return append([&] {
        key(name);
        fields_ += value ? "true" : "false";
    });
}

JsonWriter& JsonWriter::value(const char* name, const std::string& json) {
    if (json.empty()) {
        complete_ = false;  // the value itself could not be written
        return *this;
    }
    return append([&] {
        key(name);
        fields_ += json;
    });
}

JsonWriter& JsonWriter::merge(const JsonWriter& other) {
    complete_ = complete_ && other.complete_;
    return append([&] {
        if (!other.fields_.empty()) {
            fields_ += fields_.empty() ? "" : ", ";
            fields_ += other.fields_;
        }
    });
}

std::string JsonWriter::object() const noexcept {
    try {
        return complete_ ? "{" + fields_ + "}" : std::string();
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}

std::string json_array(const std::string* items, size_t count) noexcept {
    try {
        std::string out = "[";
        for (size_t i = 0; i < count; i++) {
            out += i == 0 ? "" : ", ";
            out += items[i];
        }
        return out + "]";
    } catch (const std::bad_alloc&) {
        return std::string();
    }
}
