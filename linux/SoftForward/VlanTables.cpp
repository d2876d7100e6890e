#include "SoftForward/VlanTables.h"

#include <linux/rtnetlink.h>

#include <cerrno>

namespace SoftForward {
namespace {

// Some thousand VLANs that are set one by one on each of several ports.
constexpr int kReceiveBuffer = 4 << 20;
constexpr std::size_t kMessagesAtOnce = 64;

}  // namespace

VlanTables::VlanTables()
    : dumps_(NETLINK_ROUTE), notifications_(NETLINK_ROUTE, {.receiveBuffer = kReceiveBuffer}) {}

Mox::Result<> VlanTables::open() {
  for (Netlink::Socket* socket : {&dumps_, &notifications_})
    if (!socket->open()) return Netlink::describe("opening a netlink socket", socket->opened());
  const auto joined = notifications_.join(RTNLGRP_BRVLAN);
  if (!joined && joined.number() != EINVAL)
    return Netlink::describe("joining the kernel's notifications of VLANs", joined);
  return {};
}

bool VlanTables::receive(const std::function<void(Netlink::IfIndex)>& changed) {
  const Netlink::Notifications batch = notifications_.receive(
      [&](const Netlink::Received& message) {
        const auto told = Netlink::readBridgeVlans(message);
        if (!told) return;
        forget(told->ifIndex);
        changed(told->ifIndex);
      },
      kMessagesAtOnce);
  if (batch.overrun || !batch.result) {
    tables_.clear();
    changed(0);
  }
  return batch.more;
}

Mox::Result<const Netlink::BridgeVlans*> VlanTables::of(Netlink::IfIndex ifIndex) {
  if (const auto known = tables_.find(ifIndex); known != tables_.end()) return &known->second;
  Netlink::BridgeVlans all;
  bool malformed = false;
  const auto dumped = dumps_.dump(
      Netlink::bridgeVlansDump(ifIndex),
      [&](const Netlink::Received& message) {
        const auto part = Netlink::readBridgeVlans(message);
        malformed = malformed || !part;
        if (!part || part->ifIndex != ifIndex) return;
        all.carried |= part->carried;
        all.untagged |= part->untagged;
        all.blocked |= part->blocked;
        if (part->pvid != 0) all.pvid = part->pvid;
      },
      [&] { all = {}; });
  // No such device, or one that is no bridge and no port of one.
  const bool none = dumped.number() == ENODEV || dumped.number() == EINVAL;
  if (!dumped && !none) return Netlink::describe("reading its VLANs", dumped).failure();
  if (malformed) return Mox::Failure{"reading its VLANs: the kernel's answer makes no sense", EPROTO};
  if (none) all = {};
  all.ifIndex = ifIndex;
  return &(tables_[ifIndex] = all);
}

}  // namespace SoftForward
