// What the tool answers without the Transfer Agent: the usage text and its
// version.

#include "cli/command_line/option_table.h"
#include "cli/commands/families.h"

#ifndef SYLV_TOOL_VERSION
#error "SYLV_TOOL_VERSION must come from the build"
#endif

void print_help(const Invocation&) {
    finish(Outcome::success(Message().say(usage_text()).say("\n"),
                            JsonWriter().text("usage", usage_text())));
}

void print_version(const Invocation&) {
    finish(Outcome::success("sylvane-service " SYLV_TOOL_VERSION "\n",
                            JsonWriter().text("tool_version", SYLV_TOOL_VERSION)));
}
