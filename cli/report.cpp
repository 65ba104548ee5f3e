#include "cli/report.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/run_state.h"

namespace {

struct FailureEntry {
    const char* code;
    int status;
};

// Indexed by Failure.
constexpr FailureEntry FAILURES[] = {
    {"usage", 2},       {"bad_argument", 1},       {"refused", 1},      {"failed", 1},
    {"bad_answer", 1},  {"internal", 1},           {"timeout", 3},      {"busy", 3},
    {"unreachable", 3}, {"untrusted_listener", 1}, {"not_an_agent", 3},
};

// What a JSON run prints when it cannot even build its own object.
constexpr const char* OUT_OF_MEMORY_OBJECT =
    "{\"version\": 1, \"ok\": false, \"error\": \"internal\", \"message\": \"Unable to allocate "
    "memory.\"}";

[[noreturn]] void out_of_memory() {
    puts(OUT_OF_MEMORY_OBJECT);
    exit(json_exit_status(Failure::internal));
}

// The human texts begin or end with newlines (and a blank) that only a
// terminal needs; `text` is trimmed in place.
char* trimmed(char* text) {
    while (*text == '\n' || *text == ' ') {
        text++;
    }
    size_t length = strlen(text);
    while (length > 0 && (text[length - 1] == '\n' || text[length - 1] == ' ')) {
        text[--length] = '\0';
    }
    return text;
}

// JSON mode: the failure object for `message` (malloc'd, freed here), then
// the exit.
[[noreturn]] void fail_json(Failure failure, char* message, const JsonWriter& extra) {
    if (message == nullptr) {
        out_of_memory();
    }
    JsonWriter fields;
    fields.boolean("ok", false)
        .text("error", failure_code(failure))
        .text("message", trimmed(message))
        .merge(extra);
    free(message);
    emit(fields);
    exit(json_exit_status(failure));
}

}  // namespace

const char* failure_code(Failure failure) {
    return FAILURES[static_cast<int>(failure)].code;
}

int json_exit_status(Failure failure) {
    return FAILURES[static_cast<int>(failure)].status;
}

bool json_mode() {
    return run_state().json;
}

void emit(const JsonWriter& fields) {
    JsonWriter line;
    line.number("version", 1).merge(fields);
    std::string text = line.object();
    if (text.empty()) {
        out_of_memory();
    }
    puts(text.c_str());
    fflush(stdout);
}

// Human mode allocates nothing here: the texts are written as they are.
void fail(Failure failure, const char* human_text, const JsonWriter& extra) {
    if (!json_mode()) {
        fputs(human_text, stderr);
        exit(run_state().human_failure_status);
    }
    fail_json(failure, strdup(human_text), extra);
}

void failf(Failure failure, const JsonWriter& extra, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    if (!json_mode()) {
        vfprintf(stderr, format, arguments);
        va_end(arguments);
        exit(run_state().human_failure_status);
    }
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) {
        text = nullptr;
    }
    va_end(arguments);
    fail_json(failure, text, extra);
}

void report_success(const char* human_text, const JsonWriter& extra) {
    run_state().finished = true;
    if (!json_mode()) {
        if (human_text != nullptr) {
            fputs(human_text, stdout);
        }
        return;
    }
    JsonWriter fields;
    fields.boolean("ok", true).merge(extra);
    emit(fields);
}

JsonWriter about_service(const char* reason) {
    JsonWriter fields;
    fields.text("service", run_state().service_name).text("reason", reason);
    return fields;
}
