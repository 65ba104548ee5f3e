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

// A comma, unless the member or item is the first of its object or list.
void separate(JsonText* data) {
    if (data->length > 0 && data->buffer[data->length - 1] != '{' &&
        data->buffer[data->length - 1] != '[') {
        json_text_raw(data, ",");
    }
}

// "key": (keys are plain constants).
void key(JsonText* data, const char* name) {
    separate(data);
    json_text_raw(data, "\"");
    json_text_raw(data, name);
    json_text_raw(data, "\":");
}

// A null text leaves the member out, as the JSON tree did.
void string_member(JsonText* data, const char* name, const char* text) {
    if (text != nullptr) {
        key(data, name);
        json_text_string(data, text);
    }
}

void int_member(JsonText* data, const char* name, int value) {
    key(data, name);
    json_text_int(data, value);
}

// A null text is left out of the list.
void string_item(JsonText* data, const char* text) {
    if (text != nullptr) {
        separate(data);
        json_text_string(data, text);
    }
}

// {"tenants":[name]}.
bool build_name_list_request(const char* name, JsonText* data) {
    json_text_raw(data, "{\"tenants\":[");
    string_item(data, name);
    json_text_raw(data, "]}");
    return true;
}

}  // namespace

// The key is hidden from the trace before the request exists, so that no
// line written from here on can show it.
bool build_add_request(void* argument, JsonText* data) {
    auto* request = static_cast<ServiceRequest*>(argument);
    hide_in_trace(request->api_key);
    json_text_raw(data, "{");
    string_member(data, "method", "api_key");
    string_member(data, "value", request->api_key);
    string_member(data, "name", request->name);
    string_member(data, "ip_address", request->ip_address);
    int_member(data, "port", request->port);
    int_member(data, "virtual_port", request->virtual_port);
    key(data, "clear_services");
    json_text_raw(data, "[");
    if (request->clear_services != nullptr) {
        for (ListEntry* entry = request->clear_services->head; entry != nullptr;
             entry = entry->next) {
            string_item(data, static_cast<const char*>(entry->item));
        }
        LinkedList.free(request->clear_services, free_text);
        request->clear_services = nullptr;
    }
    json_text_raw(data, "]}");
    return true;
}

bool build_edit_request(void* argument, JsonText* data) {
    auto* request = static_cast<ServiceRequest*>(argument);
    json_text_raw(data, "{");
    string_member(data, TENANT_NAME_KEY, request->name);
    string_member(data, "ip_address", request->ip_address);
    int_member(data, "port", request->port);
    int_member(data, "virtual_port", request->virtual_port);
    json_text_raw(data, "}");
    return true;
}

bool build_remove_request(void* name, JsonText* data) {
    json_text_raw(data, "{");
    string_member(data, TENANT_NAME_KEY, static_cast<const char*>(name));
    json_text_raw(data, "}");
    return true;
}

bool build_empty_request(void*, JsonText* data) {
    json_text_raw(data, "{}");
    return true;
}

bool build_connect_request(void* name, JsonText* data) {
    return build_name_list_request(static_cast<const char*>(name), data);
}

bool build_disconnect_request(void* name, JsonText* data) {
    return build_name_list_request(static_cast<const char*>(name), data);
}

bool build_enable_flag_request(void* enable, JsonText* data) {
    json_text_raw(
        data, *static_cast<const int*>(enable) != 0 ? "{\"enable\":true}" : "{\"enable\":false}");
    return true;
}

bool build_save_proxy_request(void* argument, JsonText* data) {
    auto* request = static_cast<const ProxyRequest*>(argument);
    json_text_raw(data, "{");
    string_member(data, "ip_address", request->ip_address);
    int_member(data, "port", request->port);
    string_member(data, "proxy_type", request->proxy_type);
    json_text_raw(data, "}");
    return true;
}

bool build_traceability_request(void* argument, JsonText* data) {
    auto* config = static_cast<const TraceabilityConfig*>(argument);
    json_text_raw(data, "{");
    string_member(data, "target", config->target);
    if (strcmp(config->target, "file") == 0) {
        string_member(data, "path", config->path);
        string_member(data, "filename_format", config->filename_format);
        int_member(data, "max_size", config->max_size);
    } else if (strcmp(config->target, "syslog") == 0) {
        string_member(data, "address", config->address);
        string_member(data, "protocol", config->protocol);
        int_member(data, "port", config->port);
    }
    json_text_raw(data, "}");
    return true;
}
