// JSON value library over nlohmann::ordered_json (members keep insertion
// order). Every entry point has C linkage and catches everything: a failure
// becomes a null or negative result, never an exception, a print or an exit.

#include <algorithm>
#include <array>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "sylvshared/json.h"

using Json = nlohmann::ordered_json;

struct JsonValue {
    Json json;
};

namespace {

// Copying and serialising a tree recurse once per level, so deeper
// documents are refused at parse time rather than risk the stack.
constexpr int kMaxDepth = 128;

// Runs body, turning any exception into fallback.
template <typename Result, typename Body>
Result guarded(Result fallback, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}

// Members of an object are kept in insertion order in a vector, so adding
// the n-th one scans the n before it. Bounding the sum of those scans keeps a
// document with huge objects from stalling the loop (and the command's
// time-out) for minutes; the protocol's objects have a dozen members.
constexpr uint64_t kMaxMemberScans = 4'000'000;

// Each value costs far more as a tree than as text (two bytes of "1," become
// a node of sixteen, and "data" is copied once more), so the number of
// values, not only the text's size, bounds the memory a peer can make us
// use. The protocol's largest documents, service lists, hold one string per
// service.
constexpr uint64_t kMaxValues = 65'536;

// Position just after the string whose opening quote is at `open`, or npos
// when it never ends. memchr does the walking: service lists are mostly
// string bodies.
size_t skip_string(std::string_view text, size_t open) {
    size_t from = open + 1;
    while (from < text.size()) {
        const void* found = memchr(text.data() + from, '"', text.size() - from);
        if (found == nullptr) {
            return std::string_view::npos;
        }
        const size_t quote = static_cast<const char*>(found) - text.data();
        size_t backslashes = 0;
        while (text[quote - 1 - backslashes] == '\\') {
            ++backslashes;
        }
        if (backslashes % 2 == 0) {
            return quote + 1;
        }
        from = quote + 1;
    }
    return std::string_view::npos;
}

// Bracket depth of text outside strings exceeds kMaxDepth, or the document
// holds too many values, or its objects are too large to build in
// reasonable time. Malformed text is left for the parser to refuse.
bool too_costly(std::string_view text) {
    std::array<bool, kMaxDepth + 1> is_object{};
    std::array<uint64_t, kMaxDepth + 1> members{};
    uint64_t scans = 0;
    uint64_t separators = 0;
    int depth = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '"') {
            i = skip_string(text, i);
            if (i == std::string_view::npos) {
                return false;
            }
            --i;  // the loop steps past the closing quote
        } else if (c == '[' || c == '{') {
            if (++depth > kMaxDepth) {
                return true;
            }
            is_object[depth] = c == '{';
            members[depth] = 0;
        } else if (c == ']' || c == '}') {
            depth = depth > 0 ? depth - 1 : 0;
        } else if (c == ',') {
            if (++separators > kMaxValues) {
                return true;
            }
            if (depth > 0 && is_object[depth]) {
                scans += ++members[depth];
                if (scans > kMaxMemberScans) {
                    return true;
                }
            }
        }
    }
    return false;
}

// The member `key` of an object value, or null.
const Json* member(const JsonValue* value, const char* key) {
    if (value == nullptr || key == nullptr || !value->json.is_object()) {
        return nullptr;
    }
    auto it = value->json.find(key);
    return it == value->json.end() ? nullptr : &*it;
}

// Sets object[key] = item; 0, or -1 when object is not an object or key null.
int add_member(JsonValue* object, const char* key, Json item) {
    if (object == nullptr || key == nullptr || !object->json.is_object()) {
        return -1;
    }
    object->json[key] = std::move(item);
    return 0;
}

// Appends item to a list value; 0, or -1 when list is not a list.
int append(JsonValue* list, Json item) {
    if (list == nullptr || !list->json.is_array()) {
        return -1;
    }
    list->json.push_back(std::move(item));
    return 0;
}

// Length of text cut to at most limit bytes without splitting a UTF-8
// sequence, so the cut text stays valid JSON string content.
size_t utf8_cut(std::string_view text, size_t limit) {
    if (text.size() <= limit) {
        return text.size();
    }
    size_t cut = limit;
    while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) {
        --cut;
    }
    return cut;
}

JsonValue* new_value(Json json) {
    return new (std::nothrow) JsonValue{std::move(json)};
}

// One malloc'd list record for element; null on allocation failure.
JsonListItem* new_list_item(const Json& element) {
    auto* item = static_cast<JsonListItem*>(malloc(sizeof(JsonListItem)));
    if (item == nullptr) {
        return nullptr;
    }
    item->type = JSON_LIST_ITEM_OTHER;
    item->text = nullptr;
    if (element.is_string()) {
        const std::string& text = element.get_ref<const std::string&>();
        item->text = static_cast<char*>(malloc(text.size() + 1));
        if (item->text == nullptr) {
            free(item);
            return nullptr;
        }
        memcpy(item->text, text.c_str(), text.size() + 1);
        item->type = JSON_LIST_ITEM_STRING;
    }
    return item;
}

}  // namespace

extern "C" {

// New value owned by the caller, or null for invalid or too deeply nested
// JSON.
JsonValue* json_parse(const char* text) {
    return guarded<JsonValue*>(nullptr, [&]() -> JsonValue* {
        if (text == nullptr || too_costly(text)) {
            return nullptr;
        }
        Json parsed = Json::parse(text, nullptr, false);
        if (parsed.is_discarded()) {
            return nullptr;
        }
        return new_value(std::move(parsed));
    });
}

// Compact text into buffer. A text that does not fit, or holds invalid UTF-8,
// is refused whole and the buffer left empty, so no partial text gets sent.
int json_serialize(const JsonValue* value, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) {
        return -1;
    }
    buffer[0] = '\0';
    if (value == nullptr) {
        return -1;
    }
    return guarded(-2, [&] {
        std::string text = value->json.dump();
        if (text.size() >= size || text.size() > INT_MAX) {
            return -3;
        }
        memcpy(buffer, text.c_str(), text.size() + 1);
        return static_cast<int>(text.size());
    });
}

JsonValue* json_create_json_object(void) {
    return guarded<JsonValue*>(nullptr, [] { return new_value(Json::object()); });
}

JsonValue* json_create_json_list(void) {
    return guarded<JsonValue*>(nullptr, [] { return new_value(Json::array()); });
}

int json_add_string_child(JsonValue* object, const char* key, const char* text) {
    if (text == nullptr) {
        return -1;
    }
    return guarded(-1, [&] { return add_member(object, key, Json(text)); });
}

int json_add_int_child(JsonValue* object, const char* key, int value) {
    return guarded(-1, [&] { return add_member(object, key, Json(value)); });
}

int json_add_boolean_child(JsonValue* object, const char* key, int value) {
    return guarded(-1, [&] { return add_member(object, key, Json(value != 0)); });
}

// Adds a deep copy of child; the caller still owns and frees child.
int json_add_child_to_object(JsonValue* object, const char* key, const JsonValue* child) {
    if (child == nullptr) {
        return -1;
    }
    return guarded(-1, [&] { return add_member(object, key, child->json); });
}

int json_add_string_to_list(JsonValue* list, const char* text) {
    if (text == nullptr) {
        return -1;
    }
    return guarded(-1, [&] { return append(list, Json(text)); });
}

// Appends a deep copy of value; the caller still owns value.
int json_add_to_list(JsonValue* list, const JsonValue* value) {
    if (value == nullptr) {
        return -1;
    }
    return guarded(-1, [&] { return append(list, value->json); });
}

// String (or boolean, as "true"/"false") member into buffer, cut to fit.
// The buffer is left untouched on failure.
int json_get_string_value(const JsonValue* value, const char* key, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) {
        return -1;
    }
    return guarded(-1, [&] {
        const Json* found = member(value, key);
        std::string_view text;
        if (found == nullptr) {
            return -1;
        } else if (found->is_string()) {
            text = found->get_ref<const std::string&>();
        } else if (found->is_boolean()) {
            text = found->get<bool>() ? "true" : "false";
        } else {
            return -1;
        }
        size_t length = utf8_cut(text, std::min<size_t>(size - 1, INT_MAX));
        memcpy(buffer, text.data(), length);
        buffer[length] = '\0';
        return static_cast<int>(length);
    });
}

int json_get_int_value(const JsonValue* value, const char* key) {
    return guarded(-1, [&] {
        const Json* found = member(value, key);
        if (found == nullptr || !found->is_number_integer()) {
            return -1;
        }
        if (found->is_number_unsigned()) {
            auto number = found->get<uint64_t>();
            return number > INT_MAX ? -1 : static_cast<int>(number);
        }
        auto number = found->get<int64_t>();
        return number < INT_MIN || number > INT_MAX ? -1 : static_cast<int>(number);
    });
}

int json_get_bool_value(const JsonValue* value, const char* key) {
    return guarded(-1, [&] {
        const Json* found = member(value, key);
        if (found == nullptr || !found->is_boolean()) {
            return -1;
        }
        return found->get<bool>() ? 1 : 0;
    });
}

// malloc'd array of malloc'd element records; *count set only on success.
JsonListItem** json_get_list_value(const JsonValue* value, const char* key, int* count) {
    if (count == nullptr) {
        return nullptr;
    }
    return guarded<JsonListItem**>(nullptr, [&]() -> JsonListItem** {
        const Json* found = member(value, key);
        if (found == nullptr || !found->is_array() || found->size() > INT_MAX) {
            return nullptr;
        }
        int total = static_cast<int>(found->size());
        // At least one slot so an empty list still gives a non-null array.
        auto** items = static_cast<JsonListItem**>(
            malloc(sizeof(JsonListItem*) * static_cast<size_t>(total > 0 ? total : 1)));
        if (items == nullptr) {
            return nullptr;
        }
        int made = 0;
        for (const Json& element : *found) {
            items[made] = new_list_item(element);
            if (items[made] == nullptr) {
                json_free_list_value(items, made);
                return nullptr;
            }
            ++made;
        }
        *count = total;
        return items;
    });
}

// New value holding a copy of the member, owned by the caller.
JsonValue* json_get_json_value(const JsonValue* value, const char* key) {
    return guarded<JsonValue*>(nullptr, [&]() -> JsonValue* {
        const Json* found = member(value, key);
        return found == nullptr ? nullptr : new_value(*found);
    });
}

int json_is_key_present(const JsonValue* value, const char* key) {
    return guarded(0, [&] { return member(value, key) != nullptr ? 1 : 0; });
}

void json_free_value(JsonValue* value) {
    delete value;
}

void json_free_list_value(JsonListItem** items, int count) {
    if (items == nullptr) {
        return;
    }
    for (int i = 0; i < count; ++i) {
        if (items[i] != nullptr) {
            free(items[i]->text);
            free(items[i]);
        }
    }
    free(items);
}

}  // extern "C"
