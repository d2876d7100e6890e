#pragma once

#include <span>

#include "ArpService/Neighbour.h"

namespace ArpService {

// One neighbour that is to be as the configuration wants it.
struct Job {
  IfIndex ifIndex = 0;
  Lanix::IpGenAddr address;
  Wish wish;
  bool asked = false;  // it was had ask for the address already: that it failed to have an answer stands
  Netlink::Neighbour actual;  // as the kernel had it, if it had to be asked
  Mox::Result<> result;       // whether it is in step now

  // Nobody answered.
  bool isSilent() const;
};

// Brings up to a batch of neighbours in step with at most three exchanges. What is not there is written with
// the first; nothing that is there is written over or removed before it was looked at, and judged.
void bringInStep(Netlink::Socket& socket, std::span<Job> jobs);

}  // namespace ArpService
