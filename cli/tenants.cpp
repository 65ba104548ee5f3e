#include "cli/tenants.h"

#include <cstring>

#include "cli/run_state.h"

bool read_tenant_list(const JsonValue* data, TenantList* list) {
    list->count = 0;
    list->items = data != nullptr ? json_get_list_value(data, "tenants", &list->count) : nullptr;
    return list->items != nullptr;
}

void release_tenant_list(TenantList* list) {
    json_free_list_value(list->items, list->count);
    list->items = nullptr;
    list->count = 0;
}

bool is_string_item(const JsonListItem* item) {
    return item != nullptr && item->type == JSON_LIST_ITEM_STRING && item->text != nullptr;
}

// Commands about no service have no name to match.
bool is_current_service(const char* name) {
    const char* service = run_state().service_name;
    return service != nullptr && strcmp(name, service) == 0;
}
