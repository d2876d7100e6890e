#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "ArpService/Devices.h"
#include "ArpService/Queue.h"
#include "Netlink/Socket.h"

namespace ArpService {

// Compares the kernel with the configuration, in steps of one datagram or a few dozen entries: reads the
// devices and then the neighbours, each of which goes to `compare`, and puts into the queue what nobody has
// dealt with by then. Events say which keys to look at between the rounds; a round finds the keys whose event
// was missed.
class Round {
 public:
  using Compare = std::function<void(const Netlink::Neighbour&)>;
  using Refused = std::function<void(const char* doing, const Mox::Failure& failure)>;
  Round(Devices& devices, Queue& queue, Compare compare, Refused refused);

  // The configuration came or went as a whole, so that no event tells of each of its entries.
  void configurationIsNew() { rescan_ = true; }
  // Changes of devices were missed: the next round reads them again.
  void devicesAreUnknown() { devicesKnown_ = false; }
  // Gives up the round, and all that is known: the sockets are closed.
  void reset();

  // On a socket for dumps that outlives the round. Only when idle.
  void start(Netlink::Socket& socket);
  bool idle() const { return stage_ == Stage::idle; }
  // The kernel's neighbours were read once since `reset`. Before that, what is to be written is not known:
  // most of it may be there.
  bool compared() const { return compared_; }
  // One step. False: there is nothing to do.
  bool step(const Arp::ArpInputVrfConfig* config);
  // Whether a round has ended since the last call.
  bool takeEnded() { return std::exchange(ended_, false); }

 private:
  enum class Stage : std::uint8_t { idle, devices, neighbours, ipv4, ipv6, entries };
  void ask(const Netlink::Message& request);
  // True when the dump has come to its end.
  bool read(const Netlink::Handler& handler);
  void fail(const char* doing, const Mox::Failure& failure);
  void scanStart();
  void scanStep(const Arp::ArpInputVrfConfig* config);
  void end();

  Devices& devices_;
  Queue& queue_;
  const Compare compare_;
  const Refused refused_;
  Netlink::Socket* socket_ = nullptr;
  Stage stage_ = Stage::idle;
  bool devicesKnown_ = false;  // or being read
  bool compared_ = false;
  bool ended_ = false;
  bool rescan_ = false;      // the configuration is to be read
  bool rescanning_ = false;  // it is being read
  std::optional<Lanix::IpAddr> ipv4Bookmark_;
  std::optional<Arp::NeighborEntryKey> ipv6Bookmark_;
  std::optional<Key> bookmark_;
};

// What the configuration wants for a key; null: nothing. `config` may be null.
const Arp::ArpEntryInput* wantedFor(const Key& key, const Arp::ArpInputVrfConfig* config);

}  // namespace ArpService
