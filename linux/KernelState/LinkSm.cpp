#include "KernelState/LinkSm.h"

#include <linux/rtnetlink.h>

#include <algorithm>

namespace KernelState {
namespace {

constexpr std::size_t kEntriesPerSweep = 64;

}  // namespace

LinkSm::LinkSm(Ptr<NamespaceState> state, Ptr<KernelNetInfo::Status> kernelNetInfo)
    : state_(std::move(state)), kernelNetInfo_(std::move(kernelNetInfo)) {
  if (kernelNetInfo_) kernelNetInfo_->interfaceDelAll();  // an earlier agent of this process
}

void LinkSm::handleMessage(const Netlink::Received& message, Word word) {
  const auto read = Netlink::readLink(message);
  if (!read || read->ofBridge) return;
  if (message.type() == RTM_DELLINK) {
    if (word == Word::dump) return;
    linkDel(read->index);
    mirror_.gone(read->index);
  } else if (mirror_.said(read->index, word)) {
    linkIs(read->index,
           {read->name, read->mac, read->kind == "vrf", read->filtersVlans,
            read->masterKind == "vrf" ? read->master : 0, read->masterKind == "bridge" ? read->master : 0,
            read->vlanId, read->lower, read->kind == "veth" ? read->peerElsewhere : 0});
  }
}

bool LinkSm::sweep() {
  return mirror_.sweep(kEntriesPerSweep, [this](IfIndex ifIndex, const Nothing&) { linkDel(ifIndex); });
}

void LinkSm::linkIs(IfIndex ifIndex, const Link& link) {
  if (state_->linkHas(ifIndex) && state_->link(ifIndex).name != link.name) linkDel(ifIndex);
  const IfIndex holder = state_->device(link.name);
  if (holder != 0 && holder != ifIndex) linkDel(holder);
  state_->linkIs(ifIndex, link);
  state_->deviceIs(link.name, ifIndex);
  if (kernelNetInfo_) kernelNetInfo_->interfaceIs(link.name, {ifIndex});
}

void LinkSm::linkDel(IfIndex ifIndex) {
  if (!state_->linkHas(ifIndex)) return;
  const Mox::String name = state_->link(ifIndex).name;
  state_->deviceDel(name);
  state_->linkDel(ifIndex);
  if (kernelNetInfo_) kernelNetInfo_->interfaceDel(name);
}

AddressSm::AddressSm(Ptr<NamespaceState> state) : state_(std::move(state)) {}

void AddressSm::handleMessage(const Netlink::Received& message, Word word) {
  const auto read = Netlink::readAddress(message);
  if (!read) return;
  const Key key{read->ifIndex, Lanix::IpGenPrefix(read->address, read->prefixLength)};
  if (message.type() == RTM_DELADDR) {
    if (word == Word::dump) return;
    forget(key);
    mirror_.gone(key);
    publish(key.ifIndex);
    return;
  }
  const bool known = mirror_.find(key) != nullptr;
  Record* record = mirror_.said(key, word);
  if (!record) return;
  record->secondary = read->secondary;
  auto& order = order_[key.ifIndex];
  if (word == Word::dump) {
    // The reading tells the kernel's order.
    std::erase(order, key.address);
    order.push_back(key.address);
    unpublished_.insert(key.ifIndex);
  } else {
    if (!known) order.push_back(key.address);
    publish(key.ifIndex);
  }
}

bool AddressSm::sweep() {
  if (!swept_) {
    swept_ = !mirror_.sweep(kEntriesPerSweep, [this](const Key& key, const Record&) {
      forget(key);
      unpublished_.insert(key.ifIndex);
    });
    return true;
  }
  publishRead(kEntriesPerSweep);
  return !unpublished_.empty();
}

void AddressSm::handleTableRead() { publishRead(unpublished_.size()); }

void AddressSm::publishRead(std::size_t max) {
  for (; max != 0 && !unpublished_.empty(); --max) {
    const IfIndex ifIndex = *unpublished_.begin();
    unpublished_.erase(unpublished_.begin());
    publish(ifIndex);
  }
}

void AddressSm::forget(const Key& key) {
  const auto at = order_.find(key.ifIndex);
  if (at == order_.end()) return;
  std::erase(at->second, key.address);
  if (at->second.empty()) order_.erase(at);
}

void AddressSm::publish(IfIndex ifIndex) {
  const auto at = order_.find(ifIndex);
  if (at == order_.end()) {
    state_->addressesDel(ifIndex);
    return;
  }
  Addresses addresses = at->second;
  std::stable_partition(addresses.begin(), addresses.end(), [&](const Lanix::IpGenPrefix& address) {
    const Record* record = mirror_.find({ifIndex, address});
    return record && !record->secondary;
  });
  state_->addressesIs(ifIndex, std::move(addresses));
}

}  // namespace KernelState
