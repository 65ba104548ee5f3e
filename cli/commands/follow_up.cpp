// Enabling (-s) and disabling (-d) are only acknowledged by the Transfer
// Agent's answer; their outcome comes through "tenants_event" events,
// followed here until the service is settled or the time-out fires.

#include <string>

#include "cli/agent/tenants.h"
#include "cli/commands/families.h"
#include "cli/commands/run.h"

namespace {

// "synchronized" has always been read as at most 8 bytes of text.
constexpr size_t SYNCHRONIZED_LIMIT = 8;
constexpr size_t REASON_LIMIT = 99;

// What enabling has seen of the service so far.
struct Enabling {
    int progress_events;  // "in progress" events
    bool sync_started;    // a "connected" event (cleared by the time-out before its success)
};

Enabling enabling{};

// The acknowledgement of connect_tenants or disconnect_tenants.
struct Ack {
    int accepted = -1;  // 1, 0, or -1 when the answer does not name the service
    std::optional<std::string> reason;
};

// The first element naming the service with a readable "ack"; elements that
// cannot be read are skipped. An answer without a list ends the run.
Ack read_ack(const JsonValue* data, const char* failure) {
    Ack ack;
    TenantsRead read = read_tenants(data, [&](TenantElement element, const Tenant& tenant) {
        if (element != TenantElement::tenant || tenant.ack < 0 ||
            !is_running_service(tenant.name)) {
            return TenantWalk::next;
        }
        ack.accepted = tenant.ack;
        ack.reason = tenant.reason;
        return TenantWalk::stop;
    });
    if (read == TenantsRead::out_of_memory) {
        finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
    }
    if (read == TenantsRead::missing) {
        fail_about_service(Failure::bad_answer, failure);
    }
    return ack;
}

// An accepted request says so, and with --no-wait ends the run there.
void requested(const char* pattern) {
    Message text = Message::format(pattern, {running().service_typed});
    JsonWriter fields = about_service();
    fields.text("state", "requested");
    if (running().invocation->no_wait) {
        finish(Outcome::success(text, fields));
    }
    report(Progress{text, fields});
}

bool is_true(const std::optional<std::string>& text) {
    return text && std::string_view(*text).substr(0, SYNCHRONIZED_LIMIT) == "true";
}

// The service reached its final state.
[[noreturn]] void settled(const char* text, const char* state, const char* synchronized) {
    JsonWriter fields = about_service();
    fields.text("state", state);
    if (synchronized != nullptr) {
        fields.boolean("synchronized", std::string_view(synchronized) == "true");
    }
    finish(Outcome::success(text, fields));
}

// What one event element means for the service being enabled.
enum class Step { next, stop, enabled, disconnected, failed, bad_format };

// Progress dots in the human interface, one object per event in JSON.
Step enabling_step(const Tenant& tenant, std::optional<std::string>* reason) {
    const std::string& status = *tenant.status;
    if (status == "in progress") {
        report(Progress{enabling.progress_events == 0 ? "Service enabling in progress..." : ".",
                        about_service().text("status", "in progress")});
        enabling.progress_events++;
        return Step::next;
    }
    if (status == "connected") {
        const bool synchronized = is_true(tenant.synchronized);
        JsonWriter fields = about_service();
        fields.text("status", "connected").boolean("synchronized", synchronized);
        report(Progress{enabling.sync_started ? "." : "\nSyncing...", fields});
        enabling.sync_started = true;
        return synchronized ? Step::enabled : Step::stop;
    }
    if (status == "disconnected") {
        return Step::disconnected;
    }
    if (status == "error") {
        *reason = tenant.reason;
        return Step::failed;
    }
    return Step::next;
}

// Runs `step_of` over the event's elements naming the service until one
// settles or stops; elements that are not strings make the event bad.
template <typename StepOf>
Step follow_event(const JsonValue* data, StepOf step_of) {
    Step step = Step::next;
    TenantsRead read = read_tenants(data, [&](TenantElement element, const Tenant& tenant) {
        if (element == TenantElement::not_a_string) {
            step = Step::bad_format;
        } else if (element == TenantElement::tenant && tenant.status &&
                   is_running_service(tenant.name)) {
            step = step_of(tenant);
        }
        return step == Step::next ? TenantWalk::next : TenantWalk::stop;
    });
    if (read == TenantsRead::out_of_memory) {
        finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
    }
    return read == TenantsRead::missing ? Step::bad_format : step;
}

}  // namespace

void enable_answer(JsonValue* data) {
    Ack ack = read_ack(data, "An error occurred while enabling service.\n");
    if (ack.accepted == 1) {
        requested("Requested service enabling for '%s'...\n");
    } else if (ack.accepted == 0) {
        Message text =
            Message::format("Could not enable service '%s'. ", {running().service_typed});
        text.quote(ack.reason.value_or(""), REASON_LIMIT).say("\n");
        fail_about_service(Failure::refused, text, ack.reason ? ack.reason->c_str() : nullptr);
    }
}

// The human interface does not show a refusal's reason.
void disable_answer(JsonValue* data) {
    Ack ack = read_ack(data, "An error occurred while disabling service.\n");
    if (ack.accepted == 1) {
        requested("Requested service disabling for '%s'...\n");
    } else if (ack.accepted == 0) {
        fail_about_service(
            Failure::refused,
            Message::format("Could not disable service '%s'. \n", {running().service_typed}),
            ack.reason ? ack.reason->c_str() : nullptr);
    }
}

// The human interface does not show the reason of an "error" event.
void enable_event(JsonValue* data) {
    if (data == nullptr) {
        return;
    }
    std::optional<std::string> reason;
    Step step =
        follow_event(data, [&](const Tenant& tenant) { return enabling_step(tenant, &reason); });
    const char* name = running().service_typed;
    switch (step) {
        case Step::enabled:
            settled("\nService enabled and synchronized successfully.\n", "enabled", "true");
        case Step::disconnected:
            fail_about_service(Failure::failed,
                               Message::format("\nCould not enable service '%s'. Received a "
                                               "disconnection event.\n",
                                               {name}));
        case Step::failed:
            fail_about_service(Failure::failed,
                               Message::format("\nCould not enable service '%s'. \n", {name}),
                               reason ? reason->c_str() : nullptr);
        case Step::bad_format:
            fail_about_service(Failure::bad_answer, BAD_TENANTS_EVENT);
        case Step::next:
        case Step::stop:
            break;
    }
}

void disable_event(JsonValue* data) {
    if (data == nullptr) {
        return;
    }
    Step step = follow_event(data, [](const Tenant& tenant) {
        return *tenant.status == "disconnected" ? Step::disconnected : Step::next;
    });
    if (step == Step::disconnected) {
        settled("Service disabled successfully.\n", "disabled", nullptr);
    }
    if (step == Step::bad_format) {
        fail_about_service(Failure::bad_answer, BAD_TENANTS_EVENT);
    }
}

// Progress and a started sync count as enabled: the Transfer Agent keeps
// synchronising after the tool leaves.
void enabling_timeout() {
    if (enabling.progress_events != 0 && enabling.sync_started) {
        enabling.sync_started = false;
        settled("\nService enabled successfully.\n", "enabled", "false");
    }
    if (enabling.progress_events != 0) {
        fail_about_service(Failure::timeout,
                           Message("\nService is still not enabled after ")
                               .say(std::to_string(running().timeout_seconds))
                               .say(" seconds.\nTransfer Agent will continue trying to enable it "
                                    "but you should probably check that you can access Sylvane "
                                    "network from this machine and whether provided API key is "
                                    "correct.\n"));
    }
    no_answer_in_time();  // nothing seen: the plain time-out
}

// Only enabling counts progress, so a disabling run reports the second
// text; the first is kept for a shared counter.
void disabling_timeout() {
    if (enabling.progress_events != 0) {
        fail_about_service(
            Failure::timeout,
            "\nTransfer Agent was not able to disable the specified service. Please retry.\n");
    }
    no_answer_in_time();
}
