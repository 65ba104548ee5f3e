#include "cli/follow_up.h"

#include <cstdio>
#include <cstring>

#include "cli/run_state.h"
#include "cli/startup.h"
#include "cli/tenants.h"

namespace {

// The acknowledgement of connect_tenants or disconnect_tenants for the
// current service.
enum class Ack { none, accepted, refused };

Ack find_ack(const TenantList& list, char* reason, size_t reason_size) {
    for (int i = 0; i < list.count; i++) {
        if (!is_string_item(list.items[i])) {
            continue;
        }
        JsonValue* tenant = json_parse(list.items[i]->text);
        if (tenant == nullptr) {
            continue;
        }
        char name[NAME_SIZE] = {};
        int ack = json_get_bool_value(tenant, "ack");
        bool readable =
            ack >= 0 && json_get_string_value(tenant, "tenant_name", name, sizeof name) >= 0;
        if (readable && is_current_service(name)) {
            if (ack == 0) {
                json_get_string_value(tenant, "reason", reason, reason_size);
            }
            json_free_value(tenant);
            return ack == 1 ? Ack::accepted : Ack::refused;
        }
        json_free_value(tenant);
    }
    return Ack::none;
}

// Shared by both responses; returns the refusal's reason holder filled.
Ack read_ack(const JsonValue* data, const char* failure, char* reason, size_t reason_size) {
    TenantList list{};
    if (!read_tenant_list(data, &list)) {
        finish(stderr, failure, 1);
    }
    Ack ack = find_ack(list, reason, reason_size);
    release_tenant_list(&list);
    return ack;
}

// What one event element means for the service being enabled.
enum class Step { next, stop, enabled, disconnected, failed, bad_format };

Step enabling_step(const JsonListItem* item) {
    if (!is_string_item(item)) {
        return Step::bad_format;
    }
    JsonValue* tenant = json_parse(item->text);
    if (tenant == nullptr) {
        return Step::next;
    }
    char name[NAME_SIZE] = {};
    char status[STATUS_SIZE] = {};
    char synchronized_text[SYNCHRONIZED_SIZE] = {};
    Step step = Step::next;
    RunState& state = run_state();
    if (json_get_string_value(tenant, "tenant_name", name, sizeof name) < 0 ||
        json_get_string_value(tenant, "status", status, sizeof status) < 0 ||
        !is_current_service(name)) {
        step = Step::next;
    } else if (strcmp(status, "in progress") == 0) {
        fputs(state.enabling_progress_count == 0 ? "Service enabling in progress..." : ".", stdout);
        fflush(stdout);
        state.enabling_progress_count++;
    } else if (strcmp(status, "connected") == 0) {
        if (state.sync_started == 0) {
            fputs("\nSyncing..", stdout);
            fflush(stdout);
        }
        state.sync_started = 1;
        fputs(".", stdout);
        fflush(stdout);
        json_get_string_value(tenant, "synchronized", synchronized_text, sizeof synchronized_text);
        step = strcmp(synchronized_text, "true") == 0 ? Step::enabled : Step::stop;
    } else if (strcmp(status, "disconnected") == 0) {
        step = Step::disconnected;
    } else if (strcmp(status, "error") == 0) {
        // The reason is read but deliberately not shown.
        char reason[REASON_SIZE] = {};
        json_get_string_value(tenant, "reason", reason, sizeof reason);
        step = Step::failed;
    }
    json_free_value(tenant);
    return step;
}

Step disabling_step(const JsonListItem* item) {
    if (!is_string_item(item)) {
        return Step::bad_format;
    }
    JsonValue* tenant = json_parse(item->text);
    if (tenant == nullptr) {
        return Step::next;
    }
    char name[NAME_SIZE] = {};
    char status[STATUS_SIZE] = {};
    bool disabled = json_get_string_value(tenant, "tenant_name", name, sizeof name) >= 0 &&
                    json_get_string_value(tenant, "status", status, sizeof status) >= 0 &&
                    is_current_service(name) && strcmp(status, "disconnected") == 0;
    json_free_value(tenant);
    return disabled ? Step::disconnected : Step::next;
}

// Runs `step_of` over the event's elements until one settles or stops.
Step follow_event(const JsonValue* data, Step (*step_of)(const JsonListItem*)) {
    TenantList list{};
    if (!read_tenant_list(data, &list)) {
        return Step::bad_format;
    }
    Step step = Step::next;
    for (int i = 0; i < list.count && step == Step::next; i++) {
        step = step_of(list.items[i]);
    }
    release_tenant_list(&list);
    return step;
}

}  // namespace

char* enable_response(JsonValue* data) {
    char reason[REASON_SIZE] = {};
    Ack ack = read_ack(data, "An error occurred while enabling service.\n", reason, sizeof reason);
    if (ack == Ack::accepted) {
        printf("Requested service enabling for '%s'...\n", run_state().service_name);
        fflush(stdout);
    } else if (ack == Ack::refused) {
        finishf(stderr, 1, "Could not enable service '%s'. %s\n", run_state().service_name, reason);
    }
    return nullptr;
}

// A refusal's reason is read but not shown.
char* disable_response(JsonValue* data) {
    char reason[REASON_SIZE] = {};
    Ack ack = read_ack(data, "An error occurred while disabling service.\n", reason, sizeof reason);
    if (ack == Ack::accepted) {
        printf("Requested service disabling for '%s'...\n", run_state().service_name);
        fflush(stdout);
    } else if (ack == Ack::refused) {
        finishf(stderr, 1, "Could not disable service '%s'. %s\n", run_state().service_name, "");
    }
    return nullptr;
}

char* enable_event_handler(JsonValue* data) {
    if (data == nullptr) {
        return nullptr;
    }
    switch (follow_event(data, enabling_step)) {
        case Step::enabled:
            finish(stdout, "\nService enabled and synchronized successfully.\n", 0);
        case Step::disconnected:
            finishf(stderr, 1, "\nCould not enable service '%s'. Received a disconnection event.\n",
                    run_state().service_name);
        case Step::failed:
            finishf(stderr, 1, "\nCould not enable service '%s'. \n", run_state().service_name);
        case Step::bad_format:
            finish(stderr, BAD_TENANTS_EVENT, 1);
        case Step::next:
        case Step::stop:
            break;
    }
    return nullptr;
}

char* disable_event_handler(JsonValue* data) {
    if (data == nullptr) {
        return nullptr;
    }
    switch (follow_event(data, disabling_step)) {
        case Step::disconnected:
            finish(stdout, "Service disabled successfully.\n", 0);
        case Step::bad_format:
            finish(stderr, BAD_TENANTS_EVENT, 1);
        default:
            break;
    }
    return nullptr;
}

// Progress and a started sync count as enabled: the Transfer Agent keeps
// synchronising after the tool leaves.
void enabling_timeout_callback(evutil_socket_t fd, short flags, void* argument) {
    RunState& state = run_state();
    if (state.enabling_progress_count != 0 && state.sync_started == 1) {
        state.sync_started = 0;
        finish(stdout, "\nService enabled successfully.\n", 0);
    }
    if (state.enabling_progress_count != 0) {
        finish(stderr,
               "\nService is still not enabled after 15 seconds.\nTransfer Agent will continue "
               "trying to enable it but you should probably check that you can access Sylvane "
               "network from this machine and whether provided API key is correct.\n",
               1);
    }
    timeout_callback(fd, flags, argument);  // nothing seen: the plain time-out
}

// Only enabling advances the progress count, so a disabling run reports the
// second text; the first is kept for a shared counter.
void disabling_timeout_callback(evutil_socket_t fd, short flags, void* argument) {
    if (run_state().enabling_progress_count != 0) {
        finish(stderr,
               "\nTransfer Agent was not able to disable the specified service. Please retry.\n",
               1);
    }
    timeout_callback(fd, flags, argument);  // nothing seen: the plain time-out
}
