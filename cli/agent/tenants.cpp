// Reading "tenants" lists, one element at a time.

#include "cli/agent/tenants.h"

#include <cerrno>
#include <cstring>
#include <memory>

namespace {

constexpr size_t FIRST_READ = 64;
// A UTF-8 sequence is at most 4 bytes: a read that came this close to the
// buffer's end may have been cut.
constexpr size_t LONGEST_SEQUENCE = 4;

struct JsonFree {
    void operator()(JsonValue* value) const { json_free_value(value); }
};

struct ListFree {
    int count;
    void operator()(JsonListItem** items) const { json_free_list_value(items, count); }
};

}  // namespace

// A text member whole, however long: the read is repeated with a larger
// buffer while it may have been cut.
std::optional<std::string> read_text(const JsonValue* object, const char* key) {
    std::string buffer(FIRST_READ, '\0');
    for (;;) {
        int length = json_get_string_value(object, key, buffer.data(), buffer.size());
        if (length < 0) {
            return std::nullopt;
        }
        if (static_cast<size_t>(length) + LONGEST_SEQUENCE < buffer.size()) {
            buffer.resize(strlen(buffer.c_str()));  // C text: up to a NUL
            return buffer;
        }
        buffer.assign(buffer.size() * 4, '\0');
    }
}

namespace {

void read_tenant(const JsonValue* object, Tenant* tenant) {
    tenant->name = read_text(object, TENANT_NAME_KEY);
    tenant->status = read_text(object, "status");
    tenant->ip_address = read_text(object, "ip_address");
    tenant->uuid = read_text(object, "uuid");
    tenant->onion_address = read_text(object, "onion_address");
    tenant->reason = read_text(object, "reason");
    tenant->synchronized = read_text(object, "synchronized");
    tenant->has_port = json_is_key_present(object, "port") == 1;
    tenant->has_virtual_port = json_is_key_present(object, "virtual_port") == 1;
    tenant->port = json_get_int_value(object, "port");
    tenant->virtual_port = json_get_int_value(object, "virtual_port");
    tenant->ack = json_get_bool_value(object, "ack");
}

}  // namespace

// A list or an element that could not be read for want of memory must not
// pass for a missing or bad one: that would cut a listing short with status
// 0. The JSON reader says which through errno.
TenantsRead read_tenants(const JsonValue* data, TenantVisitor visit, void* context) {
    if (data == nullptr) {
        return TenantsRead::missing;
    }
    int count = 0;
    errno = 0;
    JsonListItem** items = json_get_list_value(data, "tenants", &count);
    if (items == nullptr) {
        return errno == ENOMEM ? TenantsRead::out_of_memory : TenantsRead::missing;
    }
    std::unique_ptr<JsonListItem*[], ListFree> held(items, ListFree{count});
    for (int i = 0; i < count; i++) {
        const JsonListItem* item = items[i];
        Tenant tenant;
        TenantElement element = TenantElement::tenant;
        if (item == nullptr || item->type != JSON_LIST_ITEM_STRING || item->text == nullptr) {
            element = TenantElement::not_a_string;
        } else {
            errno = 0;
            std::unique_ptr<JsonValue, JsonFree> object(json_parse(item->text));
            if (object == nullptr && errno == ENOMEM) {
                return TenantsRead::out_of_memory;
            }
            if (object == nullptr) {
                element = TenantElement::not_json;
            } else {
                read_tenant(object.get(), &tenant);
            }
        }
        if (visit(element, tenant, context) == TenantWalk::stop) {
            break;
        }
    }
    return TenantsRead::walked;
}
