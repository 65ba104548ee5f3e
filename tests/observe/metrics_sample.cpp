// Prints the metrics of one sample snapshot, for promtool to check.
#include <cstdio>
#include <cstring>

#include "samples.h"

int main(int argc, char** argv) {
    const struct {
        const char* name;
        MetricsSnapshot (*make)();
    } samples[] = {{"agent_down", agent_down},
                   {"no_services", no_services},
                   {"every_status", every_status},
                   {"hostile_names", hostile_names}};
    for (const auto& sample : samples) {
        if (argc == 2 && strcmp(argv[1], sample.name) == 0) {
            fputs(render_metrics(sample.make()).c_str(), stdout);
            return 0;
        }
    }
    fprintf(stderr, "usage: %s agent_down|no_services|every_status|hostile_names\n", argv[0]);
    return 2;
}
