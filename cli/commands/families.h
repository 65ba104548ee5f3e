// The handlers of each family of commands, as the command table names
// them: services.cpp (add, edit, remove, list), follow_up.cpp (enable,
// disable), settings.cpp (proxy, audit, traceability), watch.cpp
// (--events), check.cpp (--check), metrics.cpp (--metrics, --metrics-file),
// tool.cpp (help, version), desired.cpp and apply.cpp (--diff, --apply,
// --export).
#pragma once

#include "cli/command_line/invocation.h"
#include "cli/output/output.h"
#include "sylvshared/json.h"

// services.cpp
void* prepare_add(const Invocation& in);
void* prepare_edit(const Invocation& in);
void* prepare_named(const Invocation& in);  // -r, -s, -d: the name, sent uncut
void add_answer(JsonValue* data);
void add_event(JsonValue* data);
void edit_answer(JsonValue* data);
void remove_answer(JsonValue* data);
void list_answer(JsonValue* data);
// Shared with the apply. The key of an add: -k, else the first line of
// --api-key-file's file, else SYLVANE_API_KEY; one that is missing or not 76
// bytes long ends the run. The static buffer it may return lives for the run.
const char* checked_key(const Invocation& in);
// Ends the run unless the socket on 127.0.0.1:11038 belongs to root, the
// user or --agent-uid's uid: the key goes to no one else.
void guard_key(const Invocation& in);

// desired.cpp: --diff, --apply (its steps in apply.cpp) and --export.
void* prepare_desired(const Invocation& in);
void desired_listing_answer(JsonValue* data);
void desired_proxy_answer(JsonValue* data);
void desired_event(JsonValue* data);
void desired_timed_out();
void desired_hung_up();
// apply.cpp: the agent asked to disconnect (busy) before or during an apply.
void apply_busy();

// follow_up.cpp
void enable_answer(JsonValue* data);
void enable_event(JsonValue* data);
void enabling_timeout();
void disable_answer(JsonValue* data);
void disable_event(JsonValue* data);
void disabling_timeout();

// settings.cpp
void* prepare_switch_on(const Invocation& in);
void* prepare_switch_off(const Invocation& in);
void* prepare_save_proxy(const Invocation& in);
void* prepare_traceability(const Invocation& in);
void get_proxy_answer(JsonValue* data);
void set_proxy_answer(JsonValue* data);
void save_proxy_answer(JsonValue* data);
void audit_answer(JsonValue* data);
void traceability_answer(JsonValue* data);

// watch.cpp
void watch_signals_and_connection();
void watch_event(JsonValue* data);
void watch_time_over();
void watch_hung_up();
[[noreturn]] void watch_over();

// check.cpp
void* start_check_clock(const Invocation& in);
void check_answer(JsonValue* data);
void check_failed();
[[noreturn]] void check_over();

// metrics.cpp
void* start_metrics(const Invocation& in);
void metrics_tenants_answer(JsonValue* data);
void metrics_proxy_answer(JsonValue* data);
void metrics_failed();
void metrics_busy();
void metrics_over();

// tool.cpp
[[noreturn]] void print_help(const Invocation& in);
[[noreturn]] void print_version(const Invocation& in);

// Every handler the loop calls runs through this: out of memory ends the
// run as such, and nothing is thrown into the loop.
template <void (*Handler)(JsonValue*)>
void guarded(JsonValue* data) {
    without_running_out([data] { Handler(data); });
}

// settings.cpp, shared with check.cpp: fills `proxy` from a get_proxy
// answer. Null when all was read, else the human text of the first field
// that could not be.
struct ProxySettings;
const char* read_proxy_settings(const JsonValue* data, ProxySettings* proxy);
