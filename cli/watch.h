// Watching the Transfer Agent: --events follows the service events until
// interrupted, until the agent goes away or until --wait runs out; --check
// asks for the proxy configuration and reports whether a well-formed answer
// came within 2 seconds. Both end the process themselves.
#pragma once

#include "sylvshared/json.h"

// Subscribes to "services_subscription" and prints each state change.
// Status 0 on SIGINT, SIGTERM or when --wait runs out (after a close frame);
// 3 when the agent cannot be reached, hangs up or evicts the tool.
[[noreturn]] void watch_events();

// The "tenants_event" handler of --events: one line (or object) per service.
char* print_service_events(JsonValue* data);

// One attempt, no retry. Status 0 when the agent answered, else 3 in human
// mode (nothing listening, no answer, not a Transfer Agent, busy).
[[noreturn]] void check_agent();
