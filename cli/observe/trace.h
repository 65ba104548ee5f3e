// The trace: the library's own log lines on standard error, for diagnosis.
// The front end calls start_trace once, from the count of --verbose, and
// hide_in_trace for every secret it sends, before sending it.
#pragma once

// Its value asks for a trace without --verbose: "1" as one --verbose, "2"
// or more as two; empty or "0" for none.
constexpr const char* TRACE_VARIABLE = "SYLVANE_DEBUG";
// "0" lets secrets show in the trace (as GIT_TRACE_REDACT=0 does for git).
constexpr const char* TRACE_REDACT_VARIABLE = "SYLVANE_TRACE_REDACT";

// The Logger level to trace at for `verbosity` (the count of --verbose) and
// the value of SYLVANE_DEBUG (null when unset), whichever asks for more: one
// gives LOG_DEBUG (connection, handshake, frames, every message as JSON),
// two or more LOG_TRACE (every step). -1 when neither asks for a trace.
int trace_level(int verbosity, const char* debug_variable);

// Switches the trace on at trace_level(verbosity, $SYLVANE_DEBUG), with
// secrets hidden unless SYLVANE_TRACE_REDACT is "0" (then says so in the
// trace). Returns the level, or -1 when no trace was asked for.
int start_trace(int verbosity);

// From now on no trace line shows `secret`, neither as is nor as JSON text
// writes it. Works before or after start_trace; does nothing when secrets
// may show. When the secret cannot be held, the trace is switched off (with
// one line on standard error saying so) rather than risk showing it.
void hide_in_trace(const char* secret);
