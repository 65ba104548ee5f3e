#include "network/network.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>

#include "core/logger.h"
#include "network/network_internal.h"

// What receive_ahead read past its caller's request: bytes[start, end).
struct ReadAhead {
    uint32_t start;
    uint32_t end;
    uint8_t bytes[NETWORK_RECEIVE_MAX];
};

namespace network_internal {

int watch_reads(networkConnection* connection) {
    const ProtocolState* state = connection->protocol_state;
    connection->read_event = event_new(connection->event_base, connection->socket,
                                       EV_READ | EV_PERSIST, state->read_callback, connection);
    if (connection->read_event == nullptr || event_add(connection->read_event, nullptr) != 0) {
        Logger.error("Unable to watch connection %p for incoming data",
                     static_cast<void*>(connection));
        drop_event(&connection->read_event);
        return -1;
    }
    return 0;
}

}  // namespace network_internal

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
        return NETWORK_ALREADY_INITIALIZED;
    }
    module_base = CallbackEvent.new_event_base();
    if (module_base == nullptr) {
        Logger.error("Unable to create the event base of the Network module");
        return NETWORK_ERR_FAILED;
    }
    initialized = true;
    return NETWORK_OK;
}

// Forgets the initialisation; the base stays allocated for whoever still runs it.
void deinit() {
    initialized = false;
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

}  // namespace

namespace network_internal {

// Drops the socket and its events, then tells the protocol state. The state,
// the queues and any retry timer stay. Safe from any connection callback.
void close_connection(networkConnection* connection) {
    Logger.trace("Close connection %p", static_cast<void*>(connection));
    if (connection == nullptr) {
        return;
    }
    drop_event(&connection->read_event);
    drop_event(&connection->write_event);
    if (connection->read_ahead != nullptr) {
        connection->read_ahead->start = connection->read_ahead->end = 0;  // this socket's
    }
    if (connection->state == NETWORK_CONNECTING || connection->state == NETWORK_CONNECTED) {
        close(connection->socket);
        connection->socket = -1;
        connection->state = NETWORK_CLOSED;
    } else {
        Logger.trace("Connection %p has not been closed because it has no socket",
                     static_cast<void*>(connection));
    }
    ProtocolState* state = connection->protocol_state;
    if (state != nullptr && state->unset_callback != nullptr) {
        Logger.trace("Calling unset_callback %p on connection %p",
                     reinterpret_cast<void*>(state->unset_callback),
                     static_cast<void*>(connection));
        state->unset_callback(connection);
    }
}

}  // namespace network_internal

namespace {

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
    free(connection->read_ahead);
    free(connection);
}

// New idle connection with no socket; the caller destroys it with
// destroy_connection.
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
    connection->state = NETWORK_IDLE;
    connection->socket = -1;
    connection->event_base = base != nullptr ? base : module_base;
    connection->initial_protocol_state = initial_state;
    connection->lock = Mutex.create();
    connection->sending_queue = DynamicBuffer.create(1);
    connection->receive_queue = DynamicBuffer.create(1);
    if (connection->lock == nullptr || connection->sending_queue == nullptr ||
        connection->receive_queue == nullptr) {
        Logger.error("Unable to allocate memory for queue");
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

// The address as inet_ntoa writes it, without its printf: the log lines that
// name it evaluate it even when they are off. The text lives in a static
// buffer until the next call.
const char* get_ip(networkConnection* connection) {
    if (connection == nullptr) {
        Logger.warn(
            "Unable to retrieve ip address for specified networkConnection. Not Initialized");
        return nullptr;
    }
    static char text[sizeof "255.255.255.255"];
    const uint32_t address = ntohl(connection->address.sin_addr.s_addr);
    char* out = text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const unsigned octet = (address >> shift) & 0xff;
        if (octet >= 100) {
            *out++ = static_cast<char>('0' + octet / 100);
        }
        if (octet >= 10) {
            *out++ = static_cast<char>('0' + octet / 10 % 10);
        }
        *out++ = static_cast<char>('0' + octet % 10);
        *out++ = shift != 0 ? '.' : '\0';
    }
    return text;
}

uint16_t get_port(networkConnection* connection) {
    if (connection == nullptr) {
        Logger.warn("Unable to retrieve port for specified networkConnection. Not Initialized");
        return 0;
    }
    return ntohs(connection->address.sin_port);
}

// A lost connection: closes it and lets the retry policy decide. The unset
// callback runs twice (here and in the policy's own close).
void close_and_reconnect(networkConnection* connection) {
    close_connection(connection);
    reconnect(connection);
}

// One send() of everything queued, under the lock. Returns what send()
// returned (0 for an empty queue); *error receives errno when the socket is
// dead, 0 otherwise.
ssize_t send_queued(networkConnection* connection, evutil_socket_t fd, int* error) {
    Mutex.lock(connection->lock, -1);
    const uint32_t size = DynamicBuffer.size(connection->sending_queue);
    uint8_t copied = 0;
    uint8_t* block = DynamicBuffer.get_data(connection->sending_queue, &copied);
    ssize_t sent = 0;
    if (block == nullptr) {
        Logger.trace("Unable to get buffer from sending queue");
    } else {
        sent = size == 0 ? 0 : ::send(fd, block, size, 0);
        if (sent > 0) {
            DynamicBuffer.read(connection->sending_queue, nullptr, static_cast<uint64_t>(sent));
        } else if (size != 0) {
            Logger.trace("Network send failed");
        }
        const bool dead = sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR;
        *error = dead ? errno : 0;
        if (sent == static_cast<ssize_t>(size)) {
            event_del(connection->write_event);  // drained: stop asking
        } else if (!dead && event_add(connection->write_event, nullptr) != 0) {
            // Bytes left with nothing to send them: drop, as a dead socket.
            Logger.error("Unable to watch connection %p for writing",
                         static_cast<void*>(connection));
            *error = EIO;
        }
    }
    Mutex.unlock(connection->lock);
    if (copied == 1) {
        free(block);
    }
    return sent;
}

// Drains the sending queue while the socket is writable. The protocol state's
// write callback runs after the lock is released, so it may call `send`. A
// dead socket stays writable: rather than spin on it, or stop with bytes
// queued that nothing would send, the connection is dropped and the retry
// policy runs (a new attempt starts over from the handshake).
void on_writable(evutil_socket_t fd, short /*what*/, void* argument) {
    auto* connection = static_cast<networkConnection*>(argument);
    int error = 0;
    const ssize_t sent = send_queued(connection, fd, &error);
    ProtocolState* state = connection->protocol_state;
    if (state != nullptr && state->write_callback != nullptr) {
        state->write_callback(connection, sent);
    }
    if (error != 0) {
        Logger.error("Unable to send on connection %p: %s. Connection dropped",
                     static_cast<void*>(connection), strerror(error));
        close_and_reconnect(connection);
    }
}

// Queues bytes for the write event. Refused until the connection has
// succeeded and after it closed, so nothing waits in a queue nobody drains.
// Bytes queued while the write event is idle make it active, so the loop
// sends them on its next round without polling the socket first (the
// socket nearly always has room); it is watched only once a send falls
// short. Everything queued before that round leaves in one send().
int send_bytes(networkConnection* connection, const void* bytes, uint64_t length) {
    if (connection == nullptr || bytes == nullptr) {
        return NETWORK_ERR_FAILED;
    }
    Mutex.lock(connection->lock, -1);
    int result = NETWORK_ERR_FAILED;
    if (connection->state != NETWORK_CONNECTED) {
        Logger.trace("Connection %p is not connected: nothing queued",
                     static_cast<void*>(connection));
    } else if (DynamicBuffer.append(connection->sending_queue, bytes, length) != 0) {
        Logger.error("Unable to queue %llu bytes on connection %p",
                     static_cast<unsigned long long>(length), static_cast<void*>(connection));
    } else {
        if (!event_pending(connection->write_event, EV_WRITE, nullptr)) {
            event_active(connection->write_event, EV_WRITE, 0);
        }
        result = NETWORK_OK;
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
        return NETWORK_ERR_INCOMPLETE;
    }
    uint8_t buffer[NETWORK_RECEIVE_MAX];
    const ssize_t received = recv(connection->socket, buffer, static_cast<size_t>(max_size), 0);
    if (received <= 0) {
        Logger.trace("recv() failed on %s:%d. recv() returned %d", get_ip(connection),
                     static_cast<int>(get_port(connection)), static_cast<int>(received));
        close_and_reconnect(connection);
        return NETWORK_ERR_FAILED;
    }
    if (DynamicBuffer.append(connection->receive_queue, buffer, static_cast<uint64_t>(received)) !=
        0) {
        Logger.error("Unable to queue %d received bytes. Connection dropped",
                     static_cast<int>(received));
        close_and_reconnect(connection);
        return NETWORK_ERR_FAILED;
    }
    return received;
}

// recv() of up to `room` bytes straight into the receive queue's storage.
// The result (0 or less: closed or failed) stays for the caller's log.
struct Reception {
    int socket;
    bool tried;
    ssize_t received;
};

int64_t receive_into(void* context, uint8_t* into, uint64_t room) {
    auto* reception = static_cast<Reception*>(context);
    reception->tried = true;
    reception->received = recv(reception->socket, into, room, 0);
    return reception->received;
}

// Hands out up to max_size kept bytes into the receive queue: their count,
// 0 when none are kept, NETWORK_ERR_FAILED (connection dropped) when the
// queue cannot take them.
int64_t hand_out_kept(networkConnection* connection, int64_t max_size) {
    ReadAhead* ahead = connection->read_ahead;
    if (ahead == nullptr || ahead->start == ahead->end || max_size <= 0) {
        return 0;
    }
    const uint32_t count =
        static_cast<uint32_t>(std::min<int64_t>(max_size, ahead->end - ahead->start));
    if (DynamicBuffer.append(connection->receive_queue, ahead->bytes + ahead->start, count) != 0) {
        Logger.error("Unable to queue %d received bytes. Connection dropped",
                     static_cast<int>(count));
        close_and_reconnect(connection);
        return NETWORK_ERR_FAILED;
    }
    ahead->start += count;
    return count;
}

// receive_data through the read-ahead: kept bytes first, else one recv() of
// a whole NETWORK_RECEIVE_MAX into it. Without room for it (allocation
// failure), a plain receive_data.
int64_t receive_ahead(networkConnection* connection, int64_t max_size) {
    if (max_size > NETWORK_RECEIVE_MAX || max_size <= 0 || connection == nullptr ||
        connection->protocol_state == nullptr || connection->receive_queue == nullptr) {
        return receive_data(connection, max_size);  // its checks, its results
    }
    if (connection->read_ahead == nullptr) {
        connection->read_ahead = static_cast<ReadAhead*>(malloc(sizeof(ReadAhead)));
        if (connection->read_ahead == nullptr) {
            return receive_data(connection, max_size);
        }
        connection->read_ahead->start = connection->read_ahead->end = 0;
    }
    ReadAhead* ahead = connection->read_ahead;
    if (ahead->start == ahead->end) {
        const ssize_t received = recv(connection->socket, ahead->bytes, sizeof ahead->bytes, 0);
        if (received <= 0) {
            Logger.trace("recv() failed on %s:%d. recv() returned %d", get_ip(connection),
                         static_cast<int>(get_port(connection)), static_cast<int>(received));
            close_and_reconnect(connection);
            return NETWORK_ERR_FAILED;
        }
        ahead->start = 0;
        ahead->end = static_cast<uint32_t>(received);
    }
    return hand_out_kept(connection, max_size);
}

uint64_t kept_ahead(const networkConnection* connection) {
    const ReadAhead* ahead = connection != nullptr ? connection->read_ahead : nullptr;
    return ahead != nullptr ? ahead->end - ahead->start : 0;
}

// A payload's bytes, as many as the socket holds up to max_size, in one
// recv() straight into the receive queue: no stack buffer, no copy, and a
// payload of megabytes takes a handful of loop rounds instead of one per
// 4096 bytes. When the queue has no run of max_size free bytes, one
// receive_data of at most NETWORK_RECEIVE_MAX instead. Bytes receive_ahead
// kept come first, without a recv().
int64_t receive_payload(networkConnection* connection, int64_t max_size) {
    if (connection == nullptr || connection->protocol_state == nullptr ||
        connection->receive_queue == nullptr || max_size < 0) {
        return NETWORK_ERR_INCOMPLETE;
    }
    if (kept_ahead(connection) != 0) {
        return hand_out_kept(connection, max_size);
    }
    Reception reception{connection->socket, false, 0};
    const int64_t received = DynamicBuffer.append_in_place(
        connection->receive_queue, static_cast<uint64_t>(max_size), receive_into, &reception);
    if (received > 0) {
        return received;
    }
    if (!reception.tried) {
        return receive_data(connection, std::min(max_size, NETWORK_RECEIVE_MAX));
    }
    // Closed outside append_in_place: the state's unset callback may use the queue.
    Logger.trace("recv() failed on %s:%d. recv() returned %d", get_ip(connection),
                 static_cast<int>(get_port(connection)), static_cast<int>(reception.received));
    close_and_reconnect(connection);
    return NETWORK_ERR_FAILED;
}

// The attempt succeeded: swap the connect event for the (idle) writer, start
// reading, announce it, then let the protocol state begin. Without its
// events the connection is useless: the retry policy takes over.
void on_connected(networkConnection* connection) {
    if (Logger.enabled(LOG_INFO)) {
        Logger.info("Connection attempt to %s:%u succeeded", get_ip(connection),
                    static_cast<unsigned>(connection->config->port));
    }
    drop_event(&connection->write_event);
    connection->state = NETWORK_CONNECTED;
    connection->write_event = event_new(connection->event_base, connection->socket,
                                        EV_WRITE | EV_PERSIST, on_writable, connection);
    ProtocolState* state = connection->protocol_state;
    const bool reads = state != nullptr && state->read_callback != nullptr;
    if (connection->write_event == nullptr || (reads && watch_reads(connection) != 0)) {
        Logger.error("Unable to create the events of connection %p. Connection dropped",
                     static_cast<void*>(connection));
        reconnect(connection);
        return;
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
    if (Logger.enabled(LOG_INFO)) {
        Logger.info("Connection attempt to %s:%u failed: %s", get_ip(connection),
                    static_cast<unsigned>(connection->config->port), strerror(errno));
    }
    reconnect(connection);
}

// Fresh attempt state: empty queues and a new copy of the initial state.
void reset_attempt(networkConnection* connection) {
    DynamicBuffer.clear(connection->sending_queue);
    DynamicBuffer.clear(connection->receive_queue);
    free_protocol_state(connection->protocol_state);
    connection->protocol_state = copy_protocol_state(connection->initial_protocol_state);
}

// Waits for connect() on the socket. 0, or -1 (logged) when it cannot.
int watch_connect(networkConnection* connection) {
    connection->write_event = event_new(connection->event_base, connection->socket, EV_WRITE,
                                        on_connect_completed, connection);
    Logger.trace("connection->write_event set to %p for connection %p",
                 static_cast<void*>(connection->write_event), static_cast<void*>(connection));
    if (connection->write_event == nullptr || event_add(connection->write_event, nullptr) != 0) {
        Logger.error("Unable to watch the connection attempt. Connection aborted");
        return -1;
    }
    connect(connection->socket, reinterpret_cast<const sockaddr*>(&connection->address),
            sizeof(connection->address));
    return 0;
}

}  // namespace

namespace network_internal {

// Starts a new non-blocking attempt. One that cannot start counts as a
// failed attempt: the retry policy decides, and the caller keeps the
// connection.
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
    // Fired (this may be its callback) or superseded by this attempt.
    drop_event(&connection->retry_event);
    connection->address = sockaddr_in{};
    connection->address.sin_family = AF_INET;
    connection->address.sin_addr.s_addr = inet_addr(config->ip);
    connection->address.sin_port = htons(config->port);
    // Non-blocking from the start: no fcntl round trip.
    const int kind = config->socket_kind == 0 ? SOCK_STREAM : SOCK_DGRAM;
    const int fd = socket(AF_INET, kind | SOCK_NONBLOCK, 0);
    if (fd < 0) {
        Logger.error("Unable to init socket: %s. Connection aborted", strerror(errno));
        reconnect(connection);
        return;
    }
    Logger.info("Connecting to %s:%u", config->ip, static_cast<unsigned>(config->port));
    connection->socket = fd;
    connection->state = NETWORK_CONNECTING;
    reset_attempt(connection);
    signal(SIGPIPE, SIG_IGN);
    if (connection->protocol_state == nullptr && connection->initial_protocol_state != nullptr) {
        Logger.error("Unable to copy the initial protocol state. Connection aborted");
        reconnect(connection);
        return;
    }
    if (watch_connect(connection) != 0) {
        reconnect(connection);
    }
}

}  // namespace network_internal

namespace {

// Closes, then tells the dispatcher the close is done.
void graceful_close(networkConnection* connection) {
    Logger.trace("Gracefully closing connection %p", static_cast<void*>(connection));
    close_connection(connection);
    if (connection != nullptr) {
        CallbackEvent.notify(connection->dispatcher, NET_EVENT_CLOSED, connection);
    }
}

// Empties the record without freeing anything it points to.
void reset_connection(networkConnection* connection) {
    if (connection != nullptr) {
        *connection = networkConnection{};
        connection->socket = -1;
    }
}

}  // namespace

const NetworkModule Network = {
    .is_initialized = is_initialized,
    .init = init,
    .unused = empty_slot,
    .deinit = deinit,
    .get_event_base = get_event_base,
    .get_op_port = get_op_port,
    .set_op_port = set_op_port,
    .create_connection = create_connection,
    .set_user_data = set_user_data,
    .perform_connection = perform_connection,
    .get_ip = get_ip,
    .get_port = get_port,
    .send = send_bytes,
    .receive_data = receive_data,
    .close_connection = close_connection,
    .graceful_close = graceful_close,
    .reset_connection = reset_connection,
    .reconnect_later = reconnect_later,
    .close_and_reconnect = close_and_reconnect,
    .destroy_connection = destroy_connection,
    .switch_protocol_state = switch_protocol_state,
    .free_protocol_state = free_protocol_state,
    .reconnect = reconnect,
    .create_protocol_state = create_protocol_state,
    .unused_2 = empty_slot,
    .unused_3 = empty_slot,
    .clean_retry_event = clean_retry_event,
    .receive_payload = receive_payload,
    .receive_ahead = receive_ahead,
    .kept_ahead = kept_ahead,
};
