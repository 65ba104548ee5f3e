// Network: outbound TCP connections on the libevent loop.
//
// A connection wraps one non-blocking socket, its read, write and retry
// events, a sending and a receive queue, the current protocol state and the
// reconnection settings. The layers above reach the socket only through this
// module. Connection events go to the connection's dispatcher with the
// connection as data (NET_EVENT_* below).
//
// Everything runs on the loop's thread. Sending only queues: the write event
// drains the queue when the socket is writable, and exists (is added) only
// while data is queued.
#pragma once

#include <event2/event.h>
#include <netinet/in.h>

#include <cstdint>

#include "core/callback_event.h"
#include "core/dynamic_buffer.h"
#include "core/module.h"
#include "core/mutex.h"
#include "network/protocol_state.h"

// Dispatcher identifiers raised by this module, with the connection as data.
enum NetworkEvent : uint32_t {
    NET_EVENT_CONNECT_RESULT = 1,     // an attempt finished, either way
    NET_EVENT_CONNECTED = 2,          // the socket is connected
    NET_EVENT_RECONNECTING = 3,       // a retry is scheduled
    NET_EVENT_CONNECTION_FAILED = 4,  // no attempt left
    NET_EVENT_CLOSED = 5,             // graceful_close ran
};

// Largest count receive_data accepts; more ends the process.
constexpr int64_t NETWORK_RECEIVE_MAX = 4096;

using ConnectedCallback = void (*)(networkConnection* connection);
using MessageCallback = void (*)(networkConnection* connection, const uint8_t* bytes,
                                 uint64_t length, int is_binary);
using DisconnectCallback = void (*)(networkConnection* connection);

// What the user of a connection supplies; kept by pointer, must outlive it.
struct networkConnectionConfig {
    const char* ip;               // dotted IPv4 text, not copied
    uint16_t port;                // host order
    int32_t socket_kind;          // 0 stream, anything else datagram
    int32_t reconnection_policy;  // 0 forever, <0 never, N>0: N attempts in all
    uint64_t retry_delay;         // seconds
    // Used only by the WebSocket layer; this module never calls them.
    ConnectedCallback on_connected;
    MessageCallback on_message;
    DisconnectCallback on_disconnect;
};

struct networkConnection {
    int32_t socket;  // 0 after close
    struct sockaddr_in address;
    struct event_base* event_base;
    struct event* read_event;
    struct event* write_event;  // connect-completed one-shot, then the persistent writer
    struct event* retry_event;  // pending retry timer, or null
    Lock* lock;                 // guards the sending queue and the write path
    bool graceful_close_requested;
    int32_t remaining_attempts;
    RingBuffer* sending_queue;
    RingBuffer* receive_queue;
    const ProtocolState* initial_protocol_state;  // caller's template, never run
    ProtocolState* protocol_state;                // owned current state
    networkConnectionConfig* config;
    void* user_data;
    EventDispatcher* dispatcher;
};

struct NetworkModule {
    bool (*is_initialized)();
    // Creates the process-wide event base. 0 on success, 1 (logged) when
    // already initialised, -1 when the base cannot be created.
    int (*init)();
    EmptySlot unused;
    // Clears the initialised flag; frees nothing.
    void (*deinit)();
    struct event_base* (*get_event_base)();
    int (*get_op_port)();
    void (*set_op_port)(int port);

    // New connection (no socket yet) running copies of `initial_state`, on
    // `base` (or the module's base when null), posting to `dispatcher`.
    // Null when the module is not initialised or on allocation failure.
    networkConnection* (*create_connection)(const ProtocolState* initial_state,
                                            networkConnectionConfig* config,
                                            struct event_base* base, EventDispatcher* dispatcher);
    void (*set_user_data)(networkConnection* connection, void* user_data);
    // Starts a non-blocking connect from empty queues and a fresh copy of the
    // initial state; the outcome comes through the connect-completed callback
    // (events 1, then 2 or the retry policy). A pending retry timer is
    // released. A socket that cannot be created destroys the connection: the
    // caller must not touch it afterwards.
    void (*perform_connection)(networkConnection* connection);
    // inet_ntoa of the address (static buffer), or null when missing.
    const char* (*get_ip)(networkConnection* connection);
    // Port in host order, or 0 when missing.
    uint16_t (*get_port)(networkConnection* connection);
    // Queues bytes for the write event. 0, or -1 for missing arguments or
    // when not connected (nothing queued).
    int (*send)(networkConnection* connection, const void* bytes, uint64_t length);
    // One recv() of at most max_size bytes into the receive queue. Returns the
    // count, -1 when the socket is closed or failed (the connection is then
    // closed and the retry policy runs), -2 for a missing connection, state or
    // queue. max_size above 4096 ends the process with status 1.
    int64_t (*receive_data)(networkConnection* connection, int64_t max_size);
    // Drops events and socket, then runs the state's unset callback. Keeps
    // the state, the queues and any retry timer.
    void (*close_connection)(networkConnection* connection);
    // close_connection, then NET_EVENT_CLOSED.
    void (*graceful_close)(networkConnection* connection);
    // Zero-fills the record, freeing nothing.
    void (*reset_connection)(networkConnection* connection);
    // Closes, resets the attempt count and schedules a new connection after
    // retry_delay (timer not recorded, no event posted): the connection must
    // outlive that timer.
    void (*reconnect_later)(networkConnection* connection);
    // close_connection then reconnect.
    void (*close_and_reconnect)(networkConnection* connection);
    // Closes and frees the connection with its lock, queues, state and
    // pending retry timer. Deliveries already posted still name it: free it
    // from a CallbackEvent.schedule_cleanup when events are in flight.
    void (*destroy_connection)(networkConnection* connection);
    // Installs `state` (now owned by the connection): the old state's unset
    // runs before the new one's setup; queues and socket are untouched.
    void (*switch_protocol_state)(networkConnection* connection, ProtocolState* state);
    void (*free_protocol_state)(ProtocolState* state);
    // The retry policy after a failed attempt or a lost connection.
    void (*reconnect)(networkConnection* connection);
    // New state with the four callbacks (any may be null), or null.
    ProtocolState* (*create_protocol_state)(event_callback_fn read_callback,
                                            ProtocolWriteCallback write_callback,
                                            ProtocolConnectionCallback setup_callback,
                                            ProtocolConnectionCallback unset_callback);
    EmptySlot unused_2;
    EmptySlot unused_3;
    // Removes and frees a pending retry timer.
    void (*clean_retry_event)(networkConnection* connection);
};

extern const NetworkModule Network;

// Internal to the Network module: the operations that protocol_state.cpp and
// reconnection.cpp define for its table. Callers go through `Network`.
namespace network_internal {
void reconnect(networkConnection* connection);
void reconnect_later(networkConnection* connection);
void clean_retry_event(networkConnection* connection);
ProtocolState* create_protocol_state(event_callback_fn read_callback,
                                     ProtocolWriteCallback write_callback,
                                     ProtocolConnectionCallback setup_callback,
                                     ProtocolConnectionCallback unset_callback);
void free_protocol_state(ProtocolState* state);
void switch_protocol_state(networkConnection* connection, ProtocolState* state);
}  // namespace network_internal
