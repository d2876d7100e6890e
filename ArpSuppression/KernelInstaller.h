#pragma once

#include <deque>
#include <functional>

#include "ArpSuppression/BindingKeys.h"
#include "Mox/Result.h"
#include "Orb/EventLoop.h"

namespace ArpSuppression {

// Puts neighbours straight into the kernel, past the ARP service. What is asked for in one turn of the loop
// is sent together at the end of that turn, through the netlink socket of each VRF, and nothing is waited
// for. What is more than fits into a turn goes with the next ones, in order.
class KernelInstaller {
 public:
  // So many requests a turn, of about 5 µs each in the kernel.
  static constexpr std::size_t kMostATurn = 256;

  struct Request {
    VrfIpAddress key;  // in a usable VRF
    VlanIdMacAddress station;
    std::uint32_t ifIndex = 0;  // of the VLAN's interface
    // What the caller wants to have said with the outcome.
    bool dynamicOrPermanent = false;
    bool existing = false;
  };
  // Told of each request, in the order in which they were added within a VRF, when it is known what became of
  // it. It must not destroy the installer.
  using Outcome = std::function<void(const Request&, const Mox::Result<>&)>;

  KernelInstaller(Orb::EventLoop& loop, Outcome outcome);

  // Requests that are not sent yet when the installer goes are dropped.
  void add(Request request);

 private:
  struct Pending {
    Request request;
    // Where the request was made for: a VRF that has left since, or come back elsewhere, gets nothing.
    Lanix::NamespaceName netNs;
    std::uint32_t socket;
  };
  void send();

  Orb::EventLoop& loop_;
  Outcome outcome_;
  std::deque<Pending> pending_;
  Orb::EventLoop::HookHandle endOfTurn_;
};

}  // namespace ArpSuppression
