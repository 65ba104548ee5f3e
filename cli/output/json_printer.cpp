// The JSON printer: docs/json.md's objects, one per line on standard
// output, each {"version": 1, ...}; the last of a run has "ok". Standard
// error stays empty.

#include <string>

#include "cli/agent/tenants.h"
#include "cli/desired_state/render.h"
#include "cli/output/output.h"
#include "cli/output/printers.h"

namespace {

constexpr const char* BAD_LISTING =
    "Error while listing the services. Server responded with bad formatted answer";

// What a run prints when it cannot even build its own object.
constexpr const char* OUT_OF_MEMORY_OBJECT =
    "{\"version\": 1, \"ok\": false, \"error\": \"internal\", \"message\": \"Unable to allocate "
    "memory.\"}\n";

// {"version": 1, <fields>} on one line. A writer that ran out of memory ends
// the run as out of memory.
void emit(const JsonWriter& fields) {
    JsonWriter line;
    line.number("version", 1).merge(fields);
    std::string text = line.object();
    if (text.empty()) {
        finish_out_of_memory();
    }
    text += '\n';
    write_checked(stdout, text);
    flush_checked(stdout);
}

// The human text on one line: its lines joined with a blank, without the
// newlines and blanks that only a terminal needs at either end.
std::string one_line(const std::string& text) {
    std::string line;
    size_t start = text.find_first_not_of("\n ");
    size_t end = text.find_last_not_of("\n ");
    if (start == std::string::npos) {
        return line;
    }
    for (char c : std::string_view(text).substr(start, end - start + 1)) {
        line += c == '\n' ? ' ' : c;
    }
    return line;
}

void add_text(JsonWriter& fields, const char* key, const std::optional<std::string>& value) {
    if (value) {
        fields.text(key, value->c_str());
    }
}

// One service of the listing, with the agent's own field values.
std::string service_object(const Tenant& tenant) {
    JsonWriter fields;
    add_text(fields, "service", tenant.name);
    add_text(fields, "uuid", tenant.uuid);
    add_text(fields, "status", tenant.status);
    add_text(fields, "ip_address", tenant.ip_address);
    if (tenant.has_port) {
        fields.number("port", tenant.port);
    }
    if (tenant.has_virtual_port) {
        fields.number("virtual_port", tenant.virtual_port);
    }
    add_text(fields, "onion_address", tenant.onion_address);
    return fields.object();
}

int failure_object(Failure failure, const std::string& message, const JsonWriter& extra) {
    JsonWriter fields;
    fields.boolean("ok", false)
        .text("error", failure_code(failure))
        .text("message", one_line(message).c_str())
        .merge(extra);
    emit(fields);
    return json_status(failure);
}

// {"ok": true, "services": [...]}, written once the whole list has been
// read: an element that is not a readable object makes it a bad answer.
int print_listing(const JsonValue* data) {
    std::string services = "[";
    bool readable = true;
    TenantsRead read = read_tenants(data, [&](TenantElement element, const Tenant& tenant) {
        if (element != TenantElement::tenant) {
            readable = false;
            return TenantWalk::stop;
        }
        std::string object = service_object(tenant);
        if (object.empty()) {
            finish_out_of_memory();
        }
        services += services.size() > 1 ? ", " : "";
        services += object;
        return TenantWalk::next;
    });
    if (read == TenantsRead::out_of_memory) {
        finish_out_of_memory();
    }
    if (!readable) {
        return failure_object(Failure::bad_answer, BAD_LISTING, JsonWriter());
    }
    // Written around the list rather than copied into one object: a
    // listing of megabytes is held once.
    write_checked(stdout, "{\"version\": 1, \"ok\": true, \"services\": ");
    write_checked(stdout, services);
    write_checked(stdout, "]}\n");
    return 0;
}

int print_proxy(const ProxySettings& proxy) {
    JsonWriter object;
    object.text("type", proxy.type.c_str())
        .text("ip_address", proxy.ip_address.c_str())
        .number("port", proxy.port)
        .boolean("enabled", proxy.enabled);
    emit(JsonWriter().boolean("ok", true).value("proxy", object.object()));
    return 0;
}

JsonWriter event_fields(const Tenant& tenant) {
    JsonWriter fields;
    add_text(fields, "service", tenant.name);
    add_text(fields, "status", tenant.status);
    if (tenant.synchronized == "true" || tenant.synchronized == "false") {
        fields.boolean("synchronized", tenant.synchronized == "true");
    }
    add_text(fields, "reason", tenant.reason);
    add_text(fields, "onion_address", tenant.onion_address);
    return fields;
}

void progress(const Progress& step) {
    if (step.event != nullptr) {
        emit(event_fields(*step.event));
    } else if (!step.fields.empty()) {
        emit(step.fields);
    }
}

void json_notice(const char*) {}

int final(const Outcome& outcome, int) {
    if (outcome.listing != nullptr) {
        return print_listing(outcome.listing);
    }
    if (outcome.proxy != nullptr) {
        return print_proxy(*outcome.proxy);
    }
    if (outcome.plan != nullptr) {
        std::string object = render_plan_json(*outcome.plan);
        if (object.empty()) {
            finish_out_of_memory();
        }
        write_checked(stdout, object + "\n");
        return json_status(outcome.failure);
    }
    if (failure_code(outcome.failure) != nullptr) {
        return failure_object(outcome.failure, outcome.text.raw(), outcome.fields);
    }
    emit(JsonWriter().boolean("ok", true).merge(outcome.fields));
    return json_status(outcome.failure);
}

int out_of_memory() {
    fputs(OUT_OF_MEMORY_OBJECT, stdout);
    return json_status(Failure::internal);
}

}  // namespace

const Printer JsonPrinter = {
    .progress = progress,
    .notice = json_notice,
    .final = final,
    .out_of_memory = out_of_memory,
};
