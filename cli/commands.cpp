#include "cli/commands.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/agent_listener.h"
#include "cli/follow_up.h"
#include "cli/parsing.h"
#include "cli/report.h"
#include "cli/responses.h"
#include "cli/run_state.h"
#include "cli/startup.h"
#include "network/network.h"

namespace {

constexpr const char* SUBSCRIPTION_NAME = "services_subscription";
constexpr const char* EVENT_NAME = "tenants_event";

constexpr const char* BAD_P_MESSAGE =
    "Bad format specified in p parameter. Expected ip_address:port. For example: "
    "127.0.0.1:80\n";
constexpr const char* BAD_C_MESSAGE =
    "Bad format specified in c parameter. Expected ip_address:port. For example: "
    "127.0.0.1:80\n";
constexpr const char* SAME_PORTS_MESSAGE =
    "Final port and virtual port must be different when port forwarding is enabled.\n";
constexpr const char* BAD_F_MESSAGE =
    "Bad format specified in f parameter. Expected virtual port.\n";
constexpr const char* BAD_U_MESSAGE =
    "Bad format specified in u parameter. Expected list of clear services(domain name or ip "
    "address). For example: firstDomainName.net,127.0.0.1,secondDomainName\n";
constexpr const char* TRACEABILITY_FAILURE =
    "An error occurred while saving traceability configuration.\n";

// --wait replaces the follow-up time-out of add, enable and disable.
int64_t follow_up_seconds(int64_t default_seconds) {
    int64_t wait = run_state().wait_seconds;
    return wait > 0 ? wait : default_seconds;
}

void arm_timeout(IpcClientConfig* config, event_callback_fn callback, int64_t seconds) {
    run_state().timeout_seconds = seconds;
    IpcConfig.set_timeout(config, Network.get_event_base(), callback, nullptr, seconds);
}

// Address, port and virtual port shared by add and edit; exits on failure.
void parse_service_target(ServiceRequest* request, const char* address,
                          const char* forwarding_port) {
    if (Parsing.parse_ip_address_and_port(address, request->ip_address, &request->port) != 0) {
        fail(Failure::bad_argument, BAD_P_MESSAGE);
    }
    if (forwarding_port == nullptr) {
        request->virtual_port = request->port;
        return;
    }
    // Compared as texts: "080" against port 80 passes.
    char port_text[8];
    snprintf(port_text, sizeof port_text, "%d", request->port);
    if (strcmp(port_text, forwarding_port) == 0) {
        fail(Failure::bad_argument, SAME_PORTS_MESSAGE);
    }
    if (Parsing.parse_port(forwarding_port, &request->virtual_port) != 0) {
        fail(Failure::bad_argument, BAD_F_MESSAGE);
    }
}

// Runs the conversation; back here, nothing is left to do with it. A JSON
// run always ends with a final object, also when the answer was unusable.
void run(IpcClientConfig* config) {
    run_ipc_client(config);
    stop_transfer_agent_client(config);
    if (json_mode() && !run_state().finished) {
        fail(Failure::bad_answer, "The Transfer Agent gave no usable answer.\n", about_service());
    }
}

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

// strtol of the whole text, base 10; false when anything follows the number.
bool parse_whole_number(const char* text, int32_t* value) {
    char* end = nullptr;
    *value = static_cast<int32_t>(strtol(text, &end, 10));
    return *end == '\0';
}

}  // namespace

// The one-item subscription list of add, enable and disable. The config
// takes the item; the list container is ours.
List* create_subscription_list(ResponseCallback callback) {
    auto* item = static_cast<SubscriptionRequest*>(calloc(1, sizeof(SubscriptionRequest)));
    List* list = item != nullptr ? LinkedList.create(item) : nullptr;
    if (list == nullptr) {
        free(item);
        fail(Failure::internal, "Unable to allocate memory.\n");
    }
    snprintf(item->subscription_name, sizeof item->subscription_name, "%s", SUBSCRIPTION_NAME);
    snprintf(item->event_name, sizeof item->event_name, "%s", EVENT_NAME);
    item->callback = callback;
    return list;
}

// A subscription the config could not take would let the command's answer
// end the conversation as if nothing more were awaited: status 0, nothing
// printed. It ends the run instead.
void add_subscription_list(IpcClientConfig* config, List* list) {
    auto* item = static_cast<SubscriptionRequest*>(list->head->item);
    IpcConfig.add_subscriptions(config, list);
    LinkedList.free(list, nullptr);
    if (IpcConfig.lookup_subscription(config, item) == nullptr) {
        free(item);
        fail(Failure::internal, "Unable to allocate memory.\n");
    }
}

JsonValue* build_add_request(void* argument) {
    auto* request = static_cast<ServiceRequest*>(argument);
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
    json_add_string_child(data, "tenant_name", request->name);
    json_add_string_child(data, "ip_address", request->ip_address);
    json_add_int_child(data, "port", request->port);
    json_add_int_child(data, "virtual_port", request->virtual_port);
    return data;
}

JsonValue* build_remove_request(void* name) {
    JsonValue* data = json_create_json_object();
    json_add_string_child(data, "tenant_name", static_cast<const char*>(name));
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

void add_service(const char* name, const char* address, const char* forwarding_port,
                 const char* api_key, const char* clear_services) {
    IpcClientConfig* config = start_transfer_agent_client();
    List* subscriptions = create_subscription_list(add_event_handler);
    ServiceRequest request{};
    parse_service_target(&request, address, forwarding_port);
    if (api_key == nullptr || strlen(api_key) != API_KEY_LENGTH) {
        failf(Failure::bad_argument, JsonWriter(),
              "Bad format specified in k parameter. Expected length of %d\n", API_KEY_LENGTH);
    }
    if (clear_services != nullptr) {
        request.clear_services = LinkedList.create(nullptr);
        if (request.clear_services == nullptr) {
            fail(Failure::internal, "Unable to allocate memory.\n");
        }
        if (Parsing.parse_clear_services(clear_services, request.clear_services) != 0) {
            fail(Failure::bad_argument, BAD_U_MESSAGE);
        }
    }
    snprintf(request.api_key, sizeof request.api_key, "%s", api_key);
    snprintf(request.name, sizeof request.name, "%s", name);
    run_state().service_name = request.name;
    AgentListener.guard(TRANSFER_AGENT_PORT);  // the key goes only to a trusted listener
    arm_timeout(config, agent_timeout_callback, follow_up_seconds(4));
    add_subscription_list(config, subscriptions);
    IpcConfig.add_command(config, "add_tenant", build_add_request, &request, add_response);
    run(config);
}

void edit_service(const char* name, const char* address, const char* forwarding_port) {
    IpcClientConfig* config = start_transfer_agent_client();
    ServiceRequest request{};
    parse_service_target(&request, address, forwarding_port);
    snprintf(request.name, sizeof request.name, "%s", name);
    run_state().service_name = request.name;
    arm_timeout(config, agent_timeout_callback, 4);
    IpcConfig.add_command(config, "edit_tenant", build_edit_request, &request, edit_response);
    run(config);
}

// The builders take the name as it is (uncut) and never write through it.
void remove_service(const char* name) {
    IpcClientConfig* config = start_transfer_agent_client();
    run_state().service_name = name;
    arm_timeout(config, timeout_callback, 4);
    IpcConfig.add_command(config, "remove_tenant", build_remove_request, const_cast<char*>(name),
                          remove_response);
    run(config);
}

void list_services() {
    IpcClientConfig* config = start_transfer_agent_client();
    arm_timeout(config, timeout_callback, 2);
    IpcConfig.add_command(config, "get_tenants", build_empty_request, nullptr, list_response);
    run(config);
}

void enable_service(const char* name) {
    IpcClientConfig* config = start_transfer_agent_client();
    run_state().service_name = name;
    List* subscriptions = create_subscription_list(enable_event_handler);
    arm_timeout(config, enabling_timeout_callback, follow_up_seconds(15));
    add_subscription_list(config, subscriptions);
    IpcConfig.add_command(config, "connect_tenants", build_connect_request, const_cast<char*>(name),
                          enable_response);
    run(config);
}

void disable_service(const char* name) {
    IpcClientConfig* config = start_transfer_agent_client();
    run_state().service_name = name;
    List* subscriptions = create_subscription_list(disable_event_handler);
    arm_timeout(config, disabling_timeout_callback, follow_up_seconds(5));
    add_subscription_list(config, subscriptions);
    IpcConfig.add_command(config, "disconnect_tenants", build_disconnect_request,
                          const_cast<char*>(name), disable_response);
    run(config);
}

void get_proxy_config() {
    IpcClientConfig* config = start_transfer_agent_client();
    arm_timeout(config, agent_timeout_callback, 4);
    IpcConfig.add_command(config, "get_proxy", build_empty_request, nullptr, get_proxy_response);
    run(config);
}

void set_proxy_state(int enable) {
    IpcClientConfig* config = start_transfer_agent_client();
    arm_timeout(config, agent_timeout_callback, 4);
    IpcConfig.add_command(config, "set_proxy", build_enable_flag_request, &enable,
                          set_proxy_response);
    run(config);
}

void save_proxy_config(const char* address, const char* proxy_type) {
    if (address == nullptr || proxy_type == nullptr) {
        fail(Failure::bad_argument, "An error occurred while saving proxy configuration.\n");
    }
    IpcClientConfig* config = start_transfer_agent_client();
    ProxyRequest request{};
    char ip_address[IPV4_TEXT_SIZE] = {};
    if (Parsing.parse_ip_address_and_port(address, ip_address, &request.port) != 0) {
        fail(Failure::bad_argument, BAD_C_MESSAGE);
    }
    if (strcmp(proxy_type, "HTTP") != 0 && strcmp(proxy_type, "HTTPS") != 0 &&
        strcmp(proxy_type, "Socks5") != 0) {
        failf(Failure::bad_argument, JsonWriter(),
              "Bad format specified in t parameter. Expected proxy type. Possible values: %s, "
              "%s, %s.\n",
              "HTTP", "HTTPS", "Socks5");
    }
    snprintf(request.ip_address, sizeof request.ip_address, "%s", ip_address);
    snprintf(request.proxy_type, sizeof request.proxy_type, "%s", proxy_type);
    // The Transfer Agent knows the types in capitals only ("SOCKS5").
    Parsing.to_upper_case(request.proxy_type);
    arm_timeout(config, agent_timeout_callback, 4);
    IpcConfig.add_command(config, "save_proxy", build_save_proxy_request, &request,
                          save_proxy_response);
    run(config);
}

void set_authentication_audit_state(int enable) {
    IpcClientConfig* config = start_transfer_agent_client();
    arm_timeout(config, agent_timeout_callback, 4);
    IpcConfig.add_command(config, "set_authentication_audit", build_enable_flag_request, &enable,
                          audit_response);
    run(config);
}

// The two number messages are crossed relative to their fields (the file
// size speaks of the syslog port and the reverse); scripts match them.
void save_traceability_config(const char* target, const char* path, const char* filename_format,
                              const char* max_size, const char* address, const char* port,
                              const char* protocol) {
    if (target == nullptr) {
        fail(Failure::bad_argument, TRACEABILITY_FAILURE);
    }
    IpcClientConfig* config = start_transfer_agent_client();
    TraceabilityConfig request{};
    request.target = target;
    if (strcmp(target, "file") == 0) {
        request.path = path;
        request.filename_format = filename_format;
        if (!parse_whole_number(max_size, &request.max_size)) {
            fail(Failure::bad_argument,
                 "An error occurred while saving traceability configuration. Unable to "
                 "retrieve syslog server port.\n");
        }
    } else if (strcmp(target, "syslog") == 0) {
        request.address = address;
        request.protocol = protocol;
        if (!parse_whole_number(port, &request.port)) {
            fail(Failure::bad_argument,
                 "An error occurred while saving traceability configuration. Unable to "
                 "retrieve file max size.\n");
        }
    } else if (strcmp(target, "console") != 0) {
        fail(Failure::bad_argument,
             "An error occurred while saving traceability configuration. Unknown target.\n");
    }
    arm_timeout(config, agent_timeout_callback, 4);
    IpcConfig.add_command(config, "save_traceability_logger_config", build_traceability_request,
                          &request, traceability_response);
    run(config);
}
