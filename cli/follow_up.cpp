#include "cli/follow_up.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/report.h"
#include "cli/run_state.h"
#include "cli/startup.h"
#include "cli/tenants.h"

namespace {

// A "reason" as the agent sent it; JSON output carries it only when sent.
struct Reason {
    char text[REASON_SIZE];
    bool sent;

    void read(const JsonValue* tenant) {
        sent = json_get_string_value(tenant, "reason", text, sizeof text) >= 0;
    }
    const char* sent_text() const { return sent ? text : nullptr; }
};

// The acknowledgement of connect_tenants or disconnect_tenants for the
// current service.
enum class Ack { none, accepted, refused };

Ack find_ack(const TenantList& list, Reason* reason) {
    for (int i = 0; i < list.count; i++) {
        if (!is_string_item(list.items[i])) {
            continue;
        }
        JsonValue* tenant = parse_tenant(list.items[i]);
        if (tenant == nullptr) {
            continue;
        }
        char name[NAME_SIZE] = {};
        int ack = json_get_bool_value(tenant, "ack");
        bool readable =
            ack >= 0 && json_get_string_value(tenant, "tenant_name", name, sizeof name) >= 0;
        if (readable && is_current_service(name)) {
            if (ack == 0) {
                reason->read(tenant);
            }
            json_free_value(tenant);
            return ack == 1 ? Ack::accepted : Ack::refused;
        }
        json_free_value(tenant);
    }
    return Ack::none;
}

// Shared by both responses: the refusal fills `reason`. An accepted request
// prints its line (or, with --no-wait, ends the run there).
Ack read_ack(const JsonValue* data, const char* failure, const char* requested, Reason* reason) {
    TenantList list{};
    if (!read_tenant_list(data, &list)) {
        fail(Failure::bad_answer, failure, about_service());
    }
    Ack ack = find_ack(list, reason);
    release_tenant_list(&list);
    if (ack != Ack::accepted) {
        return ack;
    }
    JsonWriter fields = about_service();
    fields.text("state", "requested");
    if (run_state().no_wait) {
        if (!json_mode()) {
            printf(requested, run_state().service_name);
        }
        report_success(nullptr, fields);
        exit(0);
    }
    if (json_mode()) {
        emit(fields);
    } else {
        printf(requested, run_state().service_name);
        fflush(stdout);
    }
    return ack;
}

// What one event element means for the service being followed.
enum class Step { next, stop, enabled, disconnected, failed, bad_format };

// One progress line: dots in human mode, an object per event in JSON mode.
void show_progress(const char* status, const char* synchronized_text) {
    RunState& state = run_state();
    if (json_mode()) {
        JsonWriter fields = about_service();
        fields.text("status", status);
        if (synchronized_text != nullptr) {
            fields.boolean("synchronized", strcmp(synchronized_text, "true") == 0);
        }
        emit(fields);
        return;
    }
    if (synchronized_text == nullptr) {
        fputs(state.enabling_progress_count == 0 ? "Service enabling in progress..." : ".", stdout);
        fflush(stdout);
        return;
    }
    if (state.sync_started == 0) {
        fputs("\nSyncing..", stdout);
        fflush(stdout);
    }
    fputs(".", stdout);
    fflush(stdout);
}

Step enabling_step(const JsonListItem* item, Reason* reason) {
    if (!is_string_item(item)) {
        return Step::bad_format;
    }
    JsonValue* tenant = parse_tenant(item);
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
        show_progress(status, nullptr);
        state.enabling_progress_count++;
    } else if (strcmp(status, "connected") == 0) {
        json_get_string_value(tenant, "synchronized", synchronized_text, sizeof synchronized_text);
        show_progress(status, synchronized_text);
        state.sync_started = 1;
        step = strcmp(synchronized_text, "true") == 0 ? Step::enabled : Step::stop;
    } else if (strcmp(status, "disconnected") == 0) {
        step = Step::disconnected;
    } else if (strcmp(status, "error") == 0) {
        // Human mode does not show the reason; JSON mode does.
        reason->read(tenant);
        step = Step::failed;
    }
    json_free_value(tenant);
    return step;
}

Step disabling_step(const JsonListItem* item, Reason*) {
    if (!is_string_item(item)) {
        return Step::bad_format;
    }
    JsonValue* tenant = parse_tenant(item);
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
Step follow_event(const JsonValue* data, Step (*step_of)(const JsonListItem*, Reason*),
                  Reason* reason) {
    TenantList list{};
    if (!read_tenant_list(data, &list)) {
        return Step::bad_format;
    }
    Step step = Step::next;
    for (int i = 0; i < list.count && step == Step::next; i++) {
        step = step_of(list.items[i], reason);
    }
    release_tenant_list(&list);
    return step;
}

// The service reached its final state: ends the run with status 0.
[[noreturn]] void settled(const char* human_text, const char* state, const char* synchronized) {
    JsonWriter fields = about_service();
    fields.text("state", state);
    if (synchronized != nullptr) {
        fields.boolean("synchronized", strcmp(synchronized, "true") == 0);
    }
    report_success(human_text, fields);
    exit(0);
}

}  // namespace

char* enable_response(JsonValue* data) {
    Reason reason{};
    if (read_ack(data, "An error occurred while enabling service.\n",
                 "Requested service enabling for '%s'...\n", &reason) == Ack::refused) {
        failf(Failure::refused, about_service(reason.sent_text()),
              "Could not enable service '%s'. %s\n", run_state().service_name, reason.text);
    }
    return nullptr;
}

// Human mode does not show a refusal's reason.
char* disable_response(JsonValue* data) {
    Reason reason{};
    if (read_ack(data, "An error occurred while disabling service.\n",
                 "Requested service disabling for '%s'...\n", &reason) == Ack::refused) {
        failf(Failure::refused, about_service(reason.sent_text()),
              "Could not disable service '%s'. %s\n", run_state().service_name, "");
    }
    return nullptr;
}

char* enable_event_handler(JsonValue* data) {
    if (data == nullptr) {
        return nullptr;
    }
    Reason reason{};
    switch (follow_event(data, enabling_step, &reason)) {
        case Step::enabled:
            settled("\nService enabled and synchronized successfully.\n", "enabled", "true");
        case Step::disconnected:
            failf(Failure::failed, about_service(),
                  "\nCould not enable service '%s'. Received a disconnection event.\n",
                  run_state().service_name);
        case Step::failed:
            failf(Failure::failed, about_service(reason.sent_text()),
                  "\nCould not enable service '%s'. \n", run_state().service_name);
        case Step::bad_format:
            fail(Failure::bad_answer, BAD_TENANTS_EVENT, about_service());
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
    Reason reason{};
    switch (follow_event(data, disabling_step, &reason)) {
        case Step::disconnected:
            settled("Service disabled successfully.\n", "disabled", nullptr);
        case Step::bad_format:
            fail(Failure::bad_answer, BAD_TENANTS_EVENT, about_service());
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
        settled("\nService enabled successfully.\n", "enabled", "false");
    }
    if (state.enabling_progress_count != 0) {
        failf(Failure::timeout, about_service(),
              "\nService is still not enabled after %lld seconds.\nTransfer Agent will continue "
              "trying to enable it but you should probably check that you can access Sylvane "
              "network from this machine and whether provided API key is correct.\n",
              static_cast<long long>(state.timeout_seconds));
    }
    timeout_callback(fd, flags, argument);  // nothing seen: the plain time-out
}

// Only enabling advances the progress count, so a disabling run reports the
// second text; the first is kept for a shared counter.
void disabling_timeout_callback(evutil_socket_t fd, short flags, void* argument) {
    if (run_state().enabling_progress_count != 0) {
        fail(Failure::timeout,
             "\nTransfer Agent was not able to disable the specified service. Please retry.\n",
             about_service());
    }
    timeout_callback(fd, flags, argument);  // nothing seen: the plain time-out
}
