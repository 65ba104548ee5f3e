// The request records the commands fill from their arguments, and the
// builders that write each as its request's "data" (ExecutionCallback: each
// appends the JSON text to the request's, which the caller owns, and has
// data). A record lives for the whole run.
#pragma once

#include <cstdint>

#include "core/linked_list.h"
#include "sylvshared/json.h"

constexpr int SERVICE_NAME_LIMIT = 255;
constexpr int API_KEY_LENGTH = 76;
constexpr int PROXY_TYPE_SIZE = 20;

// add_tenant and edit_tenant.
struct ServiceRequest {
    char name[SERVICE_NAME_LIMIT + 1];  // cut to 255 bytes
    char ip_address[16];
    uint16_t port;
    uint16_t virtual_port;  // the -f port, or `port` without -f
    char api_key[API_KEY_LENGTH + 1];
    List* clear_services;  // malloc'd texts; released by the add builder
};

struct ProxyRequest {
    char ip_address[17];
    uint16_t port;
    char proxy_type[PROXY_TYPE_SIZE];  // upper-cased
};

// Fields the target does not use stay null or 0.
struct TraceabilityConfig {
    const char* target;  // "console", "file" or "syslog"
    const char* path;
    const char* filename_format;
    int32_t max_size;
    const char* address;
    int32_t port;
    const char* protocol;
};

bool build_add_request(void* service_request, JsonText* data);   // frees clear_services
bool build_edit_request(void* service_request, JsonText* data);  // ServiceRequest*
bool build_remove_request(void* name, JsonText* data);           // char*, sent uncut
bool build_empty_request(void* unused, JsonText* data);          // get_tenants, get_proxy
bool build_connect_request(void* name, JsonText* data);          // char*
bool build_disconnect_request(void* name, JsonText* data);       // char*
bool build_enable_flag_request(void* enable, JsonText* data);    // int*: set_proxy, audit
bool build_save_proxy_request(void* proxy_request, JsonText* data);
bool build_traceability_request(void* traceability_config, JsonText* data);
