// Enabling and disabling are only acknowledged by the Transfer Agent's
// answer; their outcome comes through "tenants_event" events, followed here
// until the service is settled or the command's timer fires. Progress output
// is flushed as it happens.
#pragma once

#include <event2/event.h>

#include "sylvshared/json.h"

char* enable_response(JsonValue* data);
char* disable_response(JsonValue* data);
char* enable_event_handler(JsonValue* data);
char* disable_event_handler(JsonValue* data);

// 15 s: the verdict depends on the progress seen so far.
void enabling_timeout_callback(evutil_socket_t fd, short flags, void* argument);
// 5 s.
void disabling_timeout_callback(evutil_socket_t fd, short flags, void* argument);
