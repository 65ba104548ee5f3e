#include "cli/report.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cli/run_state.h"

namespace {

struct FailureEntry {
    const char* code;
    int status;
};

// Indexed by Failure.
constexpr FailureEntry FAILURES[] = {
    {"usage", 2},       {"bad_argument", 1},       {"refused", 1}, {"failed", 1},
    {"bad_answer", 1},  {"internal", 1},           {"timeout", 3}, {"busy", 3},
    {"unreachable", 3}, {"untrusted_listener", 1},
};

// The human texts begin or end with newlines that only a terminal needs.
std::string trimmed(const std::string& text) {
    const size_t first = text.find_first_not_of("\n ");
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of("\n ") - first + 1);
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
    puts(line.object().c_str());
    fflush(stdout);
}

void fail(Failure failure, const std::string& human_text, const JsonWriter& extra) {
    if (!json_mode()) {
        fputs(human_text.c_str(), stderr);
        exit(run_state().human_failure_status);
    }
    JsonWriter fields;
    fields.boolean("ok", false)
        .text("error", failure_code(failure))
        .text("message", trimmed(human_text).c_str())
        .merge(extra);
    emit(fields);
    exit(json_exit_status(failure));
}

void failf(Failure failure, const JsonWriter& extra, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    if (vasprintf(&text, format, arguments) < 0) {
        text = nullptr;
    }
    va_end(arguments);
    std::string human_text = text != nullptr ? text : format;
    free(text);
    fail(failure, human_text, extra);
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
