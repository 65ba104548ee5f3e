// The quick way into a DesiredState: one pass over the file's bytes, no
// tree, for the files people and --export write. Internal to the
// desired-state reader.
#pragma once

#include <string>
#include <string_view>

#include "cli/desired_state/desired_state.h"

// Reads `text` when it is a JSON object, or YAML in block style (plain or
// simply quoted scalars, comments, one "---", lines of content of at most
// 63 bytes), of printable ASCII, that the
// full reader accepts: `state` is then exactly what the full reader gives.
// Anything else, including every file the full reader refuses, returns
// false with `state` in no particular shape: the full reader then decides.
// May throw std::bad_alloc.
bool read_desired_state_quickly(std::string_view text, DesiredState* state);

// The full reader alone (the tree through nlohmann or libfyaml), as
// read_desired_state was before the quick way: what the quick reader is
// compared with.
bool read_desired_state_tree(std::string_view text, std::string_view file, DesiredState* state,
                             std::string* error) noexcept;
