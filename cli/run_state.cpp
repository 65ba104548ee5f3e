#include "cli/run_state.h"

RunState& run_state() {
    static RunState state = [] {
        RunState initial{};
        initial.human_failure_status = 1;
        return initial;
    }();
    return state;
}
