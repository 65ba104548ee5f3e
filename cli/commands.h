// The tool's commands: validation of their arguments, the request records
// and builders that produce each request's "data", and the operations that
// register a command with its time-out (and subscription) and run it.
//
// Every operation prints its failures on standard error and exits 1; on
// success it returns once the event loop has run dry. Request records live
// on the operation's stack, which lasts for the whole run.
#pragma once

#include <cstdint>

#include "core/linked_list.h"
#include "ipc/ipc_config.h"
#include "sylvshared/json.h"

constexpr int SERVICE_NAME_LIMIT = 255;
constexpr int API_KEY_LENGTH = 76;
constexpr int PROXY_TYPE_SIZE = 20;

// add_tenant and edit_tenant.
struct ServiceRequest {
    char name[SERVICE_NAME_LIMIT + 1];  // cut to 255 characters
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

// Request builders (ExecutionCallback). Each returns a new object owned by
// the caller.
JsonValue* build_add_request(void* service_request);   // frees clear_services
JsonValue* build_edit_request(void* service_request);  // ServiceRequest*
JsonValue* build_remove_request(void* name);           // char*
JsonValue* build_empty_request(void* unused);          // get_tenants, get_proxy
JsonValue* build_connect_request(void* name);          // char*
JsonValue* build_disconnect_request(void* name);       // char*
JsonValue* build_enable_flag_request(void* enable);    // int*: set_proxy, audit
JsonValue* build_save_proxy_request(void* proxy_request);
JsonValue* build_traceability_request(void* traceability_config);

// The one-item "services_subscription" list whose events go to `callback`;
// prints and exits 1 when it cannot be made.
List* create_subscription_list(ResponseCallback callback);
// Hands the list's item to the config and frees the list.
void add_subscription_list(IpcClientConfig* config, List* list);

// Command operations reached from the command line. Texts that may be null
// are marked so.
void add_service(const char* name, const char* address, const char* forwarding_port /* or null */,
                 const char* api_key, const char* clear_services /* or null */);
void edit_service(const char* name, const char* address, const char* forwarding_port /* or null */);
void remove_service(const char* name);
void list_services();
void enable_service(const char* name);
void disable_service(const char* name);
void get_proxy_config();
void set_proxy_state(int enable);
void save_proxy_config(const char* address, const char* proxy_type);
void set_authentication_audit_state(int enable);
void save_traceability_config(const char* target, const char* path, const char* filename_format,
                              const char* max_size, const char* address, const char* port,
                              const char* protocol);
