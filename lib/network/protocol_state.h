// ProtocolState: the callbacks through which one protocol layer drives a
// connection. A connection runs one state at a time; a layer hands the
// connection to the next stage with Network.switch_protocol_state. A state
// holds no data: per-connection data lives in the connection's user_data.
#pragma once

#include <event2/event.h>

#include <cstdint>

struct networkConnection;

// Called after every run of the connection's write callback with the count
// the send() returned (not meaningful on its failure paths).
using ProtocolWriteCallback = void (*)(networkConnection* connection, int64_t sent);
// Setup (state becomes active on a connected socket) and unset (connection
// closes, or the state is switched away).
using ProtocolConnectionCallback = void (*)(networkConnection* connection);

struct ProtocolState {
    uint32_t size;                    // bytes copied by a copy
    event_callback_fn read_callback;  // persistent read event; arg = connection
    ProtocolWriteCallback write_callback;
    ProtocolConnectionCallback setup_callback;
    ProtocolConnectionCallback unset_callback;
};
