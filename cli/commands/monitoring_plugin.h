// check_sylvane: the tool run under that name (a symbolic link to it) is a
// monitoring plugin for Nagios, Icinga, Naemon and the like. It has its own
// small option table (cli/observe/plugin.cpp), holds one conversation
// (get_tenants), prints one status line and exits 0, 1, 2 or 3. The tool's
// own options and output are not involved.
#pragma once

constexpr const char* PLUGIN_NAME = "check_sylvane";

// Whether the program was started as check_sylvane (argv[0]'s last part).
bool is_monitoring_plugin(const char* program);

// Reads the plugin's options, asks the agent, prints the verdict line and
// ends the run with its status.
[[noreturn]] void run_monitoring_plugin(int argc, char** argv);
