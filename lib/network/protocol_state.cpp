#include "network/protocol_state.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "core/logger.h"
#include "network/network_internal.h"

namespace network_internal {

// New state with the four callbacks (any may be null); freed with
// free_protocol_state, or by the connection once it is installed there.
ProtocolState* create_protocol_state(event_callback_fn read_callback,
                                     ProtocolWriteCallback write_callback,
                                     ProtocolConnectionCallback setup_callback,
                                     ProtocolConnectionCallback unset_callback) {
    auto* state = static_cast<ProtocolState*>(calloc(1, sizeof(ProtocolState)));
    if (state == nullptr) {
        Logger.fatal("Unable to allocate memory for protocol state.");
        return nullptr;
    }
    *state = ProtocolState{sizeof(ProtocolState), read_callback, write_callback, setup_callback,
                           unset_callback};
    return state;
}

void free_protocol_state(ProtocolState* state) {
    free(state);
}

// Replaces the current state: the old one is unset and freed before the new
// one is set up. The write event, the queues and the socket stay as they
// are, so bytes already received wait in the receive queue for the new state.
void switch_protocol_state(networkConnection* connection, ProtocolState* state) {
    if (connection == nullptr || state == nullptr) {
        Logger.error(
            "Unable to switch protocol state because connection or protocol state is NULL");
        return;
    }
    drop_event(&connection->read_event);
    ProtocolState* old = connection->protocol_state;
    if (old != nullptr && old->unset_callback != nullptr) {
        old->unset_callback(connection);
    }
    if (old != state) {
        free_protocol_state(old);
    }
    connection->protocol_state = state;
    // Only a live socket is watched.
    if (state->read_callback != nullptr && connection->state == NETWORK_CONNECTED &&
        watch_reads(connection) != 0) {
        reconnect(connection);
        return;
    }
    if (state->setup_callback != nullptr) {
        state->setup_callback(connection);
    }
}

// A record of state->size bytes with the same content; the copy is never
// shorter than a whole ProtocolState, so its callbacks can always be read.
ProtocolState* copy_protocol_state(const ProtocolState* state) {
    if (state == nullptr) {
        return nullptr;
    }
    const size_t size = std::max<size_t>(state->size, sizeof(ProtocolState));
    auto* copy = static_cast<ProtocolState*>(calloc(1, size));
    if (copy == nullptr) {
        Logger.fatal("Unable to allocate memory for protocol state.");
        return nullptr;
    }
    memcpy(copy, state, state->size);
    return copy;
}

}  // namespace network_internal
