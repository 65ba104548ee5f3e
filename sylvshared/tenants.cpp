// walk_tenants: each element's text parsed by the document parser into one
// arena reused from element to element, then its members matched against
// the wanted fields in one pass (the parser already kept one member per
// key, the last value).

#include "sylvshared/tenants.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "document.h"

namespace sylvshared {

namespace {

void read_text(const Node& value, TenantText& field) {
    if (value.kind == Kind::String) {
        field = {std::string_view(value.text, value.size), true};
    } else if (value.kind == Kind::Boolean) {
        field = {value.boolean ? "true" : "false", true};
    }
}

void read_number(const Node& value, TenantNumber& field) {
    field.present = true;
    if (value.kind == Kind::Integer && value.integer >= INT_MIN && value.integer <= INT_MAX) {
        field.value = static_cast<int>(value.integer);
    }
}

// True when the member's key is `key`; sizes are compared by the caller.
template <size_t N>
bool named(const Member& member, const char (&key)[N]) {
    return memcmp(member.key, key, N - 1) == 0;
}

// Stores one member when it is a wanted field.
void pick(const Member& member, TenantFields& fields) {
    const Node& value = member.value;
    switch (member.key_size) {
        case 3:
            if (named(member, "ack") && value.kind == Kind::Boolean)
                fields.ack = value.boolean ? 1 : 0;
            break;
        case 4:
            if (named(member, "uuid"))
                read_text(value, fields.uuid);
            else if (named(member, "port"))
                read_number(value, fields.port);
            break;
        case 6:
            if (named(member, "status"))
                read_text(value, fields.status);
            else if (named(member, "reason"))
                read_text(value, fields.reason);
            break;
        case 10:
            if (named(member, "ip_address"))
                read_text(value, fields.ip_address);
            break;
        case 11:
            if (named(member, "tenant_name"))
                read_text(value, fields.name);
            break;
        case 12:
            if (named(member, "synchronized"))
                read_text(value, fields.synchronized);
            else if (named(member, "virtual_port"))
                read_number(value, fields.virtual_port);
            break;
        case 13:
            if (named(member, "onion_address"))
                read_text(value, fields.onion_address);
            break;
        default:
            break;
    }
}

// The fields of a parsed element; a value that is not an object has none.
TenantFields fields_of(const Node& root) {
    TenantFields fields{};
    fields.port.value = -1;
    fields.virtual_port.value = -1;
    fields.ack = -1;
    if (root.kind == Kind::Object) {
        for (uint32_t i = 0; i < root.size; ++i) {
            pick(root.members[i], fields);
        }
    }
    return fields;
}

// The element texts of the list: nodes of a parsed value, or the records of
// json_get_list_value for a built one.
struct ElementTexts {
    const Node* list = nullptr;
    JsonListItem** items = nullptr;
    int count = 0;

    // Text of element i (NUL-terminated), or null when it is not a string.
    const char* text(int i) const {
        if (list != nullptr) {
            const Node& item = list->items[i];
            return item.kind == Kind::String ? item.text : nullptr;
        }
        return items[i]->type == JSON_LIST_ITEM_STRING ? items[i]->text : nullptr;
    }
};

// Finds the list; TENANTS_WALKED, TENANTS_NO_LIST or TENANTS_NO_MEMORY.
int find_texts(const JsonValue* data, ElementTexts& texts) {
    if (const Node* root = parsed_node(data)) {
        texts.list = find_member(root, "tenants");
        if (texts.list == nullptr || texts.list->kind != Kind::List) {
            return TENANTS_NO_LIST;
        }
        texts.count = static_cast<int>(texts.list->size);
        return TENANTS_WALKED;
    }
    errno = 0;
    texts.items = json_get_list_value(data, "tenants", &texts.count);
    if (texts.items == nullptr) {
        return errno == ENOMEM ? TENANTS_NO_MEMORY : TENANTS_NO_LIST;
    }
    return TENANTS_WALKED;
}

}  // namespace

int walk_tenants(const JsonValue* data, TenantVisitor visit, void* context) noexcept {
    ElementTexts texts;
    int result = find_texts(data, texts);
    Arena arena{};
    for (int i = 0; result == TENANTS_WALKED && i < texts.count; ++i) {
        const char* text = texts.text(i);
        if (text == nullptr) {
            if (!visit(context, i, TenantElement::not_string, nullptr))
                break;
            continue;
        }
        // The getters' reading of an element: json_parse stops at a NUL.
        const size_t length = strlen(text);
        Node root{};
        if (!ready_arena(arena, length)) {
            result = TENANTS_NO_MEMORY;
            continue;
        }
        if (!parse_into(arena, text, length, root)) {
            if (errno == ENOMEM) {
                result = TENANTS_NO_MEMORY;
            } else if (!visit(context, i, TenantElement::not_json, nullptr)) {
                break;
            }
            continue;
        }
        const TenantFields fields = fields_of(root);
        if (!visit(context, i, TenantElement::service, &fields))
            break;
    }
    reset_arena(arena, false);
    json_free_list_value(texts.items, texts.count);
    return result;
}

int copy_field(const TenantText& field, char* buffer, size_t size) noexcept {
    if (!field.present || buffer == nullptr || size == 0) {
        return -1;
    }
    const size_t length = utf8_cut(field.text, std::min<size_t>(size - 1, INT_MAX));
    memcpy(buffer, field.text.data(), length);
    buffer[length] = '\0';
    return static_cast<int>(length);
}

}  // namespace sylvshared
