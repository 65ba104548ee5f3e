// The runner: from the invocation's row to the end of the run.

#include "cli/commands/run.h"

#include <cstring>

#include "cli/agent/session.h"
#include "cli/commands/strict_rules.h"

namespace {

constexpr const char* BUSY_MESSAGE =
    "Could not execute command because another program is executing operation with the "
    "Transfer Agent. You probably have a Graphic User interface or another client communicating "
    "with the Sylvane service. Please close the client then retry.\n";
constexpr const char* TOO_LARGE =
    "Transfer Agent message larger than 16 MiB: connection dropped.\n";
constexpr const char* NO_USABLE_ANSWER = "The Transfer Agent gave no usable answer.\n";

RunningCommand command{};

void timed_out() {
    without_running_out([] { command.row->on_timeout(); });
}

void busy() {
    if (command.row->on_busy != nullptr) {
        command.row->on_busy();
        return;
    }
    without_running_out([] { fail_busy(); });
}

void gave_up() {
    without_running_out(command.row->on_gave_up != nullptr ? command.row->on_gave_up
                                                           : end_unreachable);
}

void hung_up() {
    without_running_out(command.row->on_hung_up);
}

// Said at once, and once: a retry may bring the same message again. The
// command's time-out still ends the run.
void too_large() {
    static bool said = false;
    if (!said) {
        said = true;
        notice(TOO_LARGE);
    }
}

// The hooks of this run's row. With --json a run whose every attempt failed
// ends at once rather than at its time-out.
SessionHooks hooks_of(const CommandRow& row, const Invocation& in) {
    SessionHooks hooks{};
    hooks.timed_out = timed_out;
    hooks.busy = busy;
    hooks.gave_up = row.on_gave_up != nullptr || in.json ? gave_up : nullptr;
    hooks.too_large = too_large;
    hooks.hung_up = row.on_hung_up != nullptr ? hung_up : nullptr;
    return hooks;
}

[[noreturn]] void fail_to_start(int result) {
    finish(Outcome::fail(Failure::internal,
                         result == SESSION_ERR_DISPATCHER
                             ? "Unable to create event dispatcher\n"
                             : "Unable to initiate connection to Transfer Agent server: memory "
                               "allocation failure\n"));
}

// Every answer was consumed and nothing settled the command (a mismatched
// answer, say): the human interface has always ended there, silently and
// with status 0.
[[noreturn]] void unusable_answer() {
    Outcome outcome = Outcome::fail(Failure::bad_answer, NO_USABLE_ANSWER, about_service());
    outcome.human = HumanException{{}, {}, 0};
    finish(outcome);
}

// The conversation with the agent, as the row says.
[[noreturn]] void converse(const CommandRow& row, const Invocation& in) {
    static SessionHooks hooks;
    hooks = hooks_of(row, in);
    int started = Session.start(row.attempts, &hooks);
    if (started != SESSION_OK) {
        fail_to_start(started);
    }
    void* request = row.prepare != nullptr ? row.prepare(in) : nullptr;
    command.timeout_seconds =
        row.takes_wait && in.wait != nullptr ? wait_seconds(in) : row.timeout_seconds;
    if (command.timeout_seconds > 0 && !row.times_itself) {
        Session.arm_timeout(command.timeout_seconds);
    }
    if (row.on_event != nullptr && Session.follow_tenant_events(row.on_event) != SESSION_OK) {
        finish(Outcome::fail(Failure::internal, OUT_OF_MEMORY));
    }
    if (row.before_run != nullptr) {
        row.before_run();
    }
    if (row.agent_command != nullptr) {
        Session.send(row.agent_command, row.build, request, row.on_answer);
    }
    Session.run();
    if (row.on_over != nullptr) {
        row.on_over();
    }
    unusable_answer();
}

}  // namespace

void fail_busy() {
    fail_about_service(Failure::busy, BUSY_MESSAGE);
}

const RunningCommand& running() {
    return command;
}

void run_invocation(const Invocation& in) {
    const CommandRow& row = command_row(in.command);
    command.row = &row;
    command.invocation = &in;
    if (in.reading == Reading::strict) {
        refuse_unless_well_formed(row, in);
    }
    set_human_failure_status(row.human_failure_status);
    if (row.answer_here != nullptr) {
        row.answer_here(in);
    }
    converse(row, in);
}

void name_service(const char* typed) {
    command.service_typed = typed;
    command.service_sent = as_sent(typed);
}

bool is_running_service(const std::optional<std::string>& name) {
    return command.service_typed != nullptr && name && *name == command.service_sent;
}

JsonWriter about_service(const char* reason) {
    JsonWriter fields;
    if (command.service_typed != nullptr) {
        fields.text("service", command.service_sent.c_str());
    }
    return fields.text("reason", reason);
}

// Through the JSON library's own writer and reader, so that the result is
// exactly what the agent will read.
std::string as_sent(const char* text) {
    const size_t length = strlen(text);
    JsonValue* object = json_create_json_object();
    std::string written(6 * length + 16, '\0');
    if (object == nullptr || json_add_string_child(object, "n", text) != 0 ||
        json_serialize(object, written.data(), written.size()) < 0) {
        json_free_value(object);
        throw std::bad_alloc();
    }
    json_free_value(object);
    JsonValue* parsed = json_parse(written.c_str());
    std::string sent(3 * length + 4, '\0');
    int sent_length = json_get_string_value(parsed, "n", sent.data(), sent.size());
    json_free_value(parsed);
    if (sent_length < 0) {
        throw std::bad_alloc();
    }
    sent.resize(static_cast<size_t>(sent_length));
    return sent;
}

void no_answer_in_time() {
    fail_about_service(Session.connected() ? Failure::timeout : Failure::unreachable, NO_ANSWER);
}

void agent_silent_in_time() {
    fail_about_service(Session.connected() ? Failure::timeout : Failure::unreachable, NO_AGENT);
}

void end_unreachable() {
    fail_about_service(Failure::unreachable, UNREACHABLE_MESSAGE);
}

void fail_about_service(Failure failure, Message text, const char* reason) {
    finish(Outcome::fail(failure, std::move(text), about_service(reason)));
}
