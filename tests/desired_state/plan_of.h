// The plan of a whole agent snapshot: its services shown to a Planner as
// the listing would show them, then its proxy.
#pragma once

#include "cli/desired_state/plan.h"
#include "cli/desired_state/render.h"

inline Plan plan_of(const DesiredState& desired, const AgentSnapshot& agent, bool prune,
                    bool unchanged_in_full = true) {
    Planner planner(desired, prune, unchanged_in_full);
    for (const AgentService& service : agent.services) {
        planner.list(ListedService{.name = service.name,
                                   .status = service.status,
                                   .ip_address = service.ip_address,
                                   .port = service.port,
                                   .virtual_port = service.virtual_port});
    }
    return planner.finish(agent.proxy);
}
