#include "core/logger.h"
#include "network/network_internal.h"

namespace network_internal {
namespace {

// libevent-shaped entry of the retry timers.
void retry_connection(evutil_socket_t /*fd*/, short /*what*/, void* argument) {
    perform_connection(static_cast<networkConnection*>(argument));
}

// Arms the retry timer unless one is already pending: a connection never
// has two attempts in flight.
void schedule_retry(networkConnection* connection, const char* registered, const char* skipped) {
    if (connection->retry_event != nullptr) {
        Logger.trace(skipped, static_cast<void*>(connection));
        return;
    }
    connection->retry_event =
        CallbackEvent.set_timer(connection->event_base, retry_connection, connection,
                                static_cast<int64_t>(connection->config->retry_delay), 0, false);
    Logger.trace(registered, static_cast<void*>(connection->retry_event),
                 static_cast<void*>(connection));
}

}  // namespace

// After a failed attempt or a lost connection: closes, counts the failure
// and either schedules the next attempt (event 3) or gives up (event 4).
void reconnect(networkConnection* connection) {
    if (connection == nullptr || connection->config == nullptr) {
        return;
    }
    close_connection(connection);
    if (connection->remaining_attempts != 0) {
        --connection->remaining_attempts;
    }
    const int32_t policy = connection->config->reconnection_policy;
    if (policy == 0) {
        Logger.info("Reconnection policy is set to 0. Will reconnect now.");
        CallbackEvent.notify(connection->dispatcher, NET_EVENT_RECONNECTING, connection);
        schedule_retry(connection, "Registered a new retry event %p for connection %p",
                       "Skipped the retry event for connection %p as there is already a such "
                       "event pending");
    } else if (connection->remaining_attempts == 0 || policy < 0) {
        Logger.info("Remaining connection attempt is now %d. Will not reconnect connection %p.",
                    connection->remaining_attempts, static_cast<void*>(connection));
        connection->remaining_attempts = 0;
        CallbackEvent.notify(connection->dispatcher, NET_EVENT_CONNECTION_FAILED, connection);
    } else {
        Logger.info("remaining connection attempt is now %d. Will reconnect connection %p.",
                    connection->remaining_attempts, static_cast<void*>(connection));
        CallbackEvent.notify(connection->dispatcher, NET_EVENT_RECONNECTING, connection);
        schedule_retry(connection, "Registered a new retry event %p for connection %p (2)",
                       "Skipped the retry event for connection %p as there is already a such "
                       "event pending (2)");
    }
}

// Closes and tries again after the delay with a full attempt count. The
// timer is not recorded (clean_retry_event cannot cancel it) and releases
// itself once fired, so the connection must outlive it.
void reconnect_later(networkConnection* connection) {
    if (connection == nullptr || connection->config == nullptr) {
        return;
    }
    close_connection(connection);
    connection->remaining_attempts = connection->config->reconnection_policy;
    CallbackEvent.register_callback(connection->event_base, retry_connection, connection,
                                    static_cast<int64_t>(connection->config->retry_delay));
}

// Cancels and frees a pending retry timer.
void clean_retry_event(networkConnection* connection) {
    if (connection == nullptr || connection->retry_event == nullptr) {
        Logger.trace("clean_retry_event failed because retry event is NULL");
        return;
    }
    Logger.trace("Cleaning up retry event %p", static_cast<void*>(connection->retry_event));
    drop_event(&connection->retry_event);
    Logger.trace("Retry event %p clean up", static_cast<void*>(connection->retry_event));
}

}  // namespace network_internal
