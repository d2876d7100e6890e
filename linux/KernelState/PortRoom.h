#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <unordered_map>
#include <utility>
#include <vector>

#include "KernelState/Tables.h"
#include "Mox/Notifiee.h"
#include "Netlink/MacFilter.h"
#include "Suppression/Limits.h"
#include "Switch/ProblemReporter.h"

namespace KernelState {

// How many of the entries that bridges have learned are kept of each port that is no tunnel port, so that
// nobody can take the machine's memory and time by inventing senders. Who came first stays. A port that had
// to refuse some is a problem until it has been read to its end without refusing any.
class PortRoom {
 public:
  // `changed` is called when a port that refused entries may have room. All but `limits`, which may be null,
  // outlive the object.
  PortRoom(Ptr<const ArpSuppression::Limits> limits, Switch::ProblemReporter& problems,
           Netlink::MacFilter& filter, std::function<void()> changed);
  PortRoom(const PortRoom&) = delete;
  PortRoom& operator=(const PortRoom&) = delete;

  void add(IfIndex port) { ++kept_[port]; }
  void remove(IfIndex port);
  bool has(IfIndex port) const;
  // An entry had no room. `name` is the port's.
  void refuse(IfIndex port, const Mox::String& name);
  // The port was read to its end, and there was room for everything; or there is no such port any more.
  void accept(IfIndex port);

  // Those that refused entries, and those of them that have room.
  std::vector<IfIndex> full() const;
  std::vector<IfIndex> open() const;

 private:
  Mox::Notifiee<const ArpSuppression::Limits> limits_;
  Switch::ProblemReporter& problems_;
  Netlink::MacFilter& filter_;  // knows which ports are full
  std::function<void()> changed_;
  std::unordered_map<IfIndex, std::uint32_t> kept_;
  std::map<IfIndex, Mox::String> full_;  // those that refused entries, with the problem's subject
};

}  // namespace KernelState
