#include "network/network.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "core/logger.h"

using namespace network_internal;

namespace {

bool initialized = false;
struct event_base* module_base = nullptr;
int op_port = 0;

bool is_initialized() {
    return initialized;
}

// Creates the process-wide event base that connections use by default.
int init() {
    if (initialized) {
        Logger.error("SylvLib - Network.init: Network module already initialized.");
        return 1;
    }
    module_base = CallbackEvent.new_event_base();
    if (module_base == nullptr) {
        signal(SIGPIPE, SIG_IGN);
        return -1;
    }
    initialized = true;
    return 0;
}

// Forgets the initialisation; the base stays allocated for whoever still runs it.
void deinit() {
    if (initialized) {
        initialized = false;
    }
}

struct event_base* get_event_base() {
    return module_base;
}

int get_op_port() {
    return op_port;
}

void set_op_port(int port) {
    op_port = port;
    Logger.info("Op port set to %d", port);
}

// Deletes and frees an event slot; nothing when it is empty.
void drop_event(struct event** slot) {
    if (*slot != nullptr) {
        event_del(*slot);
        event_free(*slot);
        *slot = nullptr;
    }
}

// Drops the socket and its events, then tells the protocol state. The state,
// the queues and any retry timer stay. Safe from any connection callback.
void close_connection(networkConnection* connection) {
    Logger.trace("Close connection %p", static_cast<void*>(connection));
    if (connection == nullptr) {
        return;
    }
    drop_event(&connection->read_event);
    if (connection->write_event == nullptr) {
        Logger.trace("Connection %p has not been closed because connection->write_event is NULL",
                     static_cast<void*>(connection));
    } else {
        drop_event(&connection->write_event);
        Logger.trace("connection->write_event set to NULL for connection %p",
                     static_cast<void*>(connection));
        close(connection->socket);
        connection->socket = 0;
    }
    ProtocolState* state = connection->protocol_state;
    if (state != nullptr && state->unset_callback != nullptr) {
        Logger.trace("Calling unset_callback %p on connection %p",
                     reinterpret_cast<void*>(state->unset_callback),
                     static_cast<void*>(connection));
        state->unset_callback(connection);
    }
}

// Closes the connection and frees it with its lock, queues, state and pending
// retry timer. The initial state and the config stay the caller's.
void destroy_connection(networkConnection* connection) {
    if (connection == nullptr) {
        return;
    }
    close_connection(connection);
    drop_event(&connection->retry_event);
    Mutex.destroy(connection->lock);
    DynamicBuffer.free(connection->sending_queue);
    DynamicBuffer.free(connection->receive_queue);
    free_protocol_state(connection->protocol_state);
    free(connection);
}

// New connection with no socket yet; the caller destroys it with
// destroy_connection. A failure frees a base that is not the module's own.
networkConnection* create_connection(const ProtocolState* initial_state,
                                     networkConnectionConfig* config, struct event_base* base,
                                     EventDispatcher* dispatcher) {
    if (!initialized) {
        Logger.error(
            "Network module is not initialized. Could not create a new networkConnection.");
        return nullptr;
    }
    auto* connection = static_cast<networkConnection*>(calloc(1, sizeof(networkConnection)));
    if (connection == nullptr) {
        Logger.error("Could not allocate memory");
        return nullptr;
    }
    connection->event_base = base != nullptr ? base : module_base;
    connection->initial_protocol_state = initial_state;
    connection->lock = Mutex.create();
    connection->sending_queue = DynamicBuffer.create(1);
    connection->receive_queue = DynamicBuffer.create(1);
    if (connection->lock == nullptr || connection->sending_queue == nullptr ||
        connection->receive_queue == nullptr) {
        Logger.error("Unable to allocate memory for queue");
        if (connection->event_base != module_base) {
            event_base_free(connection->event_base);
        }
        destroy_connection(connection);
        return nullptr;
    }
    connection->config = config;
    if (config != nullptr) {
        connection->remaining_attempts = config->reconnection_policy;
    }
    connection->dispatcher = dispatcher;
    return connection;
}

void set_user_data(networkConnection* connection, void* user_data) {
    if (connection != nullptr) {
        connection->user_data = user_data;
    }
}

const char* get_ip(networkConnection* connection) {
    if (connection == nullptr) {
        Logger.warn(
            "Unable to retrieve ip address for specified networkConnection. Not Initialized");
        return nullptr;
    }
    return inet_ntoa(connection->address.sin_addr);
}

uint16_t get_port(networkConnection* connection) {
    if (connection == nullptr) {
        Logger.warn("Unable to retrieve port for specified networkConnection. Not Initialized");
        return 0;
    }
    return ntohs(connection->address.sin_port);
}

// Drains the sending queue while the socket is writable. The queue work runs
// under the lock; the graceful close and the protocol state's write callback
// run after it is released, so they may call `send` without deadlocking.
void on_writable(evutil_socket_t fd, short /*what*/, void* argument) {
    auto* connection = static_cast<networkConnection*>(argument);
    Mutex.lock(connection->lock, -1);
    const uint32_t size = DynamicBuffer.size(connection->sending_queue);
    uint8_t copied = 0;
    uint8_t* block = DynamicBuffer.get_data(connection->sending_queue, &copied);
    ssize_t sent = 0;
    bool close_now = false;
    if (block == nullptr) {
        Logger.trace("Unable to get buffer from sending queue");
    } else {
        sent = size == 0 ? 0 : ::send(fd, block, size, 0);
        if (sent > 0) {
            DynamicBuffer.read(connection->sending_queue, nullptr, static_cast<uint64_t>(sent));
        } else if (size != 0) {
            Logger.trace("Network send failed");
        }
        // A dead socket stays writable; stop asking until new data comes.
        bool broken = sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR;
        if (sent == static_cast<ssize_t>(size) || broken) {
            event_del(connection->write_event);
        }
        close_now = sent == static_cast<ssize_t>(size) && connection->graceful_close_requested;
    }
    Mutex.unlock(connection->lock);
    if (copied == 1) {
        free(block);
    }
    if (close_now) {
        Network.graceful_close(connection);
    }
    ProtocolState* state = connection->protocol_state;
    if (state != nullptr && state->write_callback != nullptr) {
        state->write_callback(connection, sent);
    }
}

// Queues bytes for the write event. Refused (-1) until the connection has
// succeeded and after it closed, so nothing waits in a queue nobody drains.
int send_bytes(networkConnection* connection, const void* bytes, uint64_t length) {
    if (connection == nullptr || bytes == nullptr) {
        return -1;
    }
    Mutex.lock(connection->lock, -1);
    int result = -1;
    struct event* writer = connection->write_event;
    if (writer != nullptr && event_get_callback(writer) == on_writable &&
        DynamicBuffer.append(connection->sending_queue, bytes, length) == 0) {
        event_add(writer, nullptr);
        result = 0;
    }
    Mutex.unlock(connection->lock);
    return result;
}

// One recv() into the receive queue. Above the maximum the process stops: a
// caller asking for more has a bug that must not go unnoticed.
int64_t receive_data(networkConnection* connection, int64_t max_size) {
    if (max_size > NETWORK_RECEIVE_MAX) {
        Logger.fatal(
            "Specified max size for receive_data is %ld but max value allowed is %ld. This is a "
            "fatal error. Stopped.",
            static_cast<long>(max_size), static_cast<long>(NETWORK_RECEIVE_MAX));
        exit(1);
    }
    if (connection == nullptr || connection->protocol_state == nullptr ||
        connection->receive_queue == nullptr || max_size < 0) {
        return -2;
    }
    uint8_t buffer[NETWORK_RECEIVE_MAX];
    const ssize_t received = recv(connection->socket, buffer, static_cast<size_t>(max_size), 0);
    if (received <= 0) {
        Logger.trace("recv() failed on %s:%d. recv() returned %d", get_ip(connection),
                     static_cast<int>(get_port(connection)), static_cast<int>(received));
        Network.close_and_reconnect(connection);
        return -1;
    }
    DynamicBuffer.append(connection->receive_queue, buffer, static_cast<uint64_t>(received));
    return received;
}

// The attempt succeeded: swap the connect event for the (idle) writer, start
// reading, announce it, then let the protocol state begin.
void on_connected(networkConnection* connection) {
    Logger.info("Connection attempt to %s:%u succeeded", get_ip(connection),
                static_cast<unsigned>(connection->config->port));
    event_free(connection->write_event);
    connection->write_event = event_new(connection->event_base, connection->socket,
                                        EV_WRITE | EV_PERSIST, on_writable, connection);
    ProtocolState* state = connection->protocol_state;
    if (state != nullptr && state->read_callback != nullptr) {
        connection->read_event = event_new(connection->event_base, connection->socket,
                                           EV_READ | EV_PERSIST, state->read_callback, connection);
        event_add(connection->read_event, nullptr);
    }
    CallbackEvent.notify(connection->dispatcher, NET_EVENT_CONNECTED, connection);
    if (state != nullptr && state->setup_callback != nullptr) {
        state->setup_callback(connection);
    }
}

// The socket became writable after connect(): a zero-length send tells
// whether the connection exists (a refused connect makes it fail).
void on_connect_completed(evutil_socket_t fd, short /*what*/, void* argument) {
    auto* connection = static_cast<networkConnection*>(argument);
    CallbackEvent.notify(connection->dispatcher, NET_EVENT_CONNECT_RESULT, connection);
    if (::send(fd, "", 0, 0) == 0) {
        on_connected(connection);
        return;
    }
    Logger.debug("Connection attempt to %s:%u failed", get_ip(connection),
                 static_cast<unsigned>(connection->config->port));
    reconnect(connection);
}

// Fresh attempt state: empty queues and a new copy of the initial state.
void reset_attempt(networkConnection* connection) {
    DynamicBuffer.clear(connection->sending_queue);
    DynamicBuffer.clear(connection->receive_queue);
    free_protocol_state(connection->protocol_state);
    connection->protocol_state = copy_protocol_state(connection->initial_protocol_state);
}

// Waits for connect() on the socket. Without that event the attempt is lost,
// so it goes through the retry policy like a refused one.
void watch_connect(networkConnection* connection) {
    connection->write_event = event_new(connection->event_base, connection->socket, EV_WRITE,
                                        on_connect_completed, connection);
    Logger.trace("connection->write_event set to %p for connection %p",
                 static_cast<void*>(connection->write_event), static_cast<void*>(connection));
    if (connection->write_event == nullptr) {
        Logger.error("Unable to watch the connection attempt. Connection aborted");
        close(connection->socket);
        connection->socket = 0;
        reconnect(connection);
        return;
    }
    event_add(connection->write_event, nullptr);
    connect(connection->socket, reinterpret_cast<const sockaddr*>(&connection->address),
            sizeof(connection->address));
}

// Starts a new non-blocking attempt. When no socket can be made the
// connection is destroyed: the caller must not touch it afterwards.
void perform_connection(networkConnection* connection) {
    Logger.trace("Performing connection %p", static_cast<void*>(connection));
    if (!initialized) {
        Logger.error("Unable to perform connection. Network is not initialized");
        return;
    }
    if (connection == nullptr || connection->config == nullptr) {
        Logger.error("Connection is NULL. Unable to perform connection");
        return;
    }
    const networkConnectionConfig* config = connection->config;
    if (config->ip == nullptr) {
        Logger.warn("Provided IP address is NULL. Could not perform connection.");
        return;
    }
    close_connection(connection);
    connection->address = sockaddr_in{};
    connection->address.sin_family = AF_INET;
    connection->address.sin_addr.s_addr = inet_addr(config->ip);
    connection->address.sin_port = htons(config->port);
    const int fd = socket(AF_INET, config->socket_kind == 0 ? SOCK_STREAM : SOCK_DGRAM, 0);
    if (fd < 0) {
        Logger.error("Unable to init socket. Connection aborted");
        destroy_connection(connection);
        return;
    }
    connection->socket = fd;
    reset_attempt(connection);
    fcntl(fd, F_SETFL, fcntl(fd, F_GETFL, 0) | O_NONBLOCK);
    signal(SIGPIPE, SIG_IGN);
    if (connection->retry_event != nullptr) {
        // Fired (this may be its callback) or superseded by this attempt.
        Logger.trace("Perform connection, setting retry event %p to NULL",
                     static_cast<void*>(connection->retry_event));
        drop_event(&connection->retry_event);
    }
    watch_connect(connection);
}

// Closes, then tells the dispatcher the close is done.
void graceful_close(networkConnection* connection) {
    Logger.trace("Gracefully closing connection %p", static_cast<void*>(connection));
    close_connection(connection);
    if (connection != nullptr) {
        CallbackEvent.notify(connection->dispatcher, NET_EVENT_CLOSED, connection);
    }
}

// The retry policy closes once more, so the unset callback runs twice.
void close_and_reconnect(networkConnection* connection) {
    close_connection(connection);
    reconnect(connection);
}

// Zero-fills the record without freeing anything it points to.
void reset_connection(networkConnection* connection) {
    if (connection != nullptr) {
        memset(connection, 0, sizeof(networkConnection));
    }
}

}  // namespace

const NetworkModule Network = {
    is_initialized,
    init,
    empty_slot,
    deinit,
    get_event_base,
    get_op_port,
    set_op_port,
    create_connection,
    set_user_data,
    perform_connection,
    get_ip,
    get_port,
    send_bytes,
    receive_data,
    close_connection,
    graceful_close,
    reset_connection,
    reconnect_later,
    close_and_reconnect,
    destroy_connection,
    switch_protocol_state,
    free_protocol_state,
    reconnect,
    create_protocol_state,
    empty_slot,
    empty_slot,
    clean_retry_event,
};
