// Reading a "tenants" list in one pass: the Transfer Agent sends each
// service as a string holding a JSON object of its own. walk_tenants parses
// each element's text into one arena kept for the whole walk and hands the
// service's fields to a visitor as views, with no document, handle or copy
// per element.
//
// Every field reads exactly as the json_* getters read it from
// json_parse(element text): same bounds, U+FFFD for bad UTF-8, last of
// repeated keys. Nothing throws; a visitor must not throw either.
#pragma once

#include <string_view>
#include <type_traits>

#include "sylvshared/json.h"

namespace sylvshared {

// A text member as json_get_string_value reads it (a string, or a boolean
// as "true"/"false"), uncut: copy_field cuts it as the getter would.
// `present` is false when the member is missing or of another type.
struct TenantText {
    std::string_view text;
    bool present;
};

// An integer member: `value` is json_get_int_value's answer (-1 when missing,
// not an integer or outside int); `present` is json_is_key_present's.
struct TenantNumber {
    int value;
    bool present;
};

// The fields of one service, valid only during the visitor's call.
struct TenantFields {
    TenantText name;  // "tenant_name"
    TenantText uuid;
    TenantText status;
    TenantText ip_address;
    TenantText onion_address;
    TenantText synchronized;
    TenantText reason;
    TenantNumber port;
    TenantNumber virtual_port;
    int ack;  // json_get_bool_value's answer: 1, 0, or -1
    // No text holds a NUL (each was read as it lies, undecoded): a reader
    // that cuts texts at a NUL need not look for one.
    bool without_nul;
    // Every text is printable ASCII (0x20 to 0x7E) without a quote or a
    // backslash: nothing in it needs escaping, on a terminal or in JSON.
    bool printable;
};

// What one element of the list is.
enum class TenantElement {
    service,     // a string holding JSON: `fields` is set (all absent for a non-object)
    not_string,  // not a string element (JSON_LIST_ITEM_OTHER): `fields` is null
    not_json,    // a string that is not JSON, or past the parse bounds: `fields` is null
};

// Called for each element in order; false stops the walk there.
using TenantVisitor = bool (*)(void* context, int index, TenantElement element,
                               const TenantFields* fields);

enum TenantWalkResult : int {
    TENANTS_WALKED = 0,      // every element visited, or the visitor stopped
    TENANTS_NO_LIST = -1,    // data null, "tenants" missing or not a list
    TENANTS_NO_MEMORY = -2,  // memory ran out: the list or an element could not be read
};

// Walks data's "tenants" list. TENANTS_NO_MEMORY stops the walk before the
// element it could not read (no visit for it).
int walk_tenants(const JsonValue* data, TenantVisitor visit, void* context) noexcept;

// The same with any callable bool(int index, TenantElement, const TenantFields*).
template <typename Visit>
int walk_tenants(const JsonValue* data, Visit&& visit) noexcept {
    using Target = std::remove_reference_t<Visit>;
    return walk_tenants(
        data,
        [](void* context, int index, TenantElement element, const TenantFields* fields) {
            return static_cast<bool>((*static_cast<Target*>(context))(index, element, fields));
        },
        const_cast<void*>(static_cast<const void*>(&visit)));
}

// Copies a text field into buffer as json_get_string_value does: cut to at
// most size-1 bytes, never inside a UTF-8 character, NUL-terminated.
// Returns the length, or -1 (buffer untouched) when the field is absent or
// size is 0.
int copy_field(const TenantText& field, char* buffer, size_t size) noexcept;

// Length of text cut to at most limit bytes without splitting a UTF-8
// sequence (the cut of copy_field and the string getters), so the cut text
// stays valid.
size_t utf8_cut(std::string_view text, size_t limit) noexcept;

}  // namespace sylvshared
