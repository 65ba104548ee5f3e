// The command table. Time-outs cover connecting, the answer and the awaited
// events; --wait replaces those of -a, -s, -d and bounds --events.

#include "cli/commands/command_table.h"

#include "cli/agent/session.h"
#include "cli/commands/families.h"
#include "cli/commands/requests.h"
#include "cli/commands/run.h"

namespace {

constexpr int WATCH_FAILURE = 3;

// clang-format off
constexpr CommandRow COMMANDS[] = {
    {.id = CommandId::help, .shown_as = "-h", .answer_here = print_help,
     .needs = "", .accepts = ""},
    {.id = CommandId::version, .shown_as = "--version", .answer_here = print_version,
     .needs = "", .accepts = ""},
    {.id = CommandId::list, .shown_as = "-l",
     .agent_command = "get_tenants", .build = build_empty_request, .on_answer = guarded<list_answer>,
     .timeout_seconds = 2, .on_timeout = no_answer_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = ""},
    {.id = CommandId::get_proxy, .shown_as = "-g",
     .agent_command = "get_proxy", .build = build_empty_request,
     .on_answer = guarded<get_proxy_answer>,
     .timeout_seconds = 4, .on_timeout = agent_silent_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = ""},
    {.id = CommandId::remove, .shown_as = "-r", .prepare = prepare_named,
     .agent_command = "remove_tenant", .build = build_remove_request,
     .on_answer = guarded<remove_answer>,
     .timeout_seconds = 4, .on_timeout = no_answer_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = ""},
    {.id = CommandId::enable, .shown_as = "-s", .prepare = prepare_named,
     .agent_command = "connect_tenants", .build = build_connect_request,
     .on_answer = guarded<enable_answer>, .on_event = guarded<enable_event>,
     .timeout_seconds = 15, .on_timeout = enabling_timeout,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = "",
     .takes_wait = true, .takes_no_wait = true},
    {.id = CommandId::disable, .shown_as = "-d", .prepare = prepare_named,
     .agent_command = "disconnect_tenants", .build = build_disconnect_request,
     .on_answer = guarded<disable_answer>, .on_event = guarded<disable_event>,
     .timeout_seconds = 5, .on_timeout = disabling_timeout,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = "",
     .takes_wait = true, .takes_no_wait = true},
    {.id = CommandId::add, .shown_as = "-a", .prepare = prepare_add,
     .agent_command = "add_tenant", .build = build_add_request,
     .on_answer = guarded<add_answer>, .on_event = guarded<add_event>,
     .timeout_seconds = 4, .on_timeout = agent_silent_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "pk", .accepts = "pkfu",
     .takes_wait = true},
    {.id = CommandId::edit, .shown_as = "-e", .prepare = prepare_edit,
     .agent_command = "edit_tenant", .build = build_edit_request,
     .on_answer = guarded<edit_answer>,
     .timeout_seconds = 4, .on_timeout = agent_silent_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "p", .accepts = "pf"},
    {.id = CommandId::save_proxy, .shown_as = "-c", .prepare = prepare_save_proxy,
     .agent_command = "save_proxy", .build = build_save_proxy_request,
     .on_answer = guarded<save_proxy_answer>,
     .timeout_seconds = 4, .on_timeout = agent_silent_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "t", .accepts = "t"},
    {.id = CommandId::enable_proxy, .shown_as = "--enableProxy", .prepare = prepare_switch_on,
     .agent_command = "set_proxy", .build = build_enable_flag_request,
     .on_answer = guarded<set_proxy_answer>,
     .timeout_seconds = 4, .on_timeout = agent_silent_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = ""},
    {.id = CommandId::disable_proxy, .shown_as = "--disableProxy", .prepare = prepare_switch_off,
     .agent_command = "set_proxy", .build = build_enable_flag_request,
     .on_answer = guarded<set_proxy_answer>,
     .timeout_seconds = 4, .on_timeout = agent_silent_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = ""},
    {.id = CommandId::enable_audit, .shown_as = "--enableAuthenticationAudit",
     .prepare = prepare_switch_on,
     .agent_command = "set_authentication_audit", .build = build_enable_flag_request,
     .on_answer = guarded<audit_answer>,
     .timeout_seconds = 4, .on_timeout = agent_silent_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = ""},
    {.id = CommandId::disable_audit, .shown_as = "--disableAuthenticationAudit",
     .prepare = prepare_switch_off,
     .agent_command = "set_authentication_audit", .build = build_enable_flag_request,
     .on_answer = guarded<audit_answer>,
     .timeout_seconds = 4, .on_timeout = agent_silent_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = ""},
    {.id = CommandId::save_traceability, .shown_as = "--saveTraceabilityConfig",
     .prepare = prepare_traceability,
     .agent_command = "save_traceability_logger_config", .build = build_traceability_request,
     .on_answer = guarded<traceability_answer>,
     .timeout_seconds = 4, .on_timeout = agent_silent_in_time,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = ""},
    {.id = CommandId::events, .shown_as = "--events",
     .on_event = guarded<watch_event>,
     .timeout_seconds = 0, .on_timeout = watch_time_over, .on_gave_up = end_unreachable,
     .on_hung_up = watch_hung_up, .on_over = watch_over,
     .before_run = watch_signals_and_connection,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = "", .takes_wait = true,
     .human_failure_status = WATCH_FAILURE},
    {.id = CommandId::check, .shown_as = "--check", .prepare = start_check_clock,
     .agent_command = "get_proxy", .build = build_empty_request,
     .on_answer = guarded<check_answer>,
     .timeout_seconds = 2, .on_timeout = check_failed, .on_gave_up = check_failed,
     .on_over = check_over,
     .attempts = SINGLE_ATTEMPT, .needs = "", .accepts = "",
     .human_failure_status = WATCH_FAILURE},
    {.id = CommandId::metrics, .shown_as = "--metrics", .prepare = start_metrics,
     .agent_command = "get_tenants", .build = build_empty_request,
     .on_answer = guarded<metrics_tenants_answer>,
     .timeout_seconds = 4, .on_timeout = metrics_failed, .on_gave_up = metrics_failed,
     .on_over = metrics_over, .on_busy = metrics_busy,
     .attempts = SINGLE_ATTEMPT, .needs = "", .accepts = ""},
    {.id = CommandId::metrics_file, .shown_as = "--metrics-file", .prepare = start_metrics,
     .agent_command = "get_tenants", .build = build_empty_request,
     .on_answer = guarded<metrics_tenants_answer>,
     .timeout_seconds = 4, .on_timeout = metrics_failed, .on_gave_up = metrics_failed,
     .on_over = metrics_over, .on_busy = metrics_busy,
     .attempts = SINGLE_ATTEMPT, .needs = "", .accepts = ""},
    // The desired-state commands time each request themselves: the reads
    // and the steps without events take this row's 4 s, the creates,
    // enables and disables those of -a, -s and -d (or --wait).
    {.id = CommandId::diff, .shown_as = "--diff", .prepare = prepare_desired,
     .agent_command = "get_tenants", .build = build_empty_request,
     .on_answer = guarded<desired_listing_answer>,
     .timeout_seconds = 4, .times_itself = true, .on_timeout = desired_timed_out,
     .on_gave_up = end_unreachable, .on_hung_up = desired_hung_up,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = "", .takes_prune = true},
    {.id = CommandId::apply, .shown_as = "--apply", .prepare = prepare_desired,
     .agent_command = "get_tenants", .build = build_empty_request,
     .on_answer = guarded<desired_listing_answer>,
     .timeout_seconds = 4, .times_itself = true, .on_timeout = desired_timed_out,
     .on_gave_up = end_unreachable, .on_hung_up = desired_hung_up, .on_busy = apply_busy,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = "k",
     .takes_wait = true, .takes_no_wait = true, .takes_prune = true, .takes_dry_run = true},
    {.id = CommandId::export_state, .shown_as = "--export", .prepare = prepare_desired,
     .agent_command = "get_tenants", .build = build_empty_request,
     .on_answer = guarded<desired_listing_answer>,
     .timeout_seconds = 4, .times_itself = true, .on_timeout = desired_timed_out,
     .on_gave_up = end_unreachable, .on_hung_up = desired_hung_up,
     .attempts = TRANSFER_AGENT_ATTEMPTS, .needs = "", .accepts = ""},
};
// clang-format on

}  // namespace

const CommandRow& command_row(CommandId id) {
    for (const CommandRow& row : COMMANDS) {
        if (row.id == id) {
            return row;
        }
    }
    return COMMANDS[0];  // every CommandId has a row (the table test checks)
}
