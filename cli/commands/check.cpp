// --check: one connection attempt and one get_proxy request, 2 seconds in
// all; a well-formed answer means the Transfer Agent is there.

#include <ctime>
#include <string>

#include "cli/agent/session.h"
#include "cli/commands/families.h"
#include "cli/commands/run.h"

namespace {

constexpr const char* NOTHING_LISTENING = "Nothing is listening on 127.0.0.1:11038.\n";
constexpr const char* NO_ANSWER_IN_2S = "Transfer Agent did not answer within 2 seconds.\n";
constexpr const char* NOT_AN_AGENT =
    "The program listening on 127.0.0.1:11038 is not a Transfer Agent.\n";

// When the check began: its latency runs from before the connection to the
// answer.
timespec check_started{};

double elapsed_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec - check_started.tv_sec) * 1000.0 +
           static_cast<double>(now.tv_nsec - check_started.tv_nsec) / 1e6;
}

}  // namespace

void* start_check_clock(const Invocation&) {
    clock_gettime(CLOCK_MONOTONIC, &check_started);
    return nullptr;
}

void check_answer(JsonValue* data) {
    ProxySettings proxy;
    if (read_proxy_settings(data, &proxy) != nullptr) {
        finish(Outcome::fail(Failure::not_an_agent, NOT_AN_AGENT));
    }
    const double latency = elapsed_ms();
    char text[96];
    snprintf(text, sizeof text, "Transfer Agent is answering on 127.0.0.1:11038 (%.1f ms).\n",
             latency);
    finish(Outcome::success(text, JsonWriter().decimal("latency_ms", latency)));
}

// The verdict without an answer: nothing connected (nothing listening), a
// connection closed after it was made (the handshake was refused or the
// peer hung up: not a Transfer Agent), or one still open and silent.
void check_failed() {
    if (!Session.connected()) {
        finish(Outcome::fail(Failure::unreachable, NOTHING_LISTENING));
    }
    if (Session.closed_for_good()) {
        finish(Outcome::fail(Failure::not_an_agent, NOT_AN_AGENT));
    }
    finish(Outcome::fail(Failure::timeout, NO_ANSWER_IN_2S));
}

// The answer did not match the request (wrong command or id).
void check_over() {
    finish(Outcome::fail(Failure::not_an_agent, NOT_AN_AGENT));
}
