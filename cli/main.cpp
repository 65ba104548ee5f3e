// sylvane-service: reads the command line once, chooses the output once,
// then runs the one command it names. The run ends inside run_invocation.

#include "cli/command_line/command_line.h"
#include "cli/commands/run.h"
#include "cli/output/output.h"

int main(int argc, char** argv) {
    without_running_out([&] {
        const Invocation invocation = read_command_line(argc, argv);
        choose_output(invocation.json ? OutputMode::json : OutputMode::human);
        run_invocation(invocation);
    });
}
