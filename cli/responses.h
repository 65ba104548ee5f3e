// Response callbacks of the single-answer commands and the event handler
// that confirms an added service. Each takes the "data" value of the message
// (possibly null), prints the outcome (success on standard output, failure
// on standard error) and either exits or returns: a returned malloc'd text
// is printed by the IPC client, null means nothing more to print.
#pragma once

#include "sylvshared/json.h"

char* add_response(JsonValue* data);
char* edit_response(JsonValue* data);
char* remove_response(JsonValue* data);
char* list_response(JsonValue* data);
char* get_proxy_response(JsonValue* data);
char* set_proxy_response(JsonValue* data);
char* save_proxy_response(JsonValue* data);
char* audit_response(JsonValue* data);
char* traceability_response(JsonValue* data);

// "tenants_event" while adding: the first element naming the service ends
// the run with status 0.
char* add_event_handler(JsonValue* data);
