// What a run says: progress steps while it runs, then one final outcome.
// Commands build these values; the printer chosen for the run (human or
// JSON, see output.h) writes them. No command asks which printer that is.
#pragma once

#include <optional>
#include <string>

#include "cli/output/json_writer.h"
#include "cli/output/message.h"
#include "sylvshared/json.h"

struct Tenant;
struct Plan;

// How a run ends. Each code has one row in output.cpp's table: its JSON
// name (none for the two successes), its JSON status and its human status.
enum class Failure {
    none,                // success
    changes_pending,     // success of --diff that found changes to make (status 4)
    usage,               // the command line means no single command
    bad_argument,        // a value the tool refuses before connecting
    refused,             // the Transfer Agent said no
    failed,              // a followed service went to "error" or "disconnected"
    bad_answer,          // an answer or event the tool cannot read, or none at all
    internal,            // the tool could not start, or ran out of memory
    timeout,             // connected, but no (final) answer in time
    busy,                // the Transfer Agent serves another client
    unreachable,         // no connection could be made, or the agent hung up
    untrusted_listener,  // before an add, another user's socket holds the agent's port
    not_an_agent,        // --check: what listens does not speak the agent's protocol
};

// The get_proxy answer, read whole.
struct ProxySettings {
    std::string type;
    std::string ip_address;
    int port = 0;
    bool enabled = false;
};

// Where the human interface keeps its own ways on purpose (a success that
// exits 1, a usage text after the reason, an unusable answer that ends
// silently with 0): these texts and this status instead of the usual ones.
struct HumanException {
    Message out;  // standard output
    Message err;  // standard error, written first
    int status;
};

struct Outcome {
    Failure failure = Failure::none;
    // The human text: standard output on success, standard error on
    // failure. A failure's JSON "message" is its raw text, on one line.
    Message text;
    // The final JSON object's own fields, after "ok" (and "error",
    // "message").
    JsonWriter fields;
    std::optional<HumanException> human;
    // -l: the get_tenants answer's "data" (not owned, lives while the
    // printer runs); each printer renders the services in its own way.
    const JsonValue* listing = nullptr;
    // -g: the proxy settings (not owned).
    const ProxySettings* proxy = nullptr;
    // --diff: the plan (not owned); each printer renders only its own text,
    // which for 10,000 services is most of the run's work.
    const Plan* plan = nullptr;
    // When not 0, the run's status in both modes instead of the failure
    // table's: an apply's failed step ends with 1 whatever its code.
    int status = 0;

    static Outcome success(Message text = {}, JsonWriter fields = JsonWriter());
    static Outcome fail(Failure failure, Message text, JsonWriter fields = JsonWriter());
};

// One step of a run that goes on: human text on standard output (flushed at
// once), and one JSON object of `fields` when there are any.
struct Progress {
    Message text;
    JsonWriter fields;
    // --events: one service's new state (not owned), rendered by the printer.
    const Tenant* event = nullptr;
};
