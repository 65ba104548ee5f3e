#include "cli/responses.h"

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/commands.h"
#include "cli/json_responses.h"
#include "cli/report.h"
#include "cli/run_state.h"
#include "cli/startup.h"
#include "cli/tenants.h"

namespace {

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

// JSON mode only.
constexpr SettingResponseTexts AUDIT_TEXTS = {
    "Authentication status updated successfully\n",
    "Failed to update authentication status: %s\n",
    "An error occurred while trying to update authentication status.\n",
};

constexpr SettingResponseTexts TRACEABILITY_TEXTS = {
    "Traceability configuration successfully saved.\n",
    "Failed to save traceability configuration: %s\n",
    "An error occurred while trying to save traceability configuration.\n",
};

// Shared by add, edit and remove: {key: bool, "reason": text}. An accepted
// add is only a step: its event settles it.
char* service_response(const JsonValue* data, const ServiceResponseTexts& texts) {
    if (data == nullptr) {
        fail(Failure::bad_answer, texts.null_data, about_service());
    }
    int done = json_get_bool_value(data, texts.key);
    if (done < 0) {
        fail(Failure::bad_answer, texts.bad_format, about_service());
    }
    if (done == 1) {
        if (texts.success != nullptr) {
            report_success(texts.success, about_service());
        } else if (json_mode()) {
            emit(about_service().text("state", texts.key));
        }
        return nullptr;
    }
    char reason[REASON_SIZE] = {};
    if (json_get_string_value(data, "reason", reason, sizeof reason) < 0) {
        fail(Failure::refused, texts.check_arguments, about_service());
    }
    failf(Failure::refused, about_service(reason), texts.could_not, run_state().service_name,
          reason);
}

// Shared by the proxy and traceability settings: {"success": bool, "reason"}.
char* setting_response(const JsonValue* data, const SettingResponseTexts& texts) {
    int success = data != nullptr ? json_get_bool_value(data, "success") : -1;
    if (success < 0) {
        fail(Failure::bad_answer, texts.generic_failure);
    }
    if (success == 1) {
        report_success(texts.success);
        return nullptr;
    }
    char reason[REASON_SIZE] = {};
    if (json_get_string_value(data, "reason", reason, sizeof reason) < 0) {
        fail(Failure::refused, texts.generic_failure);
    }
    JsonWriter fields;
    fields.text("reason", reason);
    failf(Failure::refused, fields, texts.failure_with_reason, reason);
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
    // A literal, whose length is known here.
    template <size_t N>
    void text(const char (&part)[N]) {
        bytes(part, N - 1);
    }
    void number(int value) {
        char digits[16];
        const auto result = std::to_chars(digits, digits + sizeof digits, value);
        bytes(digits, static_cast<size_t>(result.ptr - digits));
    }
    // label, then value, then a newline.
    template <size_t N>
    void line(const char (&label)[N], const char* value) {
        text(label);
        bytes(value, strlen(value));
        text("\n");
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

// `onion_address` receives the settling element's address.
AddOutcome scan_added_tenants(const TenantList& list, char (&onion_address)[ONION_ADDRESS_SIZE]) {
    for (int i = 0; i < list.count; i++) {
        if (!is_string_item(list.items[i])) {
            return AddOutcome::bad_format;
        }
        JsonValue* tenant = parse_tenant(list.items[i]);
        if (tenant == nullptr) {
            return AddOutcome::keep_waiting;
        }
        char name[NAME_SIZE] = {};
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
    if (json_mode()) {
        return list_response_json(data);
    }
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
        JsonValue* tenant = parse_tenant(list.items[i]);
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
    ProxyAnswer proxy{};
    const char* fault = read_proxy_answer(data, &proxy);
    if (fault != nullptr) {
        fail(Failure::bad_answer, fault);
    }
    if (json_mode()) {
        report_success(nullptr, JsonWriter().value("proxy", proxy_object(proxy)));
        return nullptr;
    }
    printf("---------- Proxy configuration ----------\n");
    printf("IP address:\t%s\n", proxy.ip_address);
    printf("Port:\t\t%d\n", proxy.port);
    printf("Type:\t\t%s\n", proxy.type);
    printf("Status:\t\t%s\n", proxy.enabled == 1 ? "Enabled" : "Disabled");
    return nullptr;
}

char* set_proxy_response(JsonValue* data) {
    return setting_response(data, SET_PROXY_TEXTS);
}

char* save_proxy_response(JsonValue* data) {
    return setting_response(data, SAVE_PROXY_TEXTS);
}

// Human mode does not read the answer and ends with status 1 even so:
// scripts that drive the audit rely on this status. JSON mode reads
// "success" like the other settings.
char* audit_response(JsonValue* data) {
    if (!json_mode()) {
        finish(stdout, "Authentication status updated successfully\n", 1);
    }
    return setting_response(data, AUDIT_TEXTS);
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
        fail(Failure::bad_answer, BAD_TENANTS_EVENT, about_service());
    }
    char onion_address[ONION_ADDRESS_SIZE] = {};
    AddOutcome outcome = scan_added_tenants(list, onion_address);
    release_tenant_list(&list);
    if (outcome == AddOutcome::bad_format) {
        fail(Failure::bad_answer, BAD_TENANTS_EVENT, about_service());
    }
    if (outcome == AddOutcome::added) {
        JsonWriter fields = about_service();
        fields.text("state", "added")
            .text("onion_address", onion_address[0] != '\0' ? onion_address : nullptr);
        report_success("Service added successfully.\n", fields);
        exit(0);
    }
    return nullptr;
}
