// Network: outbound TCP connections on the libevent loop.
//
// A connection wraps one non-blocking socket, its read, write and retry
// events, a sending and a receive queue, the current protocol state and the
// reconnection settings. The layers above reach the socket only through this
// module. Connection events go to the connection's dispatcher with the
// connection as data (NET_EVENT_* below).
//
// Everything runs on the loop's thread. Sending only queues: the write event
// drains the queue when the socket is writable, and is added only while data
// is queued.
//
// Results (NetworkResult): NETWORK_OK (0) success; NETWORK_ALREADY_INITIALIZED
// (1) `init` found the module initialised and kept the first base;
// NETWORK_ERR_FAILED (-1) the step could not be done (missing argument, no
// event base, not connected, the socket closed or failed); NETWORK_ERR_INCOMPLETE
// (-2) the connection lacks its protocol state or receive queue. Each
// operation below lists those it returns.
#pragma once

#include <event2/event.h>
#include <netinet/in.h>

#include <cstdint>

#include "core/callback_event.h"
#include "core/dynamic_buffer.h"
#include "core/module.h"
#include "core/mutex.h"
#include "network/protocol_state.h"

enum NetworkResult : int {
    NETWORK_OK = 0,
    NETWORK_ALREADY_INITIALIZED = 1,
    NETWORK_ERR_FAILED = -1,
    NETWORK_ERR_INCOMPLETE = -2,
};

// Dispatcher identifiers raised by this module, with the connection as data.
enum NetworkEvent : uint32_t {
    NET_EVENT_CONNECT_RESULT = 1,     // an attempt finished, either way
    NET_EVENT_CONNECTED = 2,          // the socket is connected
    NET_EVENT_RECONNECTING = 3,       // a retry is scheduled
    NET_EVENT_CONNECTION_FAILED = 4,  // no attempt left
    NET_EVENT_CLOSED = 5,             // graceful_close ran
};

// Where a connection is. A socket exists (socket >= 0) only while connecting
// or connected.
enum NetworkConnectionState : uint8_t {
    NETWORK_IDLE = 0,    // created: no attempt made yet
    NETWORK_CONNECTING,  // connect() issued, waiting for the socket to be writable
    NETWORK_CONNECTED,   // reading; the writer exists and is added while data is queued
    NETWORK_CLOSED,      // socket closed; the retry policy may start a new attempt
};

// Largest count receive_data accepts; more ends the process.
constexpr int64_t NETWORK_RECEIVE_MAX = 4096;

// What the user of a connection supplies; kept by pointer, must outlive it.
struct networkConnectionConfig {
    const char* ip;               // dotted IPv4 text, not copied
    uint16_t port;                // host order
    int32_t socket_kind;          // 0 stream, anything else datagram
    int32_t reconnection_policy;  // 0 forever, <0 never, N>0: N attempts in all
    uint64_t retry_delay;         // seconds
    // The settings of the layer running on the connection (the WebSocket
    // client's callbacks); not owned and never read by this module.
    const void* layer_data;
};

struct networkConnection {
    NetworkConnectionState state;
    int32_t socket;  // -1 when there is none
    struct sockaddr_in address;
    struct event_base* event_base;
    struct event* read_event;
    struct event* write_event;  // connect-completed one-shot, then the persistent writer
    struct event* retry_event;  // pending retry timer, or null
    Lock* lock;                 // guards the sending queue and the write path
    int32_t remaining_attempts;
    RingBuffer* sending_queue;
    RingBuffer* receive_queue;
    const ProtocolState* initial_protocol_state;  // caller's template, never run
    ProtocolState* protocol_state;                // owned current state
    networkConnectionConfig* config;
    void* user_data;  // the running layer's per-connection record; not owned
    EventDispatcher* dispatcher;
    struct ReadAhead* read_ahead;  // owned; bytes receive_ahead read and not yet handed out
};

// The tool never calls is_initialized, deinit, the op port, graceful_close,
// reset_connection, reconnect_later nor clean_retry_event: their slots serve
// the library's other users.
struct NetworkModule {
    bool (*is_initialized)();
    // Creates the process-wide event base. NETWORK_OK;
    // NETWORK_ALREADY_INITIALIZED (logged); NETWORK_ERR_FAILED when the base
    // cannot be created.
    int (*init)();
    EmptySlot unused;
    // Clears the initialised flag; frees nothing. Not used by the tool.
    void (*deinit)();
    struct event_base* (*get_event_base)();
    // A plain setting for the library's other users; not used by the tool.
    int (*get_op_port)();
    void (*set_op_port)(int port);

    // New idle connection (no socket) running copies of `initial_state`, on
    // `base` (or the module's base when null), posting to `dispatcher`.
    // Null (logged) when the module is not initialised or on allocation
    // failure. The caller owns it and frees it with destroy_connection.
    networkConnection* (*create_connection)(const ProtocolState* initial_state,
                                            networkConnectionConfig* config,
                                            struct event_base* base, EventDispatcher* dispatcher);
    void (*set_user_data)(networkConnection* connection, void* user_data);
    // Starts a non-blocking connect from empty queues and a fresh copy of the
    // initial state; the outcome comes through the dispatcher (event 1, then
    // 2, or the retry policy's 3 or 4). A pending retry timer is released. An
    // attempt that cannot start (no socket, no event) goes through the retry
    // policy too; the connection stays its caller's.
    void (*perform_connection)(networkConnection* connection);
    // The address in dotted decimal, as inet_ntoa writes it (static buffer),
    // or null when missing.
    const char* (*get_ip)(networkConnection* connection);
    // Port in host order, or 0 when missing.
    uint16_t (*get_port)(networkConnection* connection);
    // Queues bytes for the write event. NETWORK_OK; NETWORK_ERR_FAILED for
    // missing arguments, when not connected or when the bytes cannot be
    // queued (nothing queued).
    int (*send)(networkConnection* connection, const void* bytes, uint64_t length);
    // One recv() of at most max_size bytes into the receive queue. Returns the
    // count; NETWORK_ERR_FAILED when the socket is closed or failed (the
    // connection is then closed and the retry policy runs);
    // NETWORK_ERR_INCOMPLETE for a missing connection, state or queue.
    // max_size above NETWORK_RECEIVE_MAX ends the process with status 1.
    int64_t (*receive_data)(networkConnection* connection, int64_t max_size);
    // Drops events and socket, then runs the state's unset callback. Keeps
    // the state, the queues and any retry timer.
    void (*close_connection)(networkConnection* connection);
    // close_connection, then NET_EVENT_CLOSED.
    void (*graceful_close)(networkConnection* connection);
    // Empties the record (idle, no socket), freeing nothing. Not used by the tool.
    void (*reset_connection)(networkConnection* connection);
    // Closes, resets the attempt count and schedules a new connection after
    // retry_delay (timer not recorded, no event posted): the connection must
    // outlive that timer. Not used by the tool.
    void (*reconnect_later)(networkConnection* connection);
    // close_connection then reconnect.
    void (*close_and_reconnect)(networkConnection* connection);
    // Closes and frees the connection with its lock, queues, state and
    // pending retry timer. Deliveries already posted still name it: free it
    // from a CallbackEvent.schedule_cleanup when events are in flight.
    void (*destroy_connection)(networkConnection* connection);
    // Installs `state` (now owned by the connection): the old state's unset
    // runs before the new one's setup; queues and socket are untouched. When
    // the socket cannot be watched for the new state, the connection goes
    // through the retry policy instead of the setup.
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
    // receive_data for a large payload: one recv() of up to max_size bytes,
    // with no upper bound, straight into the receive queue when it has a run
    // of max_size free bytes (the frame reader makes one for each large
    // payload), else receive_data of at most NETWORK_RECEIVE_MAX. Same
    // results as receive_data; never ends the process.
    int64_t (*receive_payload)(networkConnection* connection, int64_t max_size);
    // receive_data that reads ahead: when nothing read earlier is left, one
    // recv() of up to NETWORK_RECEIVE_MAX bytes, of which the receive queue
    // gets at most max_size; the rest is kept for the next calls (and
    // receive_payload hands it out first). A small frame then costs one
    // recv() instead of one per header part. The caller must go on while
    // bytes are kept: the socket no longer says they are there. Same
    // results as receive_data. A close or a new attempt drops what is kept.
    int64_t (*receive_ahead)(networkConnection* connection, int64_t max_size);
    // Bytes receive_ahead read and has not handed out yet.
    uint64_t (*kept_ahead)(const networkConnection* connection);
};

extern const NetworkModule Network;
