// Internal to the Network module: the operations that protocol_state.cpp and
// reconnection.cpp define for its table, and the helpers the three files
// share. Other layers go through `Network`.
#pragma once

#include "core/owned.h"
#include "network/network.h"

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
void close_connection(networkConnection* connection);
void perform_connection(networkConnection* connection);

// New record of state->size bytes with the same content; null for null or
// on allocation failure (logged).
ProtocolState* copy_protocol_state(const ProtocolState* state);

// Adds a persistent read event calling the state's read callback. 0, or -1
// (logged) when the event cannot be made or added.
int watch_reads(networkConnection* connection);

}  // namespace network_internal
