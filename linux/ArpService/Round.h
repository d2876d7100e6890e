#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "ArpService/Devices.h"
#include "ArpService/Vrf.h"
#include "Netlink/Socket.h"

namespace ArpService {

// Compares the kernel with the configuration of all VRFs of one namespace, in steps of one datagram or a few
// dozen entries: reads the devices, how neighbours are kept, which goes to `table`, and then the neighbours, each
// of which goes to `compare`, and puts into each VRF's queue what nobody has dealt with by then. Events say which keys to look at between the rounds; a
// round finds the keys whose event was missed.
class Round {
 public:
  using Table = std::function<void(const Netlink::NeighbourTable&)>;
  using Compare = std::function<void(const Netlink::Neighbour&)>;
  using Refused = std::function<void(const char* doing, const Mox::Failure& failure)>;
  Round(Devices& devices, Vrfs& vrfs, Table table, Compare compare, Refused refused);

  // A VRF's configuration is new: it is read, and what it no longer holds is found.
  void configurationIsNew() { newOnes_ = true; }
  // Changes of devices were missed: the next round reads them again.
  void devicesAreUnknown() { devicesKnown_ = false; }
  // Gives up the round, and all that is known: the sockets are closed.
  void reset();

  // On a socket for dumps that outlives the round. Only when idle.
  void start(Netlink::Socket& socket);
  bool idle() const { return stage_ == Stage::idle; }
  bool readsDevices() const { return stage_ == Stage::devices; }
  // The kernel's neighbours were read once since `reset`. Before that, what is to be written is not known:
  // most of it may be there.
  bool compared() const { return compared_; }
  // One step. False: there is nothing to do.
  bool step();
  // Whether a round has ended since the last call.
  bool takeEnded() { return std::exchange(ended_, false); }

 private:
  enum class Stage : std::uint8_t { idle, devices, tables, neighbours, ipv4, ipv6, entries };
  void ask(const Netlink::Message& request);
  // True when the dump has come to its end.
  bool read(const Netlink::Handler& handler);
  void fail(const char* doing, const Mox::Failure& failure);
  void scanStart(bool all);
  // From the VRF of that name on.
  void scanNext(const Mox::String& from);
  void scanStep();
  void end();

  Devices& devices_;
  Vrfs& vrfs_;
  const Table table_;
  const Compare compare_;
  const Refused refused_;
  Netlink::Socket* socket_ = nullptr;
  Stage stage_ = Stage::idle;
  bool devicesKnown_ = false;  // or being read
  bool compared_ = false;
  bool ended_ = false;
  bool newOnes_ = false;  // there may be configurations to be read
  // Of the scan: whether it is of every VRF, or of those whose configuration is new; which one it is at, and
  // whether that one's is.
  bool all_ = false;
  Mox::String vrf_;
  bool isNew_ = false;
  std::optional<Lanix::IpAddr> ipv4Bookmark_;
  std::optional<Arp::NeighborEntryKey> ipv6Bookmark_;
  std::optional<Key> bookmark_;
};

}  // namespace ArpService
