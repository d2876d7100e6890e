#pragma once

#include <optional>

#include "ArpSuppression/ArpSuppressionAgent.h"

namespace ArpSuppression {

// What would happen now to an ARP request for an address, or to a neighbour solicitation of an IPv6 address, and
// why: told with the functions that decide on real requests. Nothing is sent, counted or changed.
//
// `from` is the MAC that asks: a host's, whose port then counts, or the switch's own. Without it, and for a
// MAC that is on no known port, the request of a host on a port of its own is assumed.
//
// The explanation is one JSON object:
//
//   vlan, ip, from?   the question
//   action            "reply", "flood", "leave", "program" (a kernel neighbour: the switch itself asks) or
//                     "notTrapped" (the request does not reach the agent); of a solicitation "reply" or
//                     "pass" (it goes on as if there were no suppression)
//   mac?              with "reply" and "program": the answer
//   router?           with the "reply" to a solicitation: whether that is from a router
//   counter?          {"id", "name"}: the counter that tells of it
//   summary           one sentence
//   facts             what that rests on, in the order in which it counts: {"fact", "value", "text"}
Mox::String explain(const ArpSuppressionRootSm& rootSm, Bridging::VlanId vlanId,
                    const Lanix::IpGenAddr& ipAddress, const std::optional<Lanix::EthAddr>& from);

}  // namespace ArpSuppression
