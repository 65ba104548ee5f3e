#include "cli/run_state.h"

RunState& run_state() {
    static RunState state{};
    return state;
}
