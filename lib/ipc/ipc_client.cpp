// IpcClient: announces itself, runs the command queue one request at a time
// and routes events to the held subscriptions.
#include "ipc/ipc_client.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "core/logger.h"
#include "core/no_throw.h"
#include "core/owned.h"
#include "core/random_bytes.h"
#include "websocket/websocket_client.h"

namespace {

constexpr const char* ANNOUNCEMENT = "{\"command\": \"connection\", \"id\": 17}";
constexpr const char* EVICTION_COMMAND = "please_disconnect";
constexpr size_t RECEIVED_COMMAND_SIZE = 50;
constexpr const char* BAD_MESSAGE = "Received a bad Json formatted message from server";
constexpr const char* MISSING_DATA =
    "Failed to retrieve data from response in receive_message_callback()";

struct JsonDeleter {
    void operator()(JsonValue* value) const { json_free_value(value); }
};
using JsonPtr = std::unique_ptr<JsonValue, JsonDeleter>;

IpcClientConfig* config_of(networkConnection* connection) {
    // The connection was created with an IpcClientConfig as its settings.
    return static_cast<IpcClientConfig*>(connection->config);
}

bool is_empty(List* list) {
    return LinkedList.size(list) == 0;
}

IpcCommand* head_command(IpcClientConfig* config) {
    return static_cast<IpcCommand*>(config->commands->head->item);
}

// A caller's callback; what it throws is logged.
void run_callback(ResponseCallback callback, JsonValue* data) {
    without_throwing("IpcClient response callback", 0, [&] {
        callback(data);
        return 0;
    });
}

// Raises IPC_EVENT_DISCONNECTED, then closes the WebSocket connection. The
// running protocol state is freed here: callers inside a read callback return
// at once.
void ipc_client_disconnect(networkConnection* connection) {
    if (connection == nullptr) {
        Logger.error("Unable to disconnect IPC client because provided connection is NULL");
        return;
    }
    CallbackEvent.notify(connection->dispatcher, IPC_EVENT_DISCONNECTED, connection);
    WebSocketClient.close_websocket_connection(connection);
}

// Sends a request's text, unless it did not fit the envelope. 0, or -1
// (nothing sent).
int send_request(networkConnection* connection, const JsonText* text) {
    if (text->failed) {
        Logger.fatal("Unable to serialized request. Stopped connection");
        return IPC_ERR_FAILED;
    }
    Logger.debug("Sending request %s", text->buffer);
    if (WebSocketClient.send_text(connection, text->buffer, text->length) < 0) {
        // The command stays pending; the conversation's time-out settles it.
        Logger.error("Unable to send IPC request");
    }
    return IPC_OK;
}

// Sends the request of the head command with a fresh id, its text written in
// place: {"command":...,"id":...,"data":...}, "data" left out when the
// builder has none. The record stays at the head until a message for it
// arrives. 0, or -1 (nothing sent).
int execute_command(networkConnection* connection, IpcClientConfig* config) {
    if (connection == nullptr || config == nullptr || is_empty(config->commands)) {
        return IPC_ERR_FAILED;
    }
    IpcCommand* command = head_command(config);  // add_command never queues null
    if (command->execution_callback == nullptr) {
        Logger.fatal("IPC client command execution callback is NULL. This should not happen");
        return IPC_ERR_FAILED;
    }
    command->id = Random.next() % IPC_ID_RANGE;
    char buffer[IPC_REQUEST_CHECK_SIZE];
    JsonText text;
    json_text_start(&text, buffer, sizeof buffer);
    json_text_raw(&text, "{\"command\":");
    json_text_string(&text, command->name);
    json_text_raw(&text, ",\"id\":");
    json_text_int(&text, command->id);
    const size_t without_data = text.length;  // the name is short: nothing failed yet
    json_text_raw(&text, ",\"data\":");
    if (!without_throwing<bool>("IpcClient.execute_command", false, [command, &text] {
            return command->execution_callback(command->user_data, &text);
        })) {
        json_text_cut(&text, without_data);
    }
    json_text_raw(&text, "}");
    return send_request(connection, &text);
}

// Framing is up: announce, then send the head command without waiting.
void connection_established_callback(networkConnection* connection) {
    if (connection == nullptr || connection->config == nullptr) {
        return;
    }
    Logger.debug("Sending the announcement %s", ANNOUNCEMENT);
    WebSocketClient.send_text(connection, IPC_ANNOUNCEMENT_WIRE, strlen(IPC_ANNOUNCEMENT_WIRE));
    if (execute_command(connection, config_of(connection)) != IPC_OK) {
        ipc_client_disconnect(connection);
    }
}

void disconnected_callback(networkConnection* connection) {
    if (connection == nullptr) {
        return;
    }
    CallbackEvent.notify(connection->dispatcher, IPC_EVENT_DISCONNECTED, connection);
}

int subscription_has_event(ListEntry* entry, void* command) {
    const auto* held = static_cast<const SubscriptionRequest*>(entry->item);
    return held != nullptr && strncmp(held->event_name, static_cast<const char*>(command),
                                      IPC_SUBSCRIPTION_FIELD_SIZE) == 0;
}

// What one received message came to.
enum class Outcome {
    Handled,  // an event delivered, or nothing pending: the queue stays
    Unread,   // no memory to read it: the queue stays, the time-out settles it
    Evicted,  // "please_disconnect": the connection is already closed
    Consumed  // the pending command is settled, well or badly
};

// Whether the json_* calls since errno was cleared failed for want of memory:
// the message is then unread, not bad, and must not settle the command as if
// the agent had sent garbage.
bool out_of_memory() {
    if (errno != ENOMEM) {
        return false;
    }
    Logger.error("Unable to allocate memory for a received IPC message");
    return true;
}

// Matches a response with the head command and runs its callback.
Outcome handle_response(networkConnection* connection, const JsonValue* message,
                        const char* command_name, int id) {
    IpcClientConfig* config = config_of(connection);
    if (strcmp(command_name, EVICTION_COMMAND) == 0) {
        CallbackEvent.notify(connection->dispatcher, IPC_EVENT_PLEASE_DISCONNECT, connection);
        ipc_client_disconnect(connection);
        return Outcome::Evicted;
    }
    if (is_empty(config->commands)) {
        return Outcome::Handled;
    }
    IpcCommand* command = head_command(config);
    if (strcmp(command_name, command->name) != 0) {
        Logger.error(
            "We received a command that does not correspond to the expected. Expected: %s. "
            "Received: %s",
            command->name, command_name);
    } else if (id != command->id) {
        Logger.error("Received a bad id in response. Expected: %d and got %d", command->id, id);
    } else if (command->response_callback == nullptr) {
        Logger.fatal("IPC client command execution response is NULL. This should not happen");
    } else {
        errno = 0;
        JsonPtr data(json_get_json_value(message, "data"));
        if (data == nullptr && out_of_memory()) {
            return Outcome::Unread;
        }
        if (data == nullptr) {
            Logger.error("%s", MISSING_DATA);
        } else {
            run_callback(command->response_callback, data.get());
        }
    }
    return Outcome::Consumed;
}

// Routes a message without id (or with a negative one): to its
// subscription's callback, or handled as a response when it has none.
Outcome handle_event(networkConnection* connection, const JsonValue* message,
                     const char* command_name, int id) {
    IpcClientConfig* config = config_of(connection);
    ListEntry* entry = LinkedList.find(config->subscriptions, subscription_has_event,
                                       const_cast<char*>(command_name));
    if (entry == nullptr) {
        Logger.error("%s", BAD_MESSAGE);
        return Outcome::Consumed;
    }
    const auto* subscription = static_cast<const SubscriptionRequest*>(entry->item);
    if (subscription->callback == nullptr) {
        return handle_response(connection, message, command_name, id);
    }
    errno = 0;
    JsonPtr data(json_get_json_value(message, "data"));
    if (data == nullptr) {
        if (out_of_memory()) {
            return Outcome::Unread;
        }
        Logger.error("%s", MISSING_DATA);
        return Outcome::Consumed;
    }
    run_callback(subscription->callback, data.get());
    return Outcome::Handled;
}

Outcome handle_message(networkConnection* connection, const char* text_message,
                       char (&command_name)[RECEIVED_COMMAND_SIZE]) {
    errno = 0;
    // The message outlives every value taken from it: each is released
    // before receive_message returns, and callbacks copy what they keep.
    JsonPtr message(json_parse_in_place(text_message));
    if (message == nullptr ||
        json_get_string_value(message.get(), "command", command_name, RECEIVED_COMMAND_SIZE) < 0) {
        if (out_of_memory()) {
            return Outcome::Unread;
        }
        Logger.error("%s", BAD_MESSAGE);
        return Outcome::Consumed;
    }
    int id = json_get_int_value(message.get(), "id");
    if (id < 0) {
        return handle_event(connection, message.get(), command_name, id);
    }
    return handle_response(connection, message.get(), command_name, id);
}

// The pending command is settled: drop it and send the next one, or end the
// conversation when nothing is left to wait for.
void advance_queue(networkConnection* connection) {
    IpcClientConfig* config = config_of(connection);
    ListEntry* head = LinkedList.pop_first(config->commands);
    if (head != nullptr) {
        free(head->item);
        free(head);
    }
    if (is_empty(config->commands) && is_empty(config->subscriptions)) {
        drop_event(&config->timeout_event);
        ipc_client_disconnect(connection);
        return;
    }
    // With subscriptions held and no command left, the connection stays open.
    if (execute_command(connection, config) != IPC_OK && is_empty(config->subscriptions)) {
        ipc_client_disconnect(connection);
    }
}

// One complete message from the framing layer, followed by a NUL: it is
// parsed in place, not copied. Any message that is not a delivered event
// settles the pending command, even a malformed or mismatched one. Callbacks
// run from here may call exit().
void receive_message(networkConnection* connection, const uint8_t* bytes) {
    if (connection == nullptr || connection->config == nullptr || bytes == nullptr) {
        return;
    }
    Logger.debug("Received message %s", reinterpret_cast<const char*>(bytes));
    char command_name[RECEIVED_COMMAND_SIZE] = {};
    Outcome outcome =
        handle_message(connection, reinterpret_cast<const char*>(bytes), command_name);
    if (outcome != Outcome::Consumed) {
        return;
    }
    Logger.info("Executed command %s", command_name);
    advance_queue(connection);
}

void receive_message_callback(networkConnection* connection, const uint8_t* bytes,
                              uint64_t /*length*/, int /*is_binary*/) {
    without_throwing("IpcClient.receive_message_callback", 0, [&] {
        receive_message(connection, bytes);
        return 0;
    });
}

// Sets the WebSocket callbacks and creates the connection; does not connect.
networkConnection* instantiate_ipc_client(IpcClientConfig* config, struct event_base* base,
                                          EventDispatcher* dispatcher) {
    if (config == nullptr) {
        Logger.error("Unable to instantiate IPC client because provided ipc config is NULL");
        return nullptr;
    }
    // The connection copies its initial state at each attempt and keeps only
    // a pointer to this one: one template lives for the whole process.
    static ProtocolState* handshake = nullptr;
    if (handshake == nullptr) {
        handshake = WebSocketClient.create_websocket_client_handshake_state();
    }
    if (handshake == nullptr) {
        Logger.error("Unable to instantiate IPC client because the handshake state is missing");
        return nullptr;
    }
    static const WebSocketCallbacks callbacks = {
        .on_connected = connection_established_callback,
        .on_message = receive_message_callback,
        .on_disconnect = disconnected_callback,
    };
    WebSocketClient.set_callbacks(config, &callbacks);
    networkConnection* connection = Network.create_connection(handshake, config, base, dispatcher);
    if (connection == nullptr) {
        Logger.error("Unable to instantiate IPC client because its connection cannot be created");
    }
    return connection;
}

}  // namespace

const IpcClientModule IpcClient = {
    .instantiate_ipc_client = instantiate_ipc_client,
    .connection_established_callback = connection_established_callback,
    .receive_message_callback = receive_message_callback,
    .disconnected_callback = disconnected_callback,
    .execute_command = execute_command,
    .ipc_client_disconnect = ipc_client_disconnect,
};
