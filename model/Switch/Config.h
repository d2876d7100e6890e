#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <tuple>
#include <vector>

#include "Bridging/VlanId.h"
#include "Lanix/NamespaceName.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Vrf/VrfId.h"

// What the operator says about this switch in the configuration file, for the plug-ins that turn a Linux
// machine into one. The host fills it before it makes the first plug-in, and follows the file when it is told
// to read it again (ConfigWatch.h); `agents` stays. Nobody can set it by hand.

namespace Switch {

// A VRF: a kernel network namespace, or a VRF device of the host's own namespace with what is below it.
class VrfConfig final : public Mox::Entity {
 public:
  explicit VrfConfig(Mox::String vrfName) : vrfName_(std::move(vrfName)) {}
  const Mox::String& vrfName() const { return vrfName_; }

  MOX_ATTRIBUTE(Vrf::VrfIdMap::VrfId, id, 0)
  MOX_ATTRIBUTE(Lanix::NamespaceName, networkNamespace)
  // The VRF device's kernel name, with the namespace "default"; "": the VRF is the namespace.
  MOX_ATTRIBUTE(Mox::String, device)
  MOX_MEMBERS(id, networkNamespace, device)

 private:
  Mox::String vrfName_;
};

// A VLAN and the kernel bridge that it is, or that it is a VLAN of where that filters VLANs.
class VlanConfig final : public Mox::Entity {
 public:
  explicit VlanConfig(Bridging::VlanId vlanId) : vlanId_(vlanId) {}
  Bridging::VlanId vlanId() const { return vlanId_; }

  // The bridge's kernel name.
  MOX_ATTRIBUTE(Mox::String, bridge)
  // Kernel names of the bridge's ports that lead to other switches; every other port is an access port.
  MOX_ATTRIBUTE(std::vector<Mox::String>, tunnelPorts)
  // The VRF that its interface must be in to have layer 3; "": whichever it is in.
  MOX_ATTRIBUTE(Mox::String, vrf)
  // false: SoftForward leaves the VLAN alone, and its requests are flooded as without suppression.
  MOX_ATTRIBUTE(bool, suppression, true)
  // false: each of its requests goes to the agent, none is answered in the data plane.
  MOX_ATTRIBUTE(bool, answers, true)
  // false: none of its neighbour solicitations is answered, as without suppression of IPv6.
  MOX_ATTRIBUTE(bool, nd, true)
  MOX_MEMBERS(bridge, tunnelPorts, vrf, suppression, answers, nd)

 private:
  Bridging::VlanId vlanId_;
};

// A token bucket: so many frames a second on average, and at most `burst` at once. What it refuses is flooded
// as without suppression.
struct Policer {
  std::uint32_t perSecond = 600;
  std::uint32_t burst = 600;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("perSecond", &Policer::perSecond), Mox::Field("burst", &Policer::burst));
  }
  friend bool operator==(const Policer&, const Policer&) = default;
};

// Answers in the data plane: SoftForward's programs answer what the agent would answer.
struct Answers {
  bool enabled = true;
  // How many there is room for; the agent answers the others itself.
  std::uint32_t maxEntries = 1'048'576;
  // How many seconds a host that asked is answered before the agent has to see it again.
  std::uint32_t refreshSeconds = 30;

  static constexpr auto moxFields() {
    return std::tuple(Mox::Field("enabled", &Answers::enabled),
                      Mox::Field("maxEntries", &Answers::maxEntries),
                      Mox::Field("refreshSeconds", &Answers::refreshSeconds));
  }
  friend bool operator==(const Answers&, const Answers&) = default;
};

// How SoftForward's programs treat ports.
class SoftForwardConfig final : public Mox::Entity {
 public:
  // Of each port's frames to the agent; `portPolicer` has, by kernel name, the ports that differ.
  MOX_ATTRIBUTE(Policer, policer)
  MOX_MAP(Mox::String, Policer, portPolicer)
  // How many seconds after the agent's last sign of life everything is flooded.
  MOX_ATTRIBUTE(std::uint32_t, failOpenSeconds, 3)
  MOX_ATTRIBUTE(Answers, answers)
  // Ports, by kernel name, on which each request goes to the agent.
  MOX_SET(Mox::String, portWithoutAnswers)
  MOX_MEMBERS(policer, portPolicer, failOpenSeconds, answers, portWithoutAnswers)

  Policer policerOf(const Mox::String& port) const {
    return portPolicerHas(port) ? portPolicer(port) : policer();
  }
};

// Where the routes of other switches come from: nowhere but from people, or from the kernel, where a routing
// daemon writes them as neighbours and says so (NTF_EXT_LEARNED).
enum class EvpnFeed : std::uint8_t { none, kernel };
constexpr std::array<const char*, 2> moxEnumNames(EvpnFeed) { return {"none", "kernel"}; }

using RemoteBindings = std::map<ArpSuppression::RemoteBindingKey, ArpSuppression::RemoteBinding>;

// What is known of other switches' hosts, and from whom.
class EvpnConfig final : public Mox::Entity {
 public:
  MOX_ATTRIBUTE(EvpnFeed, feed, EvpnFeed::none)
  // Of the neighbours that are of the feed (NDA_PROTOCOL): by default zebra's and bgp's.
  MOX_ATTRIBUTE(std::vector<std::uint8_t>, protocols, kZebra, kBgp)
  MOX_MEMBERS(feed, protocols)

  // The operator's own bindings, for addresses that the feed knows nothing of, while KernelEvpn is loaded;
  // null: none. Never changes in place.
  struct Bindings final : Mox::Referenced {
    RemoteBindings all;
  };
  MOX_ATTRIBUTE(Mox::Ptr<const Bindings>, bindings)

  // Null: it has none for the key.
  const ArpSuppression::RemoteBinding* bindingOf(const ArpSuppression::RemoteBindingKey& key) const {
    if (!bindings()) return nullptr;
    const auto at = bindings()->all.find(key);
    return at == bindings()->all.end() ? nullptr : &at->second;
  }

  static constexpr std::uint8_t kZebra = 11;  // RTPROT_ZEBRA, RTPROT_BGP
  static constexpr std::uint8_t kBgp = 186;
};

// At "switch/config".
class Config final : public Mox::Entity {
 public:
  // By name. "default" is always there, with id 0 and the host's own namespace ("default").
  MOX_CHILDREN(Mox::String, VrfConfig, vrf)
  MOX_CHILDREN(Bridging::VlanId, VlanConfig, vlan)
  // The plug-ins of this host, in the order of their start.
  MOX_ATTRIBUTE(std::vector<Mox::String>, agents)
  // How old the last proof of a kernel neighbour's address may become before the kernel is asked to probe it.
  MOX_ATTRIBUTE(std::uint32_t, neighborRefreshSeconds, 240)
  MOX_CHILD(SoftForwardConfig, softForward)
  MOX_CHILD(EvpnConfig, evpn)
  MOX_MEMBERS(vrf, vlan, agents, neighborRefreshSeconds, softForward, evpn)
};

inline constexpr const char* kConfigPath = "switch/config";
inline constexpr const char* kConfigType = "Switch::Config";

}  // namespace Switch
