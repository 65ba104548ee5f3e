// Reading the "tenants" lists of responses and events: JSON lists whose
// elements are strings, each holding one serialized JSON object.
#pragma once

#include "sylvshared/json.h"

// What every "tenants_event" handler prints for a malformed event. It speaks
// of adding even while enabling or disabling; scripts match the text.
constexpr const char* BAD_TENANTS_EVENT =
    "Error while trying to add a service. Server responded with bad formatted answer\n";

struct TenantList {
    JsonListItem** items;
    int count;
};

// Reads data's "tenants" list into `list`. False when data is null or the
// member is missing or not a list (nothing to release then). Memory running
// out ends the run with "Unable to allocate memory." (status 1).
bool read_tenant_list(const JsonValue* data, TenantList* list);
// The service object an element holds, owned by the caller; null when the
// element is missing, not a string or not JSON. Memory running out ends the
// run as read_tenant_list does.
JsonValue* parse_tenant(const JsonListItem* item);
void release_tenant_list(TenantList* list);

// True for a present element of string type.
bool is_string_item(const JsonListItem* item);

// True when `name` is the service the running command is about.
bool is_current_service(const char* name);
