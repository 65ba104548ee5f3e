#include "cli/json_responses.h"

#include <new>
#include <vector>

#include "cli/report.h"
#include "cli/tenants.h"

namespace {

constexpr const char* BAD_LISTING =
    "Error while listing the services. Server responded with bad formatted answer\n";

// Copies a text field when present; `size` is the field's buffer size, at
// most STATUS_SIZE.
void add_text(JsonWriter& fields, const JsonValue* tenant, const char* key, const char* as,
              size_t size) {
    char value[STATUS_SIZE] = {};
    if (json_get_string_value(tenant, key, value, size) >= 0) {
        fields.text(as, value);
    }
}

void add_number(JsonWriter& fields, const JsonValue* tenant, const char* key) {
    if (json_is_key_present(tenant, key) == 1) {
        fields.number(key, json_get_int_value(tenant, key));
    }
}

// One service of the listing as an object with the agent's own field values;
// empty when out of memory.
std::string service_object(const JsonValue* tenant) noexcept {
    JsonWriter fields;
    add_text(fields, tenant, "tenant_name", "service", NAME_SIZE);
    add_text(fields, tenant, "uuid", "uuid", UUID_SIZE);
    add_text(fields, tenant, "status", "status", STATUS_SIZE);
    add_text(fields, tenant, "ip_address", "ip_address", IP_ADDRESS_SIZE);
    add_number(fields, tenant, "port");
    add_number(fields, tenant, "virtual_port");
    add_text(fields, tenant, "onion_address", "onion_address", ONION_ADDRESS_SIZE);
    return fields.object();
}

}  // namespace

const char* read_proxy_answer(const JsonValue* data, ProxyAnswer* proxy) {
    if (data == nullptr) {
        return "An error occurred while trying to get proxy configuration.\n";
    }
    if (json_get_string_value(data, "type", proxy->type, sizeof proxy->type) < 0) {
        return "Unable to retrieve proxy type.\n";
    }
    if (json_get_string_value(data, "ip_address", proxy->ip_address, sizeof proxy->ip_address) <
        0) {
        return "Unable to retrieve proxy IP address.\n";
    }
    proxy->enabled = json_get_bool_value(data, "enabled");
    if (proxy->enabled < 0) {
        return "Unable to retrieve proxy status.\n";
    }
    proxy->port = json_get_int_value(data, "port");
    if (proxy->port < 0) {
        return "Unable to retrieve proxy port.\n";
    }
    return nullptr;
}

std::string proxy_object(const ProxyAnswer& proxy) {
    JsonWriter fields;
    fields.text("type", proxy.type)
        .text("ip_address", proxy.ip_address)
        .number("port", proxy.port)
        .boolean("enabled", proxy.enabled == 1);
    return fields.object();
}

char* list_response_json(JsonValue* data) {
    TenantList list{};
    std::vector<std::string> services;
    if (read_tenant_list(data, &list)) {
        for (int i = 0; i < list.count; i++) {
            JsonValue* tenant = parse_tenant(list.items[i]);
            if (tenant == nullptr) {
                release_tenant_list(&list);
                fail(Failure::bad_answer, BAD_LISTING);
            }
            services.push_back(service_object(tenant));
            json_free_value(tenant);
        }
    }
    release_tenant_list(&list);
    report_success(nullptr,
                   JsonWriter().value("services", json_array(services.data(), services.size())));
    return nullptr;
}
