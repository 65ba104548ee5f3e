// The printer of the run, the failure table, the checked writes and the one
// exit of the tool.

#include "cli/output/output.h"

#include <poll.h>
#include <stdio_ext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "cli/output/printers.h"

namespace {

struct FailureRow {
    Failure failure;
    const char* code;  // JSON "error"
    int json_status;
    int human_status;
};

// Indexed by Failure.
constexpr FailureRow FAILURES[] = {
    {Failure::none, nullptr, 0, 0},
    {Failure::changes_pending, nullptr, 4, 4},
    {Failure::usage, "usage", 2, 2},
    {Failure::bad_argument, "bad_argument", 1, 1},
    {Failure::refused, "refused", 1, 1},
    {Failure::failed, "failed", 1, 1},
    {Failure::bad_answer, "bad_answer", 1, 1},
    {Failure::internal, "internal", 1, 1},
    {Failure::timeout, "timeout", 3, 1},
    {Failure::busy, "busy", 3, 1},
    {Failure::unreachable, "unreachable", 3, 1},
    {Failure::untrusted_listener, "untrusted_listener", 1, 1},
    {Failure::not_an_agent, "not_an_agent", 3, 3},
};

const FailureRow& row_of(Failure failure) {
    return FAILURES[static_cast<int>(failure)];
}

// Chosen once by choose_output, before anything is written.
const Printer* printer = &HumanPrinter;
int human_failure_override = 0;

// A write failed: say so on standard error unless that is the stream that
// failed, then end the run with status 1. The exit closes the connection,
// which frees the agent's one client slot.
[[noreturn]] void write_failed(FILE* stream, int error) {
    if (stream != stderr) {
        fprintf(stderr, "Could not write to standard output: %s.\n", strerror(error));
    }
    end_run(1);
}

}  // namespace

const char* failure_code(Failure failure) {
    return row_of(failure).code;
}

int json_status(Failure failure) {
    return row_of(failure).json_status;
}

int human_status(Failure failure) {
    return row_of(failure).human_status;
}

// Text goes straight to the descriptor while the stream holds nothing
// unwritten (every final text, as a rule): stdio's buffer, the calls that set
// it up and one copy are spared, and the bytes keep the stream's order.
void write_checked(FILE* stream, std::string_view text) {
    if (__fpending(stream) != 0) {
        if (!text.empty() && fwrite(text.data(), 1, text.size(), stream) != text.size()) {
            write_failed(stream, errno);
        }
        return;
    }
    while (!text.empty()) {
        const ssize_t written = write(fileno(stream), text.data(), text.size());
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            write_failed(stream, written < 0 ? errno : EIO);
        }
        text.remove_prefix(static_cast<size_t>(written));
    }
}

void flush_checked(FILE* stream) {
    if (fflush(stream) != 0 || ferror(stream)) {
        write_failed(stream, errno != 0 ? errno : EIO);
    }
}

void choose_output(OutputMode mode) {
    printer = mode == OutputMode::json ? &JsonPrinter : &HumanPrinter;
}

void set_human_failure_status(int status) {
    human_failure_override = status;
}

void report(const Progress& progress) {
    printer->progress(progress);
}

void notice(const char* human_text) {
    printer->notice(human_text);
}

void finish(const Outcome& outcome) {
    int status = 0;
    without_running_out([&] { status = printer->final(outcome, human_failure_override); });
    flush_checked(stdout);
    flush_checked(stderr);
    end_run(outcome.status != 0 ? outcome.status : status);
}

void finish_out_of_memory() {
    end_run(printer->out_of_memory());
}

// A pipe whose reader has gone reports POLLERR on its write end; asking for
// no event at all returns just that, without writing.
void end_if_output_gone() {
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0) {
        write_failed(stdout, EPIPE);
    }
}

// Every stream is flushed, then the process ends without exit()'s handlers:
// they only free memory the process gives back whole. The sanitizer builds
// keep exit(), whose handlers check for leaks.
void end_run(int status) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    exit(status);
#else
    fflush(nullptr);
    _exit(status);
#endif
}
