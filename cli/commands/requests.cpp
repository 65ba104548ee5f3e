// The request builders: the exact "data" each command puts on the wire.

#include "cli/commands/requests.h"

#include <cstdlib>
#include <cstring>

#include "cli/agent/tenants.h"
#include "cli/observe/trace.h"

namespace {

void free_text(void* text) {
    free(text);
}

// {key: [name]}; the list is copied into the object.
JsonValue* build_name_list_request(const char* name, bool release_list) {
    JsonValue* data = json_create_json_object();
    JsonValue* tenants = json_create_json_list();
    json_add_string_to_list(tenants, name);
    json_add_child_to_object(data, "tenants", tenants);
    if (release_list) {
        json_free_value(tenants);
    }
    return data;
}

}  // namespace

// The key is hidden from the trace before the request exists, so that no
// line written from here on can show it.
JsonValue* build_add_request(void* argument) {
    auto* request = static_cast<ServiceRequest*>(argument);
    hide_in_trace(request->api_key);
    JsonValue* data = json_create_json_object();
    json_add_string_child(data, "method", "api_key");
    json_add_string_child(data, "value", request->api_key);
    json_add_string_child(data, "name", request->name);
    json_add_string_child(data, "ip_address", request->ip_address);
    json_add_int_child(data, "port", request->port);
    json_add_int_child(data, "virtual_port", request->virtual_port);
    JsonValue* clear_services = json_create_json_list();
    if (request->clear_services != nullptr) {
        for (ListEntry* entry = request->clear_services->head; entry != nullptr;
             entry = entry->next) {
            json_add_string_to_list(clear_services, static_cast<const char*>(entry->item));
        }
        LinkedList.free(request->clear_services, free_text);
        request->clear_services = nullptr;
    }
    json_add_child_to_object(data, "clear_services", clear_services);
    json_free_value(clear_services);
    return data;
}

JsonValue* build_edit_request(void* argument) {
    auto* request = static_cast<ServiceRequest*>(argument);
    JsonValue* data = json_create_json_object();
    json_add_string_child(data, TENANT_NAME_KEY, request->name);
    json_add_string_child(data, "ip_address", request->ip_address);
    json_add_int_child(data, "port", request->port);
    json_add_int_child(data, "virtual_port", request->virtual_port);
    return data;
}

JsonValue* build_remove_request(void* name) {
    JsonValue* data = json_create_json_object();
    json_add_string_child(data, TENANT_NAME_KEY, static_cast<const char*>(name));
    return data;
}

JsonValue* build_empty_request(void*) {
    return json_create_json_object();
}

JsonValue* build_connect_request(void* name) {
    return build_name_list_request(static_cast<const char*>(name), true);
}

// Keeps its JSON list: a few bytes that end with the process.
JsonValue* build_disconnect_request(void* name) {
    return build_name_list_request(static_cast<const char*>(name), false);
}

JsonValue* build_enable_flag_request(void* enable) {
    JsonValue* data = json_create_json_object();
    json_add_boolean_child(data, "enable", *static_cast<const int*>(enable));
    return data;
}

JsonValue* build_save_proxy_request(void* argument) {
    auto* request = static_cast<const ProxyRequest*>(argument);
    JsonValue* data = json_create_json_object();
    json_add_string_child(data, "ip_address", request->ip_address);
    json_add_int_child(data, "port", request->port);
    json_add_string_child(data, "proxy_type", request->proxy_type);
    return data;
}

JsonValue* build_traceability_request(void* argument) {
    auto* config = static_cast<const TraceabilityConfig*>(argument);
    JsonValue* data = json_create_json_object();
    json_add_string_child(data, "target", config->target);
    if (strcmp(config->target, "file") == 0) {
        json_add_string_child(data, "path", config->path);
        json_add_string_child(data, "filename_format", config->filename_format);
        json_add_int_child(data, "max_size", config->max_size);
    } else if (strcmp(config->target, "syslog") == 0) {
        json_add_string_child(data, "address", config->address);
        json_add_string_child(data, "protocol", config->protocol);
        json_add_int_child(data, "port", config->port);
    }
    return data;
}
