#pragma once

#include <map>
#include <set>
#include <unordered_map>
#include <vector>

#include "KernelNetInfo/Status.h"
#include "KernelState/Messages.h"
#include "KernelState/Tables.h"

namespace KernelState {

// Keeps the devices of one namespace, and publishes them by name. Within a namespace a name and an index
// belong to one device each; whichever the kernel gives away anew ends what had it before, so a device that
// was deleted and made again, renamed, or swapped while notifications were lost is always seen to go first.
class LinkSm final : public Mox::Entity {
 public:
  LinkSm(Ptr<NamespaceState> state, Ptr<KernelNetInfo::Status> kernelNetInfo);

  void handleMessage(const Netlink::Received& message, Word word);
  void reconcileBegin() { mirror_.reconcileBegin(); }
  bool sweep();

 private:
  struct Nothing {};
  void linkIs(IfIndex ifIndex, const Link& link);
  void linkDel(IfIndex ifIndex);

  Ptr<NamespaceState> state_;
  Ptr<KernelNetInfo::Status> kernelNetInfo_;
  Mirror<IfIndex, Nothing> mirror_;
};

// Keeps the IPv4 addresses of the devices of one namespace.
class AddressSm final : public Mox::Entity {
 public:
  explicit AddressSm(Ptr<NamespaceState> state);

  void handleMessage(const Netlink::Received& message, Word word);
  void reconcileBegin() {
    swept_ = false;
    mirror_.reconcileBegin();
  }
  // Ends with publishing what the reading changed: in the midst of it the order is not known.
  bool sweep();
  // The reading is over, with a sweep or without.
  void handleTableRead();

 private:
  using Key = Netlink::OnDevice<Lanix::IpGenPrefix>;
  struct Record {
    bool secondary = false;
  };
  void publish(IfIndex ifIndex);
  void publishRead(std::size_t max);
  void forget(const Key& key);

  Ptr<NamespaceState> state_;
  Mirror<Key, Record> mirror_;
  std::unordered_map<IfIndex, std::vector<Lanix::IpGenPrefix>> order_;  // as the kernel lists them
  std::set<IfIndex> unpublished_;
  bool swept_ = false;  // since the last reading
};

}  // namespace KernelState
