// The JSON value interface on arbitrary text: parsing, every getter on the
// parsed value, list reading as the front end does it, walk_tenants against
// the getters, and serialising into buffers that are too small and large
// enough.
#include <cstdint>
#include <cstring>
#include <string>

#include "sylvshared/json.h"
#include "sylvshared/tenants.h"

namespace {

// Keys the tool reads, plus one taken from the input.
const char* const kKeys[] = {"command", "id",           "data",         "tenants", "tenant_name",
                             "status",  "ip_address",   "port",         "uuid",    "onion_address",
                             "reason",  "synchronized", "virtual_port", "ack",     "added",
                             "success", "enabled",      "type",         ""};
// Buffer sizes callers use, and the smallest possible.
const size_t kTextSizes[] = {1, 9, 17, 20, 37, 40, 50, 63, 100, 255};

void check_string(const JsonValue* value, const char* key) {
    for (const size_t size : kTextSizes) {
        char buffer[256];
        memset(buffer, 'x', sizeof buffer);
        const int result = json_get_string_value(value, key, buffer, size);
        if (result >= 0 && (memchr(buffer, '\0', size) == nullptr || buffer[size] != 'x')) {
            __builtin_trap();  // unterminated, or written beyond the size
        }
    }
}

void check_serialize(const JsonValue* value) {
    static char large[1 << 20];
    const int length = json_serialize(value, large, sizeof large);
    if (length < 0) {
        return;
    }
    if (strlen(large) != static_cast<size_t>(length)) {
        __builtin_trap();
    }
    // One byte short must be refused whole, with nothing left to send.
    std::string small(static_cast<size_t>(length), 'x');
    if (length > 0) {
        if (json_serialize(value, small.data(), small.size()) >= 0 || small[0] != '\0') {
            __builtin_trap();
        }
    }
    // What was written reads back to the same text.
    JsonValue* again = json_parse(large);
    if (again == nullptr) {
        __builtin_trap();
    }
    std::string first(large, static_cast<size_t>(length));
    if (json_serialize(again, large, sizeof large) != length || first != large) {
        __builtin_trap();
    }
    json_free_value(again);
}

void check_value(const JsonValue* value, const char* extra_key, int depth) {
    check_serialize(value);
    for (const char* key :
         {extra_key, kKeys[0],  kKeys[1],  kKeys[2],  kKeys[3],  kKeys[4],  kKeys[5],
          kKeys[6],  kKeys[7],  kKeys[8],  kKeys[9],  kKeys[10], kKeys[11], kKeys[12],
          kKeys[13], kKeys[14], kKeys[15], kKeys[16], kKeys[17], kKeys[18]}) {
        check_string(value, key);
        const int boolean = json_get_bool_value(value, key);
        if (boolean < -1 || boolean > 1) {
            __builtin_trap();
        }
        (void)json_get_int_value(value, key);
        (void)json_is_key_present(value, key);
        JsonValue* member = json_get_json_value(value, key);
        if (member != nullptr && depth < 2) {
            check_value(member, extra_key, depth + 1);
        }
        json_free_value(member);
        int count = -1;
        JsonListItem** items = json_get_list_value(value, key, &count);
        if (items != nullptr && count < 0) {
            __builtin_trap();
        }
        for (int i = 0; items != nullptr && i < count; ++i) {
            if (items[i] == nullptr ||
                (items[i]->type == JSON_LIST_ITEM_STRING) != (items[i]->text != nullptr)) {
                __builtin_trap();
            }
            // Elements are JSON texts of their own.
            JsonValue* element = items[i]->type == JSON_LIST_ITEM_STRING && depth < 2
                                     ? json_parse(items[i]->text)
                                     : nullptr;
            if (element != nullptr) {
                check_value(element, extra_key, depth + 1);
            }
            json_free_value(element);
        }
        json_free_list_value(items, count);
    }
}

// The walk's reading of one element against the getters on its own document.
void check_element(const JsonListItem* item, sylvshared::TenantElement element,
                   const sylvshared::TenantFields* fields) {
    using sylvshared::TenantElement;
    if (item->type != JSON_LIST_ITEM_STRING) {
        if (element != TenantElement::not_string || fields != nullptr)
            __builtin_trap();
        return;
    }
    JsonValue* value = json_parse(item->text);
    if ((value != nullptr) != (element == TenantElement::service) ||
        (fields != nullptr) != (value != nullptr)) {
        __builtin_trap();
    }
    if (value == nullptr) {
        return;
    }
    const sylvshared::TenantText* texts[] = {
        &fields->name,          &fields->uuid,         &fields->status, &fields->ip_address,
        &fields->onion_address, &fields->synchronized, &fields->reason};
    const char* keys[] = {"tenant_name",   "uuid",         "status", "ip_address",
                          "onion_address", "synchronized", "reason"};
    for (int i = 0; i < 7; ++i) {
        if (fields->without_nul && texts[i]->text.find('\0') != std::string_view::npos) {
            __builtin_trap();
        }
        for (const char c : fields->printable ? texts[i]->text : std::string_view()) {
            if (c < 0x20 || c >= 0x7F || c == '"' || c == '\\') {
                __builtin_trap();  // shown unescaped, yet needs escaping
            }
        }
        for (const size_t size : kTextSizes) {
            char walked[256] = {};
            char got[256] = {};
            if (sylvshared::copy_field(*texts[i], walked, size) !=
                    json_get_string_value(value, keys[i], got, size) ||
                strcmp(walked, got) != 0) {
                __builtin_trap();
            }
        }
    }
    if (fields->port.value != json_get_int_value(value, "port") ||
        fields->port.present != (json_is_key_present(value, "port") == 1) ||
        fields->virtual_port.value != json_get_int_value(value, "virtual_port") ||
        fields->virtual_port.present != (json_is_key_present(value, "virtual_port") == 1) ||
        fields->ack != json_get_bool_value(value, "ack")) {
        __builtin_trap();
    }
    json_free_value(value);
}

// walk_tenants over data's "tenants" visits what json_get_list_value lists.
void check_walk(const JsonValue* data) {
    int count = -1;
    JsonListItem** items = json_get_list_value(data, "tenants", &count);
    int visits = 0;
    const int result = sylvshared::walk_tenants(
        data,
        [&](int index, sylvshared::TenantElement element, const sylvshared::TenantFields* fields) {
            if (items == nullptr || index != visits++ || index >= count) {
                __builtin_trap();
            }
            check_element(items[index], element, fields);
            return true;
        });
    if ((result == sylvshared::TENANTS_WALKED) != (items != nullptr) ||
        (items != nullptr && visits != count)) {
        __builtin_trap();
    }
    json_free_list_value(items, count);
}

// A value read in place reads as the same text parsed whole.
void check_in_place(const std::string& text, const JsonValue* whole) {
    JsonValue* in_place = json_parse_in_place(text.c_str());
    if ((in_place != nullptr) != (whole != nullptr)) {
        __builtin_trap();
    }
    if (in_place != nullptr) {
        static std::string expected(1 << 20, '\0');
        static std::string got(1 << 20, '\0');
        const int length = json_serialize(whole, expected.data(), expected.size());
        if (json_serialize(in_place, got.data(), got.size()) != length ||
            strcmp(expected.c_str(), got.c_str()) != 0) {
            __builtin_trap();
        }
        check_walk(in_place);
    }
    json_free_value(in_place);
}

// The text as a service of a received listing: its element long enough
// (trailing spaces change no reading) to be read where it lies, through
// the answer's escaping, against the getters on the decoded element.
void check_listing(const std::string& text) {
    JsonValue* answer = json_create_json_object();
    JsonValue* list = json_create_json_list();
    json_add_string_to_list(list, (text + std::string(64, ' ')).c_str());
    json_add_child_to_object(answer, "tenants", list);
    static std::string wire(1 << 22, '\0');
    if (json_serialize(answer, wire.data(), wire.size()) > 0) {
        JsonValue* received = json_parse_in_place(wire.c_str());
        if (received == nullptr) {
            __builtin_trap();
        }
        check_walk(received);
        json_free_value(received);
    }
    json_free_value(list);
    json_free_value(answer);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // Text up to the first NUL is the document; what follows is a key.
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const std::string text = bytes.substr(0, bytes.find('\0'));
    const std::string key = text.size() < bytes.size() ? bytes.substr(text.size() + 1) : "";
    JsonValue* value = json_parse(text.c_str());
    if (value != nullptr) {
        check_value(value, key.c_str(), 0);
        check_walk(value);
    }
    check_in_place(text, value);
    json_free_value(value);
    check_listing(text);
    // The text as one element of a built list, as a service of a listing.
    JsonValue* answer = json_create_json_object();
    JsonValue* list = json_create_json_list();
    json_add_string_to_list(list, text.c_str());
    json_add_child_to_object(answer, "tenants", list);
    check_walk(answer);
    json_free_value(list);
    json_free_value(answer);
    return 0;
}
