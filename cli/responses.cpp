#include "cli/responses.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/startup.h"
#include "cli/tenants.h"

namespace {

// Field buffers, NUL included.
constexpr size_t NAME_SIZE = 40;
constexpr size_t STATUS_SIZE = 255;
constexpr size_t IP_ADDRESS_SIZE = 40;
constexpr size_t PROXY_IP_ADDRESS_SIZE = 17;
constexpr size_t UUID_SIZE = 37;
constexpr size_t ONION_ADDRESS_SIZE = 63;
constexpr size_t REASON_SIZE = 100;
constexpr size_t PROXY_TYPE_SIZE = 20;

// Texts of one of add, edit and remove.
struct ServiceResponseTexts {
    const char* key;
    const char* null_data;
    const char* success;  // null: nothing printed
    const char* bad_format;
    const char* check_arguments;
    const char* could_not;  // service name, reason
};

constexpr ServiceResponseTexts ADD_TEXTS = {
    "added",
    "An error occurred while adding service.\n",
    nullptr,
    "Error while trying to add the service. Internal process responded with a bad formatted "
    "message. Please retry.\n",
    "Error while trying to add the service. Please check the arguments\n",
    "Could not add service '%s'. %s\n",
};

constexpr ServiceResponseTexts EDIT_TEXTS = {
    "edited",
    "An error occurred while editing service.\n",
    "Service edited successfully.\n",
    "Error while trying to edit the service. Internal process responded with a bad formatted "
    "message. Please retry.\n",
    "Error while trying to edit the service. Please check the arguments\n",
    "Could not edit service '%s'. %s\n",
};

constexpr ServiceResponseTexts REMOVE_TEXTS = {
    "removed",
    "An error occurred while removing service.\n",
    "Service removed.\n",
    "Error while trying to remove the service. Internal process responded with a bad formatted "
    "message. Please retry.\n",
    "Error while trying to remove the service. Please check the arguments\n",
    "Could not remove service '%s'. %s\n",
};

// Texts of one of save_proxy, set_proxy and save_traceability_logger_config.
struct SettingResponseTexts {
    const char* success;
    const char* failure_with_reason;  // reason
    const char* generic_failure;
};

constexpr SettingResponseTexts SAVE_PROXY_TEXTS = {
    "Proxy configuration successfully saved.\n",
    "Failed to save proxy configuration: %s\n",
    "An error occurred while trying to save proxy configuration.\n",
};

constexpr SettingResponseTexts SET_PROXY_TEXTS = {
    "Enabled/Disabled proxy successfully.\n",
    "Failed to set proxy: %s\n",
    "An error occurred while trying to set proxy.\n",
};

constexpr SettingResponseTexts TRACEABILITY_TEXTS = {
    "Traceability configuration successfully saved.\n",
    "Failed to save traceability configuration: %s\n",
    "An error occurred while trying to save traceability configuration.\n",
};

// Shared by add, edit and remove: {key: bool, "reason": text}.
char* service_response(const JsonValue* data, const ServiceResponseTexts& texts) {
    if (data == nullptr) {
        finish(stderr, texts.null_data, 1);
    }
    int done = json_get_bool_value(data, texts.key);
    if (done < 0) {
        finish(stderr, texts.bad_format, 1);
    }
    if (done == 1) {
        if (texts.success != nullptr) {
            fputs(texts.success, stdout);
        }
        return nullptr;
    }
    char reason[REASON_SIZE] = {};
    if (json_get_string_value(data, "reason", reason, sizeof reason) < 0) {
        finish(stderr, texts.check_arguments, 1);
    }
    finishf(stderr, 1, texts.could_not, current_service_name, reason);
}

// Shared by the proxy and traceability settings: {"success": bool, "reason"}.
char* setting_response(const JsonValue* data, const SettingResponseTexts& texts) {
    int success = data != nullptr ? json_get_bool_value(data, "success") : -1;
    if (success < 0) {
        finish(stderr, texts.generic_failure, 1);
    }
    if (success == 1) {
        fputs(texts.success, stdout);
        return nullptr;
    }
    char reason[REASON_SIZE] = {};
    if (json_get_string_value(data, "reason", reason, sizeof reason) < 0) {
        finish(stderr, texts.generic_failure, 1);
    }
    finishf(stderr, 1, texts.failure_with_reason, reason);
}

const char* listed_status(const char* status) {
    if (strcmp(status, "connected") == 0) {
        return "Enabled";
    }
    if (strcmp(status, "in progress") == 0) {
        return "Enabling in progress";
    }
    if (strcmp(status, "error") == 0) {
        return "Error";
    }
    return "Disabled";
}

// The listing goes out in blocks of kListingBlock bytes, not in one write
// per line: a list of thousands of services is written in a few calls.
constexpr size_t kListingBlock = 65536;

class ListingWriter {
public:
    void text(const char* part) { bytes(part, strlen(part)); }
    void number(int value) {
        char digits[16];
        const auto result = std::to_chars(digits, digits + sizeof digits, value);
        bytes(digits, static_cast<size_t>(result.ptr - digits));
    }
    // label, then value, then a newline.
    void line(const char* label, const char* value) {
        text(label);
        text(value);
        bytes("\n", 1);
    }
    void flush() {
        fwrite(block_, 1, used_, stdout);
        fflush(stdout);
        used_ = 0;
    }

private:
    char block_[kListingBlock];
    size_t used_ = 0;

    void bytes(const char* part, size_t size) {
        while (size > 0) {
            if (used_ == sizeof block_) {
                flush();
            }
            const size_t taken = std::min(size, sizeof block_ - used_);
            memcpy(block_ + used_, part, taken);
            used_ += taken;
            part += taken;
            size -= taken;
        }
    }
};

// One block of the listing; missing fields show as empty or "Unknown".
void print_tenant(const JsonValue* tenant, ListingWriter& out) {
    char name[NAME_SIZE] = {};
    char status[STATUS_SIZE] = {};
    char ip_address[IP_ADDRESS_SIZE] = {};
    char uuid[UUID_SIZE] = {};
    char onion_address[ONION_ADDRESS_SIZE] = {};
    json_get_string_value(tenant, "tenant_name", name, sizeof name);
    json_get_string_value(tenant, "status", status, sizeof status);
    json_get_string_value(tenant, "ip_address", ip_address, sizeof ip_address);
    int port = json_get_int_value(tenant, "port");
    int virtual_port = json_get_int_value(tenant, "virtual_port");
    json_get_string_value(tenant, "uuid", uuid, sizeof uuid);
    json_get_string_value(tenant, "onion_address", onion_address, sizeof onion_address);
    const char* shown_status = listed_status(status);

    out.text("----------------------------------------\n");
    out.line("Service:\t", name);
    out.line("Uuid:\t\t", uuid);
    out.line("IP address:\t", ip_address[0] != '\0' ? ip_address : "Unknown");
    if (port < 1) {
        out.text("Port:\t\tUnknown\n");
    } else {
        out.text("Port:\t\t");
        out.number(port);
        out.text("\n");
    }
    if (virtual_port == port) {
        out.text("Virtual port:\tNot set\n");
    } else {
        out.text("Virtual port:\t");
        out.number(virtual_port);
        out.text("\n");
    }
    out.line("Status:\t\t", shown_status);
    if (onion_address[0] != '\0' && strcmp(shown_status, "Enabled") == 0) {
        out.line("Onion address:\t", onion_address);
    }
}

enum class AddOutcome { keep_waiting, added, bad_format };

AddOutcome scan_added_tenants(const TenantList& list) {
    for (int i = 0; i < list.count; i++) {
        if (!is_string_item(list.items[i])) {
            return AddOutcome::bad_format;
        }
        JsonValue* tenant = json_parse(list.items[i]->text);
        if (tenant == nullptr) {
            return AddOutcome::keep_waiting;
        }
        char name[NAME_SIZE] = {};
        char onion_address[ONION_ADDRESS_SIZE] = {};
        bool readable = json_get_string_value(tenant, "tenant_name", name, sizeof name) >= 0 &&
                        json_get_string_value(tenant, "onion_address", onion_address,
                                              sizeof onion_address) >= 0;
        json_free_value(tenant);
        if (!readable) {
            return AddOutcome::bad_format;
        }
        // Any onion address settles it; the status is not looked at.
        if (is_current_service(name)) {
            return AddOutcome::added;
        }
    }
    return AddOutcome::keep_waiting;
}

}  // namespace

char* add_response(JsonValue* data) {
    return service_response(data, ADD_TEXTS);
}

char* edit_response(JsonValue* data) {
    return service_response(data, EDIT_TEXTS);
}

char* remove_response(JsonValue* data) {
    return service_response(data, REMOVE_TEXTS);
}

// An unparsable element stops the listing there; the rest is not shown.
char* list_response(JsonValue* data) {
    TenantList list{};
    if (!read_tenant_list(data, &list) || list.count == 0) {
        release_tenant_list(&list);
        return strdup("No registered services yet.");
    }
    ListingWriter out;
    for (int i = 0; i < list.count; i++) {
        if (!is_string_item(list.items[i])) {
            continue;
        }
        JsonValue* tenant = json_parse(list.items[i]->text);
        if (tenant == nullptr) {
            break;
        }
        print_tenant(tenant, out);
        json_free_value(tenant);
    }
    out.flush();
    release_tenant_list(&list);
    return nullptr;
}

char* get_proxy_response(JsonValue* data) {
    if (data == nullptr) {
        finish(stderr, "An error occurred while trying to get proxy configuration.\n", 1);
    }
    char type[PROXY_TYPE_SIZE] = {};
    char ip_address[PROXY_IP_ADDRESS_SIZE] = {};
    if (json_get_string_value(data, "type", type, sizeof type) < 0) {
        finish(stderr, "Unable to retrieve proxy type.\n", 1);
    }
    if (json_get_string_value(data, "ip_address", ip_address, sizeof ip_address) < 0) {
        finish(stderr, "Unable to retrieve proxy IP address.\n", 1);
    }
    int enabled = json_get_bool_value(data, "enabled");
    if (enabled < 0) {
        finish(stderr, "Unable to retrieve proxy status.\n", 1);
    }
    int port = json_get_int_value(data, "port");
    if (port < 0) {
        finish(stderr, "Unable to retrieve proxy port.\n", 1);
    }
    printf("---------- Proxy configuration ----------\n");
    printf("IP address:\t%s\n", ip_address);
    printf("Port:\t\t%d\n", port);
    printf("Type:\t\t%s\n", type);
    printf("Status:\t\t%s\n", enabled == 1 ? "Enabled" : "Disabled");
    return nullptr;
}

char* set_proxy_response(JsonValue* data) {
    return setting_response(data, SET_PROXY_TEXTS);
}

char* save_proxy_response(JsonValue* data) {
    return setting_response(data, SAVE_PROXY_TEXTS);
}

// The answer is not read, and the run ends with status 1 even so: scripts
// that drive the audit rely on this status.
char* audit_response(JsonValue*) {
    finish(stdout, "Authentication status updated successfully\n", 1);
}

char* traceability_response(JsonValue* data) {
    return setting_response(data, TRACEABILITY_TEXTS);
}

char* add_event_handler(JsonValue* data) {
    TenantList list{};
    if (data == nullptr) {
        return nullptr;
    }
    if (!read_tenant_list(data, &list)) {
        finish(stderr, BAD_TENANTS_EVENT, 1);
    }
    AddOutcome outcome = scan_added_tenants(list);
    release_tenant_list(&list);
    if (outcome == AddOutcome::bad_format) {
        finish(stderr, BAD_TENANTS_EVENT, 1);
    }
    if (outcome == AddOutcome::added) {
        finish(stdout, "Service added successfully.\n", 0);
    }
    return nullptr;
}
