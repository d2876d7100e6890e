#pragma once

// The network devices of this namespace as the kernel last told of them: read once, and kept by its
// notifications from then on.

#include <functional>
#include <map>
#include <set>
#include <string>

#include "Netlink/Route.h"

namespace SoftForward {

// Whether the bridge takes what hosts behind its port send, and sends them what is for them.
bool forwards(const Netlink::Link& port);

class LinkTable {
 public:
  enum class Change : std::uint8_t { became, gone };
  // Called once the table holds the new state: with what a device was before, and with what it became. A
  // device that is only one of the two is reported once. Changes of what nobody here asks about are none.
  using Changed = std::function<void(const Netlink::Link&, Change)>;
  explicit LinkTable(Changed changed) : changed_(std::move(changed)) {}

  // Null: there is none. Valid until the next message.
  const Netlink::Link* find(const std::string& name) const;
  const Netlink::Link* find(Netlink::IfIndex index) const;
  const std::set<Netlink::IfIndex>& portsOf(Netlink::IfIndex bridge) const;
  const std::map<Netlink::IfIndex, Netlink::Link>& links() const { return links_; }

  // A notification, or a message of a dump; those about something else are passed over.
  void apply(const Netlink::Received& message);

  // What is not told of between the two is gone.
  void readingBegins();
  void readingEnds();

 private:
  void put(Netlink::Link link);
  void erase(Netlink::IfIndex index);
  void unindex(const Netlink::Link& link);

  Changed changed_;
  std::map<Netlink::IfIndex, Netlink::Link> links_;
  std::map<std::string, Netlink::IfIndex> names_;
  std::map<Netlink::IfIndex, std::set<Netlink::IfIndex>> ports_;  // by the device above them
  std::set<Netlink::IfIndex> unread_;                             // since readingBegins
};

}  // namespace SoftForward
