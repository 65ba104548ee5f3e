// sylvane-service: reads the command line once, chooses the output once,
// switches the trace on when asked, then runs the one command it names. The
// run ends inside run_invocation. Started as check_sylvane, it is the
// monitoring plugin instead.

#include <cstdlib>

#include "cli/command_line/command_line.h"
#include "cli/commands/monitoring_plugin.h"
#include "cli/commands/run.h"
#include "cli/observe/trace.h"
#include "cli/output/output.h"
#include "cli/preflight/api_key.h"

namespace {

// The keys the command line and the environment hold are hidden before the
// trace starts; a key read from a file is hidden where the request is built.
void hide_keys(const Invocation& invocation) {
    hide_in_trace(invocation.api_key);
    hide_in_trace(getenv(API_KEY_VARIABLE));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 0 && is_monitoring_plugin(argv[0])) {
        run_monitoring_plugin(argc, argv);
    }
    without_running_out([&] {
        const Invocation invocation = read_command_line(argc, argv);
        choose_output(invocation.json ? OutputMode::json : OutputMode::human);
        hide_keys(invocation);
        start_trace(invocation.verbosity);
        run_invocation(invocation);
    });
}
