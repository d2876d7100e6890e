#pragma once

// The service's reactors on a real kernel, with entities and an event loop of their own, and what the kernel
// says about its neighbours.

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "ArpService/ArpServiceAgent.h"
#include "lab/Lab.h"

namespace ArpService {

class ServiceRig {
 public:
  explicit ServiceRig(NamespaceSm::Settings settings = {})
      : loop(clock), tasks(Mox::make<Orb::TaskSchedulerRoot>(loop)), settings_(settings) {}
  ~ServiceRig() { root = nullptr; }

  void vrfIs(const std::string& name, const std::string& netNs, Ip::VrfState state = Ip::VrfState::active) {
    const auto vrf = vrfs->vrfIs(name);
    vrf->networkNamespaceIs(netNs);
    vrf->stateIs(state);
  }
  static Lanix::IpAddr ip(const std::string& text) { return Lanix::IpAddr::fromStrep(text).value(); }
  static Arp::ArpEntryInput entry(const std::string& mac, const std::string& intf, std::uint8_t arpType = 0,
                                  bool dynamic = false) {
    return {Lanix::EthAddr::fromStrep(mac).value(), Lanix::IntfId::fromName(intf), arpType, dynamic};
  }
  void start() {
    root =
        Mox::make<ArpServiceRootSm>(Ptr<const Switch::Config>(config), Ptr<const Arp::ArpInputConfig>(input),
                                    Ptr<const Ip::AllVrfStatusLocal>(vrfs), status, confirmation, problems,
                                    settings_, tasks->scheduler());
  }
  // Runs the loop until it holds. False: it never did.
  bool becomes(const std::function<bool()>& condition) {
    const double deadline = Orb::EventLoop::realClock().now() + 10;
    while (!condition()) {
      if (Orb::EventLoop::realClock().now() > deadline) return false;
      loop.step(0.01);
    }
    return true;
  }
  // Until nothing is left to do at this time.
  void settle() {
    while (loop.step(0)) {
    }
  }

  // Runs ahead of the real one by as much as a test wants.
  struct Clock final : Orb::Clock {
    double now() const override { return Orb::EventLoop::realClock().now() + ahead; }
    double ahead = 0;
  } clock;
  Orb::EventLoop loop;
  Ptr<Orb::TaskSchedulerRoot> tasks;
  Ptr<Switch::Config> config = Mox::make<Switch::Config>();
  Ptr<Arp::ArpInputConfig> input = Mox::make<Arp::ArpInputConfig>();
  Ptr<Ip::AllVrfStatusLocal> vrfs = Mox::make<Ip::AllVrfStatusLocal>();
  Ptr<Arp::ServiceStatus> status = Mox::make<Arp::ServiceStatus>();
  Ptr<Arp::Confirmation> confirmation = Mox::make<Arp::Confirmation>();
  Ptr<Switch::Problems> problems = Mox::make<Switch::Problems>();
  Ptr<ArpServiceRootSm> root;

 private:
  NamespaceSm::Settings settings_;
};

}  // namespace ArpService
