#include "cli/observe/trace.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/logger.h"
#include "core/owned.h"
#include "sylvshared/json.h"

namespace {

// False once SYLVANE_TRACE_REDACT=0 was read by start_trace.
bool g_redact = true;
bool g_tracing = false;
// A secret could not be held: no trace may start in this run.
bool g_secret_unhidden = false;
constexpr const char* TRACE_REFUSED = "Trace switched off: a secret could not be hidden from it.\n";

// SYLVANE_DEBUG's value as a count of --verbose: 0 unset, empty or "0", 2
// for a number of 2 or more, 1 for anything else.
int debug_verbosity(const char* value) {
    if (value == nullptr || value[0] == '\0' || strcmp(value, "0") == 0) {
        return 0;
    }
    char* end = nullptr;
    const long number = strtol(value, &end, 10);
    return *end == '\0' && number >= 2 ? 2 : 1;
}

// `secret` as it appears inside a JSON string written by json_serialize,
// malloc'd; null when memory runs out.
char* json_form(const char* secret) {
    JsonValue* object = json_create_json_object();
    if (object == nullptr || json_add_string_child(object, "k", secret) != 0) {
        json_free_value(object);
        return nullptr;
    }
    // Six bytes per byte at worst ("\u00XX"), the key and the braces.
    const size_t size = strlen(secret) * 6 + 16;
    char* text = static_cast<char*>(malloc(size));
    const int length = text == nullptr ? -1 : json_serialize(object, text, size);
    json_free_value(object);
    if (length < 8) {  // {"k":""} at the least
        free(text);
        return nullptr;
    }
    const size_t inner = static_cast<size_t>(length) - 8;
    memmove(text, text + 6, inner);  // drop {"k":" and "}
    text[inner] = '\0';
    return text;
}

// Registers `secret` and its JSON form. False when one could not be held.
bool register_secret(const char* secret) {
    if (Logger.add_secret(secret) != LOGGER_OK) {
        return false;
    }
    MallocPtr<char> json(json_form(secret));
    if (json == nullptr) {
        return false;
    }
    const bool same = strcmp(json.get(), secret) == 0;
    return same || Logger.add_secret(json.get()) == LOGGER_OK;
}

}  // namespace

int trace_level(int verbosity, const char* debug_variable) {
    const int wanted =
        verbosity > debug_verbosity(debug_variable) ? verbosity : debug_verbosity(debug_variable);
    if (wanted <= 0) {
        return -1;
    }
    return wanted == 1 ? LOG_DEBUG : LOG_TRACE;
}

int start_trace(int verbosity) {
    const int level = trace_level(verbosity, getenv(TRACE_VARIABLE));
    if (level < 0) {
        return -1;
    }
    const char* redact = getenv(TRACE_REDACT_VARIABLE);
    g_redact = redact == nullptr || strcmp(redact, "0") != 0;
    if (!g_redact) {
        Logger.forget_secrets();
    } else if (g_secret_unhidden) {
        fputs(TRACE_REFUSED, stderr);
        return -1;
    }
    Logger.set_stderr_level(static_cast<uint8_t>(level));
    g_tracing = true;
    if (!g_redact) {
        Logger.warn("%s=0: secrets are shown in this trace", TRACE_REDACT_VARIABLE);
    }
    return level;
}

void hide_in_trace(const char* secret) {
    if (!g_redact || secret == nullptr || secret[0] == '\0') {
        return;
    }
    if (register_secret(secret)) {
        return;
    }
    g_secret_unhidden = true;
    if (g_tracing) {
        Logger.set_stderr_level(LOG_OFF);
        g_tracing = false;
        fputs(TRACE_REFUSED, stderr);
    }
}
