// The quick desired-state reader against the tree reader: on any input it
// declines, or gives exactly the state the tree reader gives.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "cli/desired_state/quick_reader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    DesiredState quick;
    if (!read_desired_state_quickly(text, &quick)) {
        return 0;
    }
    DesiredState full;
    std::string error;
    if (!read_desired_state_tree(text, "f", &full, &error) || !(full == quick)) {
        abort();
    }
    return 0;
}
