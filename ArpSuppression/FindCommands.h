#pragma once

#include "Mox/Ptr.h"
#include "Plugin/AgentBase.h"

namespace ArpSuppression {

class ArpSuppressionRootSm;

// bindings local|remote|both [NAME=VALUE ...]: bindings by VLAN and address. NAME is vlan, ip, mac, vrf or
// interface, and all that are given have to hold; with both, each says of which table it is.
Mox::Ptr<Plugin::AgentCommandCallback> makeBindingsCommand(Mox::Ptr<const ArpSuppressionRootSm> rootSm);

// find MAC|IP: where a host is known, over all VLANs: in the binding tables, among the kernel's neighbours and
// in the bridges' MAC tables; by its address, also where its MAC addresses are.
Mox::Ptr<Plugin::AgentCommandCallback> makeFindCommand(Mox::Ptr<const ArpSuppressionRootSm> rootSm);

}  // namespace ArpSuppression
