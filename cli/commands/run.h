// The run of one command, from its row: what the handlers of every family
// share (the service the command is about, the time-out it was given, the
// texts and outcomes common to all) and the runner itself.
#pragma once

#include <optional>
#include <string>

#include "cli/command_line/invocation.h"
#include "cli/commands/command_table.h"
#include "cli/output/output.h"

// Runs the invocation's command and ends the run; never returns.
[[noreturn]] void run_invocation(const Invocation& in);

// The command being run.
struct RunningCommand {
    const CommandRow* row;
    const Invocation* invocation;
    int64_t timeout_seconds;    // what the time-out was armed with (0: none)
    const char* service_typed;  // the service as typed (cut for add and edit); null: none
    std::string service_sent;   // as sent: each bad UTF-8 sequence as U+FFFD
};

const RunningCommand& running();

// Names the service the command is about (`typed` lives for the run).
void name_service(const char* typed);

// True when `name`, read from the agent, is the running command's service.
bool is_running_service(const std::optional<std::string>& name);

// {"service": <as sent>} (when the command is about one), then "reason"
// when given.
JsonWriter about_service(const char* reason = nullptr);

// `text` as the agent's JSON reader will have it: each bad UTF-8 sequence
// as U+FFFD. Throws std::bad_alloc when out of memory.
std::string as_sent(const char* text);

// The texts every family shares.
constexpr const char* NO_ANSWER =
    "Transfer Agent process did not respond in expected time. Please retry.\n";
constexpr const char* NO_AGENT =
    "Transfer Agent process did not respond in expected time. Please retry. Make sure the "
    "Sylvane Network process is currently running\n";
constexpr const char* UNREACHABLE_MESSAGE =
    "Could not connect to the Transfer Agent on 127.0.0.1:11038.\n";
constexpr const char* OUT_OF_MEMORY = "Unable to allocate memory.\n";
// What every "tenants_event" handler says of a malformed event. It speaks
// of adding even while enabling or disabling; scripts match the text.
constexpr const char* BAD_TENANTS_EVENT =
    "Error while trying to add a service. Server responded with bad formatted answer\n";

// The two time-outs of the single-answer commands: "timeout", or
// "unreachable" when no connection was ever made.
[[noreturn]] void no_answer_in_time();     // -l, -r and the follow-ups' last word
[[noreturn]] void agent_silent_in_time();  // the others: "Make sure ... running"
// Every attempt failed.
[[noreturn]] void end_unreachable();
// `failure` with `text`, about the running command's service.
[[noreturn]] void fail_about_service(Failure failure, Message text, const char* reason = nullptr);
// The agent asked the tool to disconnect (it serves another client): the
// usual busy failure.
[[noreturn]] void fail_busy();
