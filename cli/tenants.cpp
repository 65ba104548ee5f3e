#include "cli/tenants.h"

#include <cerrno>
#include <cstring>

#include "cli/report.h"
#include "cli/run_state.h"

namespace {

// A list or an element that could not be read for want of memory must not
// pass for a missing or bad one: that would cut a listing short, or end it
// as "no services", with status 0.
void fail_when_out_of_memory() {
    if (errno == ENOMEM) {
        fail(Failure::internal, "Unable to allocate memory.\n");
    }
}

}  // namespace

bool read_tenant_list(const JsonValue* data, TenantList* list) {
    list->count = 0;
    list->items = nullptr;
    if (data != nullptr) {
        errno = 0;
        list->items = json_get_list_value(data, "tenants", &list->count);
        if (list->items == nullptr) {
            fail_when_out_of_memory();
        }
    }
    return list->items != nullptr;
}

JsonValue* parse_tenant(const JsonListItem* item) {
    if (!is_string_item(item)) {
        return nullptr;
    }
    JsonValue* tenant = json_parse(item->text);
    if (tenant == nullptr) {
        fail_when_out_of_memory();
    }
    return tenant;
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
