#pragma once

// Hosts at one port of a switch, who ask for remote hosts as fast as they are answered: by ARP, or by neighbour
// solicitations. Whatever answers them, each
// answer is looked at: that it is one, and the right one.

#include <cstdint>
#include <string>

#include "Lanix/EthAddr.h"
#include "Lanix/IpGenAddr.h"

namespace Bench {

// The remote hosts that the switches know; at most 2^20.
Lanix::IpGenAddr remoteIp(std::uint32_t i, bool ip6 = false);
Lanix::EthAddr remoteMac(std::uint32_t i);

struct Asked {
  double perSecond = 0;     // answers
  double p50 = 0, p99 = 0;  // microseconds from a request to its answer; with one outstanding only
  std::uint64_t asked = 0;  // requests
  std::uint64_t lost = 0;   // of which no answer came
  std::uint64_t wrong = 0;  // answers with another MAC than the owner's
};

struct Asking {
  std::uint32_t remoteHosts = 1;  // that are asked for, at random
  std::uint32_t senders = 1;      // that ask, by turns; at most 4,096
  std::uint32_t outstanding = 1;  // requests on their way at a time; at most 64
  double seconds = 1;
  bool ip6 = false;  // by neighbour solicitations
};

// On the device, in the namespace that the calling thread is in, until the time is over. The thread never waits: it
// has a processor to itself. Throws std::runtime_error where the kernel refuses.
Asked ask(const std::string& device, const Asking& asking);

}  // namespace Bench
