// JSON value library. Parsed documents are read-only trees in one arena
// each, shared by every handle taken from them (document.h); values the
// caller builds are nlohmann::ordered_json (members keep insertion order),
// and a parsed value turns into one only when it is changed or written.
// Every entry point has C linkage and catches everything: a failure becomes
// a null or negative result, never an exception, a print or an exit.

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <new>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "document.h"
#include "sylvshared/json.h"

using Json = nlohmann::ordered_json;
using sylvshared::Document;
using sylvshared::Kind;
using sylvshared::Node;

// Either a view into a parsed document (document set) or a built value.
struct JsonValue {
    Document* document;
    const Node* node;
    Json json;
};

const Node* sylvshared::parsed_node(const JsonValue* value) {
    return value != nullptr && value->document != nullptr ? value->node : nullptr;
}

namespace {

// Runs body, turning any exception into fallback.
template <typename Result, typename Body>
Result guarded(Result fallback, Body&& body) noexcept {
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}

// nlohmann's destructor allocates a stack to take apart a non-empty array
// or object, and a failed allocation there ends the process. Emptying the
// containers bottom-up first leaves it nothing to allocate.
void dismantle(Json& json) noexcept {
    if (json.is_array()) {
        auto& items = json.get_ref<Json::array_t&>();
        for (Json& item : items) {
            dismantle(item);
        }
        items.clear();
    } else if (json.is_object()) {
        auto& members = json.get_ref<Json::object_t&>();
        for (auto& entry : members) {
            dismantle(entry.second);
        }
        members.clear();
    }
}

// What a member lookup found: a parsed node or a built value, or neither.
struct Found {
    const Node* node;
    const Json* json;
    explicit operator bool() const { return node != nullptr || json != nullptr; }
};

Found member(const JsonValue* value, const char* key) {
    if (value == nullptr || key == nullptr) {
        return {};
    }
    if (value->document != nullptr) {
        return {sylvshared::find_member(value->node, key), nullptr};
    }
    if (!value->json.is_object()) {
        return {};
    }
    auto it = value->json.find(key);
    return {nullptr, it == value->json.end() ? nullptr : &*it};
}

// Decoded text of an escaped string node, held by `arena` (which the
// caller frees); throws std::bad_alloc when memory runs out.
std::string_view decoded(sylvshared::Arena& arena, const Node& node) {
    const char* text = nullptr;
    uint32_t size = 0;
    if (!sylvshared::decode_text(arena, node, &text, &size)) {
        throw std::bad_alloc();
    }
    return {text, size};
}

// A scratch arena freed when it goes out of scope.
struct ScratchArena {
    sylvshared::Arena arena{};
    ~ScratchArena() { sylvshared::reset_arena(arena, false); }
};

// A string node's text as a std::string.
std::string text_of(const Node& node) {
    if (!node.escaped) {
        return std::string(node.text, node.size);
    }
    ScratchArena scratch;
    return std::string(decoded(scratch.arena, node));
}

// The built form of a parsed node (recursion is bounded by the parse depth).
Json to_json(const Node& node) {
    switch (node.kind) {
        case Kind::Boolean:
            return node.boolean;
        case Kind::Integer:
            return node.integer;
        case Kind::Unsigned:
            return node.unsigned_integer;
        case Kind::Real:
            return node.real;
        case Kind::String:
            return text_of(node);
        case Kind::List: {
            Json list = Json::array();
            for (uint32_t i = 0; i < node.size; ++i) {
                list.push_back(to_json(node.items[i]));
            }
            return list;
        }
        case Kind::Object: {
            Json object = Json::object();
            for (uint32_t i = 0; i < node.size; ++i) {
                const sylvshared::Member& entry = node.members[i];
                object[std::string(entry.key, entry.key_size)] = to_json(entry.value);
            }
            return object;
        }
        case Kind::Null:
            break;
    }
    return nullptr;
}

// Makes a parsed value a built one before it is changed.
void make_built(JsonValue* value) {
    if (value->document != nullptr) {
        value->json = to_json(*value->node);
        sylvshared::release(value->document);
        value->document = nullptr;
        value->node = nullptr;
    }
}

// A copy of value in built form.
Json built_copy(const JsonValue* value) {
    return value->document != nullptr ? to_json(*value->node) : value->json;
}

// Sets object[key] = item; 0, or -1 when object is not an object or key null.
int add_member(JsonValue* object, const char* key, Json item) {
    if (object == nullptr || key == nullptr) {
        return -1;
    }
    make_built(object);
    if (!object->json.is_object()) {
        return -1;
    }
    Json& slot = object->json[key];
    dismantle(slot);  // a value already under key
    slot = std::move(item);
    return 0;
}

// Appends item to a list value; 0, or -1 when list is not a list.
int append(JsonValue* list, Json item) {
    if (list == nullptr) {
        return -1;
    }
    make_built(list);
    if (!list->json.is_array()) {
        return -1;
    }
    list->json.push_back(std::move(item));
    return 0;
}

JsonValue* new_built(Json json) {
    return new (std::nothrow) JsonValue{nullptr, nullptr, std::move(json)};
}

// New handle on `node` of document, which gains a reference; null when out
// of memory.
JsonValue* new_view(Document* document, const Node* node) {
    auto* value = new (std::nothrow) JsonValue{document, node, Json()};
    if (value != nullptr) {
        sylvshared::retain(document);
    }
    return value;
}

// The caller's handle on a new document's root, which it then holds alone;
// null (errno set) when the parse or the handle failed.
JsonValue* handle_of(Document* document) {
    if (document == nullptr) {
        return nullptr;  // errno set by the parse
    }
    JsonValue* value = new_view(document, &document->root);
    sylvshared::release(document);
    if (value == nullptr) {
        errno = ENOMEM;
    }
    return value;
}

// json_get_list_value hands out one malloc'd block: this header, the array
// of element pointers the caller sees, then the element records. Texts stay
// in the document's arena, which the block keeps alive: a listing of
// thousands of services is not copied once more.
// Strings the document holds undecoded are decoded into the block's own
// arena.
struct alignas(16) ListHeader {  // keeps the array 16-byte aligned
    Document* document;
    sylvshared::Arena decoded;
};

JsonListItem** new_list_block(Document* document, int count) {
    const size_t slots = static_cast<size_t>(count);
    auto* block = static_cast<char*>(
        malloc(sizeof(ListHeader) + slots * (sizeof(JsonListItem*) + sizeof(JsonListItem))));
    if (block == nullptr) {
        return nullptr;
    }
    new (block) ListHeader{document, sylvshared::Arena{}};
    auto** items = reinterpret_cast<JsonListItem**>(block + sizeof(ListHeader));
    auto* records = reinterpret_cast<JsonListItem*>(items + slots);
    for (size_t i = 0; i < slots; ++i) {
        items[i] = &records[i];
        records[i] = JsonListItem{JSON_LIST_ITEM_OTHER, nullptr};
    }
    sylvshared::retain(document);
    return items;
}

ListHeader* header_of(JsonListItem** items) {
    return reinterpret_cast<ListHeader*>(reinterpret_cast<char*>(items) - sizeof(ListHeader));
}

// Text of a string element: shared with its document, or decoded into the
// block; null when memory runs out.
const char* element_text(JsonListItem** items, const Node& item) {
    if (!item.escaped) {
        return item.text;
    }
    const char* text = nullptr;
    uint32_t size = 0;
    return sylvshared::decode_text(header_of(items)->decoded, item, &text, &size) ? text : nullptr;
}

// Element records of a parsed list.
JsonListItem** parsed_list(Document* document, const Node& list) {
    JsonListItem** items = new_list_block(document, static_cast<int>(list.size));
    for (uint32_t i = 0; items != nullptr && i < list.size; ++i) {
        if (list.items[i].kind == Kind::String) {
            items[i]->type = JSON_LIST_ITEM_STRING;
            items[i]->text = const_cast<char*>(element_text(items, list.items[i]));
            if (items[i]->text == nullptr) {
                json_free_list_value(items, static_cast<int>(list.size));
                errno = ENOMEM;
                return nullptr;
            }
        }
    }
    return items;
}

// Element records of a built list, texts copied into a document of their own.
JsonListItem** built_list(const Json& list) {
    Document* texts = sylvshared::new_document(4096);
    if (texts == nullptr) {
        return nullptr;
    }
    JsonListItem** items = new_list_block(texts, static_cast<int>(list.size()));
    sylvshared::release(texts);  // the block holds it now
    for (size_t i = 0; items != nullptr && i < list.size(); ++i) {
        if (list[i].is_string()) {
            const std::string& text = list[i].get_ref<const std::string&>();
            items[i]->text = sylvshared::copy_text(texts, text.data(), text.size());
            if (items[i]->text == nullptr) {
                json_free_list_value(items, static_cast<int>(i));
                return nullptr;
            }
            items[i]->type = JSON_LIST_ITEM_STRING;
        }
    }
    return items;
}

// Text of a string member, or of a boolean as "true"/"false"; false when
// the member is of another type. An escaped text is decoded into `scratch`.
bool string_of(const Found& found, sylvshared::Arena& scratch, std::string_view* text) {
    if (found.node != nullptr && found.node->kind == Kind::String) {
        *text = found.node->escaped ? decoded(scratch, *found.node)
                                    : std::string_view(found.node->text, found.node->size);
    } else if (found.node != nullptr && found.node->kind == Kind::Boolean) {
        *text = found.node->boolean ? "true" : "false";
    } else if (found.json != nullptr && found.json->is_string()) {
        *text = found.json->get_ref<const std::string&>();
    } else if (found.json != nullptr && found.json->is_boolean()) {
        *text = found.json->get<bool>() ? "true" : "false";
    } else {
        return false;
    }
    return true;
}

int to_int(int64_t number) {
    return number < INT_MIN || number > INT_MAX ? -1 : static_cast<int>(number);
}

}  // namespace

extern "C" {

// New value owned by the caller, or null for invalid JSON or a document
// past the parse bounds (errno EINVAL) or when memory ran out (ENOMEM).
// Invalid UTF-8 in strings reads as U+FFFD.
JsonValue* json_parse(const char* text) {
    if (text == nullptr) {
        return nullptr;
    }
    return handle_of(sylvshared::parse_document(text, strlen(text)));
}

// json_parse for a text that outlives the value (see json.h).
JsonValue* json_parse_in_place(const char* text) {
    if (text == nullptr) {
        return nullptr;
    }
    return handle_of(sylvshared::parse_in_place(text, strlen(text)));
}

// Compact text into buffer. A text that does not fit is refused whole and
// the buffer left empty, so no partial text gets sent. Caller text that is
// not UTF-8 is written with U+FFFD in place of each bad sequence.
int json_serialize(const JsonValue* value, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) {
        return -1;
    }
    buffer[0] = '\0';
    if (value == nullptr) {
        return -1;
    }
    return guarded(-2, [&] {
        constexpr auto replace = Json::error_handler_t::replace;
        std::string text;
        if (value->document != nullptr) {
            Json built = to_json(*value->node);
            text = built.dump(-1, ' ', false, replace);
            dismantle(built);
        } else {
            text = value->json.dump(-1, ' ', false, replace);
        }
        if (text.size() >= size || text.size() > INT_MAX) {
            return -3;
        }
        memcpy(buffer, text.c_str(), text.size() + 1);
        return static_cast<int>(text.size());
    });
}

JsonValue* json_create_json_object(void) {
    return guarded<JsonValue*>(nullptr, [] { return new_built(Json::object()); });
}

JsonValue* json_create_json_list(void) {
    return guarded<JsonValue*>(nullptr, [] { return new_built(Json::array()); });
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
    return guarded(-1, [&] { return add_member(object, key, built_copy(child)); });
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
    return guarded(-1, [&] { return append(list, built_copy(value)); });
}

// String (or boolean, as "true"/"false") member into buffer, cut to fit.
// The buffer is left untouched on failure.
int json_get_string_value(const JsonValue* value, const char* key, char* buffer, size_t size) {
    if (buffer == nullptr || size == 0) {
        return -1;
    }
    return guarded(-1, [&] {
        std::string_view text;
        ScratchArena scratch;
        if (!string_of(member(value, key), scratch.arena, &text)) {
            return -1;
        }
        size_t length = sylvshared::utf8_cut(text, std::min<size_t>(size - 1, INT_MAX));
        memcpy(buffer, text.data(), length);
        buffer[length] = '\0';
        return static_cast<int>(length);
    });
}

int json_get_int_value(const JsonValue* value, const char* key) {
    return guarded(-1, [&] {
        const Found found = member(value, key);
        if (found.node != nullptr) {
            return found.node->kind == Kind::Integer ? to_int(found.node->integer) : -1;
        }
        if (found.json == nullptr || !found.json->is_number_integer()) {
            return -1;
        }
        if (found.json->is_number_unsigned()) {
            auto number = found.json->get<uint64_t>();
            return number > INT_MAX ? -1 : static_cast<int>(number);
        }
        return to_int(found.json->get<int64_t>());
    });
}

int json_get_bool_value(const JsonValue* value, const char* key) {
    return guarded(-1, [&] {
        const Found found = member(value, key);
        if (found.node != nullptr && found.node->kind == Kind::Boolean) {
            return found.node->boolean ? 1 : 0;
        }
        if (found.json != nullptr && found.json->is_boolean()) {
            return found.json->get<bool>() ? 1 : 0;
        }
        return -1;
    });
}

// One malloc'd block (see ListHeader); *count set only on success.
JsonListItem** json_get_list_value(const JsonValue* value, const char* key, int* count) {
    if (count == nullptr) {
        return nullptr;
    }
    return guarded<JsonListItem**>(nullptr, [&]() -> JsonListItem** {
        const Found found = member(value, key);
        JsonListItem** items = nullptr;
        int total = 0;
        if (found.node != nullptr && found.node->kind == Kind::List) {
            total = static_cast<int>(found.node->size);
            items = parsed_list(value->document, *found.node);
        } else if (found.json != nullptr && found.json->is_array() &&
                   found.json->size() <= INT_MAX) {
            total = static_cast<int>(found.json->size());
            items = built_list(*found.json);
        }
        if (items != nullptr) {
            *count = total;
        }
        return items;
    });
}

// New value holding the member, owned by the caller: a parsed member is
// shared with its document (never changed in place), a built one copied.
JsonValue* json_get_json_value(const JsonValue* value, const char* key) {
    return guarded<JsonValue*>(nullptr, [&]() -> JsonValue* {
        const Found found = member(value, key);
        if (found.node != nullptr) {
            return new_view(value->document, found.node);
        }
        return found.json == nullptr ? nullptr : new_built(*found.json);
    });
}

int json_is_key_present(const JsonValue* value, const char* key) {
    return guarded(0, [&] { return member(value, key) ? 1 : 0; });
}

void json_free_value(JsonValue* value) {
    if (value != nullptr) {
        sylvshared::release(value->document);
        dismantle(value->json);
        delete value;
    }
}

// The count is not needed: the block knows its document.
void json_free_list_value(JsonListItem** items, int /*count*/) {
    if (items == nullptr) {
        return;
    }
    ListHeader* header = header_of(items);
    sylvshared::release(header->document);
    sylvshared::reset_arena(header->decoded, false);
    free(header);
}

}  // extern "C"

// The caller owns the buffer; the text only writes into it.
void json_text_start(JsonText* text, char* buffer, size_t size) {
    text->buffer = buffer;
    text->size = size;
    text->length = 0;
    text->failed = size == 0;
    if (size > 0) {
        buffer[0] = '\0';
    }
}

namespace {

// Appends `length` bytes and the NUL after them, or marks the text failed.
void put(JsonText* text, const char* bytes, size_t length) {
    if (text->failed || length >= text->size - text->length) {
        text->failed = 1;
        return;
    }
    memcpy(text->buffer + text->length, bytes, length);
    text->length += length;
    text->buffer[text->length] = '\0';
}

// Printable ASCII that a JSON string holds as it is.
bool plain(const char* value, size_t length) {
    for (size_t i = 0; i < length; i++) {
        const auto byte = static_cast<unsigned char>(value[i]);
        if (byte < 0x20 || byte >= 0x7f || byte == '"' || byte == '\\') {
            return false;
        }
    }
    return true;
}

}  // namespace

// `raw` stays the caller's.
void json_text_raw(JsonText* text, const char* raw) {
    put(text, raw, strlen(raw));
}

// Plain texts (every request's names and addresses, as a rule) are copied;
// any other goes through the serialiser, so that escapes and replaced bytes
// stay exactly json_serialize's.
void json_text_string(JsonText* text, const char* value) {
    const size_t length = strlen(value);
    if (plain(value, length)) {
        put(text, "\"", 1);
        put(text, value, length);
        put(text, "\"", 1);
        return;
    }
    const int written = guarded(-1, [&] {
        const std::string quoted = Json(value).dump(-1, ' ', false, Json::error_handler_t::replace);
        put(text, quoted.data(), quoted.size());
        return 0;
    });
    if (written < 0) {
        text->failed = 1;
    }
}

// Decimal digits written by hand: no stdio on a request's path.
void json_text_int(JsonText* text, int64_t value) {
    char digits[24];
    size_t at = sizeof digits;
    uint64_t magnitude =
        value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    do {
        digits[--at] = static_cast<char>('0' + magnitude % 10);
        magnitude /= 10;
    } while (magnitude != 0);
    if (value < 0) {
        digits[--at] = '-';
    }
    put(text, digits + at, sizeof digits - at);
}

// Lengths past the end are ignored.
void json_text_cut(JsonText* text, size_t length) {
    if (length <= text->length) {
        text->length = length;
        text->failed = 0;
        if (text->size > 0) {
            text->buffer[length] = '\0';
        }
    }
}
