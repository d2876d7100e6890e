#pragma once

// eBPF programs as tc filters behind a clsact qdisc.
//
// All our filters have one handle and one priority, and a name that begins with kPrefix: that is how those of
// an earlier run are found, replaced and removed, and how those of others are told from them and left alone.
// Attaching replaces atomically: no frame passes between the old and the new program.
//
// What is attached is kept here as the kernel tells of it, so that asking for what is so already costs
// nothing: the qdiscs are read once, the filter in our place when it is first asked about, and both follow
// the notifications from then on.
//
// The clsact qdisc is made where there is none. Which ones were is noted in the names of the filters (they end
// with kOwnQdisc), so that it is known after a restart too: such a one goes with the last filter behind it, and
// stays where others have put theirs there meanwhile.
//
// Formats: <linux/pkt_sched.h>, <linux/pkt_cls.h>.

#include <array>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "Netlink/Route.h"
#include "SoftForward/Programs.h"

namespace SoftForward {

enum class Direction : std::uint8_t { ingress, egress };

// A device and the direction of its frames. The name is for what is said about it.
struct Hook {
  Netlink::IfIndex ifIndex = 0;
  Direction direction = Direction::ingress;
  std::string device;
};

class Filters {
 public:
  // Before what tools choose when no priority is given (49152 and down), and early: our filters pass on what
  // they do not handle.
  static constexpr std::uint16_t kPriority = 135;
  static constexpr std::uint32_t kHandle = 1;
  static constexpr const char* kPrefix = "soft-forward:";
  static constexpr const char* kOwnQdisc = "+clsact";

  // Of the two sockets, one is for dumps.
  Filters(Netlink::Socket& requests, Netlink::Socket& dumps) : requests_(requests), dumps_(dumps) {}

  // A notification of RTNLGRP_TC, or a message of the dump of all qdiscs; those about something else are
  // passed over. The device whose filters of ours may have changed, 0: none.
  Netlink::IfIndex apply(const Netlink::Received& message);
  static Netlink::Message qdiscDump();
  // Nothing is known any more: the qdiscs are to be read again.
  void clear() { devices_.clear(); }
  // The device is gone, and its index may be another one's soon.
  void forget(Netlink::IfIndex ifIndex) { devices_.erase(ifIndex); }
  std::vector<Netlink::IfIndex> devices() const;  // those with a qdisc

  // Whether just that program is attached, asking the kernel only if nothing is known.
  Mox::Result<bool> has(const Hook& hook, const LoadedProgram& program);
  // Attaches it unless it is.
  Mox::Result<> attachedIs(const Hook& hook, const LoadedProgram& program);
  // Attaches it in place of ours that is there. Fails when somebody else's filter is in our place.
  Mox::Result<> attach(const Hook& hook, const LoadedProgram& program);
  // No failure if the device or the filter is gone already.
  Mox::Result<> detach(const Hook& hook);
  // All of ours, with the qdiscs that are ours unless others have filters there; `removed` is told what of which
  // device. The first failure is returned.
  using Removed = std::function<void(Netlink::IfIndex ifIndex, const std::string& what)>;
  Mox::Result<> removeAll(const Removed& removed);

 private:
  // What is in our place of a direction.
  struct Place {
    enum class Owner : std::uint8_t { nobody, us, other } owner = Owner::nobody;
    std::string name;
    bool ownQdisc = false;      // a filter of ours, and behind a qdisc that we made
    std::uint32_t program = 0;  // the kernel's id
    friend bool operator==(const Place&, const Place&) = default;
  };
  // That has a qdisc for filters.
  struct Device {
    std::array<std::optional<Place>, 2> places;  // by direction; nothing: not known
    bool ownQdisc = false;                       // we made it, as far as places tell
  };

  static Place placeOf(const Netlink::Received& message);
  Netlink::IfIndex applyQdisc(const Netlink::Received& message);
  Mox::Result<Place> place(const Hook& hook);
  void placeIs(const Hook& hook, Place place);
  Mox::Result<> qdiscDel(const Hook& hook);
  // Whether its clsact has no filters, or none but ours.
  Mox::Result<bool> isFree(Netlink::IfIndex ifIndex, bool ofOthers);

  Netlink::Socket& requests_;
  Netlink::Socket& dumps_;
  std::map<Netlink::IfIndex, Device> devices_;
};

}  // namespace SoftForward
