#pragma once

#include <vector>

#include "Mox/Ptr.h"
#include "Plugin/AgentBase.h"

namespace ArpSuppression {

class ArpSuppressionRootSm;

// The commands that an operator can give to the agent:
//
//   showTechSupport            the state of every object, then the counters, as text
//   status                     what `arpsup status` shows, as a JSON object
//   bindings, find             hosts, as a JSON array, one element a line (ArpSuppression/FindCommands.h)
//   explain VLAN IP [MAC]      what would happen to a request, as a JSON object (ArpSuppression/Explain.h)
//
// They hold the root reactor: drop them before it.
std::vector<Mox::Ptr<Plugin::AgentCommandCallback>> makeAgentCommands(
    const Mox::Ptr<ArpSuppressionRootSm>& rootSm, Orb::EventLoop& loop);

}  // namespace ArpSuppression
