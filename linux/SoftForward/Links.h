#pragma once

// The network devices that software forwarding makes: veth pairs, one of whose ends may be a port of a
// bridge.
//
// All operations are requests on one rtnetlink socket of the network namespace that the object was made in;
// each waits at most the socket's receive timeout.

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "Netlink/Socket.h"
#include "SoftForward/Failure.h"

namespace SoftForward {

struct Link {
  std::uint32_t index = 0;
  std::uint32_t peer = 0;    // veth: the other end's index, when that is in this namespace
  std::uint32_t master = 0;  // the bridge above, 0: none
  std::string name;
  std::string kind;  // "veth", "bridge" ...; empty for a physical device
};

// A pair by its names. `outer` is the end that the agent opens or that frames are sent to.
struct PairNames {
  std::string outer;
  std::string inner;
};

struct Pair {
  std::uint32_t outer = 0;  // interface indexes
  std::uint32_t inner = 0;
};

using MacAddress = std::array<std::byte, 6>;

class Links {
 public:
  explicit Links(Netlink::Socket& socket) : socket_(socket) {}

  // std::nullopt with an empty failure when there is no such device.
  std::optional<Link> find(const std::string& name, Failure& failure);
  [[nodiscard]] Failure forEach(const std::function<void(const Link&)>& visit);

  // Makes the pair, or takes over the one of these names. Fails when a name is taken by something else: that
  // device is left alone. Both ends have this MTU afterwards; they are down if they were made here.
  // `innerAddress` is given to the inner end when it is made.
  [[nodiscard]] Failure pairIs(const PairNames& names, std::uint32_t mtu,
                               const std::optional<MacAddress>& innerAddress, Pair& pair);

  // Without ARP and without IPv6, so that the kernel's own stack sends nothing on it.
  [[nodiscard]] Failure quietIs(const std::string& name, std::uint32_t index);
  [[nodiscard]] Failure upIs(const std::string& name, std::uint32_t index);

  // Makes the device a port of the bridge that neither learns nor receives floods.
  [[nodiscard]] Failure silentPortIs(const std::string& name, std::uint32_t index, std::uint32_t bridge);

  // Frames to this address, besides those to its own, are delivered to the bridge device itself, as after
  // "bridge fdb add ADDRESS dev BRIDGE self permanent"; or no longer.
  [[nodiscard]] Failure bridgeTakes(const std::string& name, std::uint32_t index, const MacAddress& address,
                                    bool takes);

  // Attaches an XDP program in generic mode, in place of the one that is there. Generic, because it puts no
  // bound on the MTU and works with every driver.
  [[nodiscard]] Failure xdpIs(const std::string& name, std::uint32_t index, int program);

  // Both ends of a veth pair go with one. No failure if it is gone already.
  [[nodiscard]] Failure linkDel(const std::string& name, std::uint32_t index);

 private:
  [[nodiscard]] Failure mtuIs(const std::string& name, std::uint32_t index, std::uint32_t mtu);

  Netlink::Socket& socket_;
};

}  // namespace SoftForward
