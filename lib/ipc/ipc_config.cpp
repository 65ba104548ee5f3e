// IpcConfig: the declaration of one conversation with the Transfer Agent.
#include "ipc/ipc_config.h"

#include <cstdlib>
#include <cstring>

#include "core/callback_event.h"
#include "core/logger.h"
#include "core/owned.h"

namespace {

constexpr const char* SUBSCRIPTION_COMMAND = "subscription";

// Length of a fixed-size name field, even when it fills the field without NUL.
int field_length(const char* field) {
    return static_cast<int>(strnlen(field, IPC_SUBSCRIPTION_FIELD_SIZE));
}

bool request_subscription(void* subscriptions, JsonText* data);
void subscription_response(JsonValue* data);

// New command record (malloc'd, freed with free()), or null when the name is
// missing or too long.
IpcCommand* create_command(const char* name, ExecutionCallback execution_callback, void* user_data,
                           ResponseCallback response_callback) {
    if (name == nullptr) {
        Logger.error("Cannot create IPC Command as provided command name is NULL");
        return nullptr;
    }
    // A 255-character name is refused although the message names 255.
    if (strnlen(name, IPC_COMMAND_NAME_LIMIT) >= static_cast<size_t>(IPC_COMMAND_NAME_LIMIT)) {
        Logger.error(
            "Cannot create IPC command because specified command name is too long. Allowed max "
            "size = %d",
            IPC_COMMAND_NAME_LIMIT);
        return nullptr;
    }
    auto* command = static_cast<IpcCommand*>(calloc(1, sizeof(IpcCommand)));
    if (command == nullptr) {
        Logger.fatal("Unable to allocate memory for IPC command");
        return nullptr;
    }
    memcpy(command->name, name, strlen(name));  // shorter than the zeroed field
    command->execution_callback = execution_callback;
    command->user_data = user_data;
    command->response_callback = response_callback;
    return command;
}

// New config with empty lists; `ip` is kept by pointer. Null on failure.
IpcClientConfig* create_client_ipc_config(const char* ip, uint16_t port,
                                          int32_t reconnection_policy, int32_t retry_delay) {
    if (ip == nullptr) {
        Logger.error("Unable to create client ipc config because provided ip address is NULL");
        return nullptr;
    }
    auto* config = static_cast<IpcClientConfig*>(calloc(1, sizeof(IpcClientConfig)));
    if (config == nullptr) {
        Logger.fatal("Unable to allocate memory for ipc client config.");
        return nullptr;
    }
    config->commands = LinkedList.create(nullptr);
    config->subscriptions = LinkedList.create(nullptr);
    // Both lists are checked: a config without its subscription list would
    // crash the first add_subscriptions.
    if (config->commands == nullptr || config->subscriptions == nullptr) {
        Logger.fatal("Cannot initialize ipc config");
        LinkedList.free(config->commands, nullptr);
        LinkedList.free(config->subscriptions, nullptr);
        free(config);
        return nullptr;
    }
    config->ip = ip;
    config->port = port;
    config->socket_kind = 0;
    config->reconnection_policy = reconnection_policy;
    config->retry_delay = static_cast<uint64_t>(static_cast<int64_t>(retry_delay));
    return config;
}

// Frees the command records, the held subscription records, a still armed
// time-out (the event base must still exist) and the config.
void free_ipc_config(IpcClientConfig* config) {
    if (config == nullptr) {
        return;
    }
    LinkedList.free(config->commands, free);
    LinkedList.free(config->subscriptions, free);
    drop_event(&config->timeout_event);
    free(config);
}

// Appends a command at the end of the queue; the config owns the record.
void add_command(IpcClientConfig* config, const char* name, ExecutionCallback execution_callback,
                 void* user_data, ResponseCallback response_callback) {
    if (config == nullptr) {
        Logger.error("Unable to add command. IPC config is NULL");
        return;
    }
    if (name == nullptr) {
        Logger.error("Unable to add command. Command name is NULL");
        return;
    }
    IpcCommand* command = create_command(name, execution_callback, user_data, response_callback);
    if (command == nullptr) {
        return;
    }
    if (LinkedList.add(config->commands, command) == nullptr) {
        Logger.fatal("Unable to allocate memory for IPC command");
        free(command);
    }
}

int command_has_name(ListEntry* entry, void* name) {
    const auto* command = static_cast<const IpcCommand*>(entry->item);
    return command != nullptr &&
           strncmp(command->name, static_cast<const char*>(name), IPC_COMMAND_NAME_LIMIT) == 0;
}

// First queued command with that name (compared over 255 characters).
IpcCommand* lookup_command(IpcClientConfig* config, const char* name) {
    if (config == nullptr) {
        Logger.error("Unable to lookup specified command because provided ipc config is NULL");
        return nullptr;
    }
    if (config->commands == nullptr) {
        Logger.error("Unable to lookup specified command because provided command list is NULL");
        return nullptr;
    }
    if (name == nullptr) {
        Logger.error("Unable to lookup specified command because provided command name is NULL");
        return nullptr;
    }
    ListEntry* entry = LinkedList.find(config->commands, command_has_name, const_cast<char*>(name));
    return entry != nullptr ? static_cast<IpcCommand*>(entry->item) : nullptr;
}

int subscription_matches(ListEntry* entry, void* wanted) {
    const auto* held = static_cast<const SubscriptionRequest*>(entry->item);
    const auto* other = static_cast<const SubscriptionRequest*>(wanted);
    return held != nullptr &&
           strncmp(held->subscription_name, other->subscription_name,
                   IPC_SUBSCRIPTION_FIELD_SIZE) == 0 &&
           strncmp(held->event_name, other->event_name, IPC_SUBSCRIPTION_FIELD_SIZE) == 0;
}

// First held subscription equal in both names, or null.
SubscriptionRequest* lookup_subscription(IpcClientConfig* config,
                                         const SubscriptionRequest* subscription) {
    if (config == nullptr) {
        Logger.error("Unable to lookup specified subscription because provided ipc config is NULL");
        return nullptr;
    }
    if (subscription == nullptr) {
        Logger.error(
            "Unable to lookup specified subscription because provided subscription  is NULL");
        return nullptr;
    }
    ListEntry* entry = LinkedList.find(config->subscriptions, subscription_matches,
                                       const_cast<SubscriptionRequest*>(subscription));
    return entry != nullptr ? static_cast<SubscriptionRequest*>(entry->item) : nullptr;
}

// Takes every record of `list` not already held (the config then owns it;
// a skipped duplicate stays the caller's), then queues the "subscription"
// request. The caller keeps and frees `list` itself, without destructor.
void add_subscriptions(IpcClientConfig* config, List* list) {
    if (config == nullptr) {
        Logger.error("Unable to add subscription. IPC config is NULL");
        return;
    }
    if (list == nullptr) {
        Logger.error("Unable to add subscription. Subscription list is NULL");
        return;
    }
    for (ListEntry* entry = list->head; entry != nullptr; entry = entry->next) {
        auto* subscription = static_cast<SubscriptionRequest*>(entry->item);
        if (subscription == nullptr) {
            continue;
        }
        if (lookup_subscription(config, subscription) != nullptr) {
            Logger.warn(
                "Unable to add subscription %.*s with command %.*s. This subscription is already "
                "in the list",
                field_length(subscription->subscription_name), subscription->subscription_name,
                field_length(subscription->event_name), subscription->event_name);
            continue;
        }
        if (LinkedList.add(config->subscriptions, subscription) == nullptr) {
            Logger.error("Unable to add subscription %.*s. Subscription list is unavailable",
                         field_length(subscription->subscription_name),
                         subscription->subscription_name);
        }
    }
    add_command(config, SUBSCRIPTION_COMMAND, request_subscription, config->subscriptions,
                subscription_response);
}

// Arms the conversation's one-shot time-out; a config gets one in its life.
int set_timeout(IpcClientConfig* config, struct event_base* base, event_callback_fn callback,
                void* argument, int64_t seconds) {
    if (config == nullptr) {
        Logger.error("Unable to set timeout for null ipc config");
        return IPC_ERR_FAILED;
    }
    if (base == nullptr) {
        Logger.error("Unable to set timeout on ipc config because provided event base is null");
        return IPC_ERR_FAILED;
    }
    if (config->timeout_event != nullptr) {
        Logger.error("Unable to set timeout as a timeout is already set on this ipc config");
        return IPC_ERR_FAILED;
    }
    struct event* timer = CallbackEvent.set_timer(base, callback, argument, seconds, 0, false);
    if (timer == nullptr) {
        Logger.error("Could not set timeout event on IPC config");
        return IPC_ERR_FAILED;
    }
    config->timeout_event = timer;
    return IPC_OK;
}

// {"subscriptions": [every held subscription_name, in order]}, written at
// the end of the caller's `data`. Runs when the request is sent, so it lists
// every subscription held by then.
bool request_subscription(void* subscriptions, JsonText* data) {
    auto* list = static_cast<List*>(subscriptions);
    if (list == nullptr) {
        Logger.error("Unable to request subscription: subscription list is NULL");
        return false;
    }
    json_text_raw(data, "{\"subscriptions\":[");
    const char* separator = "";
    for (ListEntry* entry = list->head; entry != nullptr; entry = entry->next) {
        const auto* subscription = static_cast<const SubscriptionRequest*>(entry->item);
        if (subscription != nullptr) {
            char name[IPC_SUBSCRIPTION_FIELD_SIZE + 1] = {};
            memcpy(name, subscription->subscription_name,
                   static_cast<size_t>(field_length(subscription->subscription_name)));
            json_text_raw(data, separator);
            json_text_string(data, name);
            separator = ",";
        }
    }
    json_text_raw(data, "]}");
    return true;
}

// The answer lists each subscription's result; nothing here acts on it.
void subscription_response(JsonValue* /*data*/) {}

}  // namespace

const IpcConfigModule IpcConfig = {
    .create_client_ipc_config = create_client_ipc_config,
    .free_ipc_config = free_ipc_config,
    .add_command = add_command,
    .lookup_command = lookup_command,
    .add_subscriptions = add_subscriptions,
    .set_timeout = set_timeout,
    .lookup_subscription = lookup_subscription,
    .request_subscription = request_subscription,
    .subscription_response = subscription_response,
};
