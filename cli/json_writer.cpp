#include "cli/json_writer.h"

#include <cstdio>

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

void JsonWriter::key(const char* name) {
    if (!fields_.empty()) {
        fields_ += ", ";
    }
    append_string(fields_, name);
    fields_ += ": ";
}

JsonWriter& JsonWriter::text(const char* name, const char* value) {
    if (value != nullptr) {
        key(name);
        append_string(fields_, value);
    }
    return *this;
}

JsonWriter& JsonWriter::number(const char* name, int64_t value) {
    key(name);
    fields_ += std::to_string(value);
    return *this;
}

JsonWriter& JsonWriter::decimal(const char* name, double value) {
    char written[32];
    snprintf(written, sizeof written, "%.1f", value);
    key(name);
    fields_ += written;
    return *this;
}

JsonWriter& JsonWriter::boolean(const char* name, bool value) {
    key(name);
    fields_ += value ? "true" : "false";
    return *this;
}

JsonWriter& JsonWriter::value(const char* name, const std::string& json) {
    key(name);
    fields_ += json;
    return *this;
}

JsonWriter& JsonWriter::merge(const JsonWriter& other) {
    if (!other.fields_.empty()) {
        if (!fields_.empty()) {
            fields_ += ", ";
        }
        fields_ += other.fields_;
    }
    return *this;
}

std::string JsonWriter::object() const {
    return "{" + fields_ + "}";
}

std::string json_array(const std::string* items, size_t count) {
    std::string out = "[";
    for (size_t i = 0; i < count; i++) {
        out += i == 0 ? "" : ", ";
        out += items[i];
    }
    return out + "]";
}
