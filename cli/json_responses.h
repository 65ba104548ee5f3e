// The JSON shapes of the listing and the proxy configuration (--json).
#pragma once

#include <string>

#include "cli/commands.h"
#include "cli/run_state.h"
#include "sylvshared/json.h"

// The get_proxy answer once every field has been read.
struct ProxyAnswer {
    char type[PROXY_TYPE_SIZE];
    char ip_address[PROXY_IP_ADDRESS_SIZE];
    int enabled;
    int port;
};

// Fills `proxy` from the answer. Null when all was read, else the human text
// of the first field that could not be.
const char* read_proxy_answer(const JsonValue* data, ProxyAnswer* proxy);

// {"type", "ip_address", "port", "enabled"}.
std::string proxy_object(const ProxyAnswer& proxy);

// get_tenants in JSON mode: {"ok": true, "services": [...]}, each service with
// its typed fields; an element that is not a readable object is a bad answer.
char* list_response_json(JsonValue* data);
