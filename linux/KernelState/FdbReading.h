#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <vector>

#include "KernelState/PortRoom.h"
#include "KernelState/Tables.h"
#include "Netlink/Message.h"
#include "Orb/TaskScheduler.h"

namespace KernelState {

// Which of the bridges' MAC tables the kernel is asked for.
//
// The kernel tells of one port after the other, and makes each datagram by passing over the whole table of
// the bridge. So when a port has far more entries than there is room for, its reading is cut short, and the
// other ports are asked for one by one: a storm of invented senders costs a few datagrams and not thousands.
// Likewise of a tunnel port with many entries: that a station is not here is known without them.
//
// Ports that refused entries are read again when they have room: after a second, and up to a minute later
// while there is not room enough.
class FdbReading {
 public:
  // `read` is to have a reading begin, in a later turn. All outlive the object.
  FdbReading(Ptr<const NamespaceState> state, PortRoom& room, const Ptr<Orb::TaskScheduler>& scheduler,
             std::function<void()> read);

  // A reading of everything, or of what ports had no room for.
  void begin(bool everything);
  // What to ask for next; nothing: all has been asked for.
  std::optional<Netlink::Message> next();
  // An entry that was read had no room.
  void refuse(IfIndex port);
  // An entry of a tunnel port was read.
  void hear(IfIndex tunnelPort) { ++heard_[tunnelPort]; }
  // Whether the rest of what was asked for is not wanted.
  bool enough();
  // Everything that was asked for has been read.
  void end();
  // Whether this reading leaves out some of the port's entries.
  bool isCut(IfIndex port) const { return cut_.contains(port); }

  // A port that refused entries may have room.
  void handleRoom() { task_.schedule(delay_); }

 private:
  Ptr<const NamespaceState> state_;
  PortRoom& room_;
  std::function<void()> read_;
  bool everything_ = true;
  bool asked_ = false;          // for the whole table
  std::vector<IfIndex> ports_;  // still to be asked for, one by one
  std::set<IfIndex> looked_;    // those that were, when not everything is read
  std::map<IfIndex, std::size_t> refused_;
  std::map<IfIndex, std::size_t> heard_;
  std::set<IfIndex> cut_;
  double delay_;
  Orb::Task task_;
};

}  // namespace KernelState
