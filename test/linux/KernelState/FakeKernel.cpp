#include "FakeKernel.h"

#include <linux/if_addr.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace KernelState {
namespace {

using Netlink::Message;

constexpr std::size_t kMessagesPerSlice = 2;

template <class Address>
auto bytesOf(const std::string& text) {
  return Address::fromStrep(text).value().bytes();
}

void put(Message& message, std::uint16_t attribute, const std::string& mac) {
  const auto bytes = bytesOf<Lanix::EthAddr>(mac);
  message.bytes(attribute, std::as_bytes(std::span(bytes)));
}

class Event {
 public:
  Event() : descriptor_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
  ~Event() { close(descriptor_); }
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;
  int descriptor() const { return descriptor_; }
  void raise() const { eventfd_write(descriptor_, 1); }
  void clear() const {
    eventfd_t count;
    eventfd_read(descriptor_, &count);
  }

 private:
  int descriptor_;
};

}  // namespace

class FakeKernel::Source final : public RouteSource {
 public:
  Source(FakeKernel& kernel, std::shared_ptr<Namespace> of) : kernel_(kernel), of_(std::move(of)) {
    of_->listeners_.push_back(this);
    ++kernel_.openSources_;
  }
  ~Source() override {
    std::erase(of_->listeners_, this);
    --kernel_.openSources_;
  }

  void tell(const Message& message) {
    if (congested_) return;
    waiting_.push_back(message);
    event_.raise();
  }
  void overrun() {
    overrun_ = true;
    congested_ = !waiting_.empty();
    event_.raise();
  }

  NamespaceId id() const override { return of_->id_; }
  int descriptor() const override { return event_.descriptor(); }

  Netlink::Notifications receive(const Netlink::Handler& handler, std::size_t maxMessages) override {
    event_.clear();
    Netlink::Notifications result;
    if (std::exchange(overrun_, false)) {
      result.overrun = result.more = true;
      return result;
    }
    while (!waiting_.empty() && result.messages < maxMessages) {
      const Message message = waiting_.front();
      waiting_.pop_front();
      handler(Netlink::Received(message.data()));
      ++result.messages;
    }
    result.more = !waiting_.empty();
    congested_ = congested_ && result.more;
    return result;
  }

  Netlink::Result dumpStart(Message request) override {
    if (dumping_) return Netlink::Error{EBUSY, "a dump is running"};
    ndmsg header{};
    std::memcpy(&header, request.data().data() + sizeof(nlmsghdr), sizeof(rtgenmsg));
    table_ = request.type() == RTM_GETLINK    ? Table::links
             : request.type() == RTM_GETADDR  ? Table::addresses
             : header.ndm_family == AF_BRIDGE ? Table::macs
                                              : Table::neighbours;
    ++of_->dumps_[table_];
    dump_ = of_->snapshot(table_);
    at_ = 0;
    dumping_ = true;
    return std::nullopt;
  }

  Netlink::DumpSlice dumpSlice(const Netlink::Handler& handler) override {
    Netlink::DumpSlice slice;
    if (of_->hold_ && at_ != 0) return slice;
    for (std::size_t i = 0; i < kMessagesPerSlice && at_ < dump_.size(); ++i, ++at_, ++slice.messages)
      handler(Netlink::Received(dump_[at_].data()));
    if (at_ < dump_.size() || (of_->hold_ && slice.messages != 0)) return slice;
    slice.done = true;
    dumping_ = false;
    if (of_->disturbed_[table_] > 0) {
      --of_->disturbed_[table_];
      slice.interrupted = true;
    }
    if (const int error = std::exchange(of_->refused_[table_], 0))
      slice.error = Netlink::Error{error, strerror(error)};
    return slice;
  }

 private:
  FakeKernel& kernel_;
  std::shared_ptr<Namespace> of_;
  Event event_;
  std::deque<Message> waiting_;
  bool overrun_ = false;
  bool congested_ = false;  // drops everything until it has been read empty, as the kernel's sockets do
  bool dumping_ = false;
  Table table_ = Table::links;
  std::vector<Message> dump_;
  std::size_t at_ = 0;
};

class FakeKernel::Events final : public NamespaceEvents {
 public:
  explicit Events(FakeKernel& kernel) : kernel_(kernel) { kernel_.events_ = this; }
  ~Events() override { kernel_.events_ = nullptr; }
  std::vector<int> descriptors() const override { return {event_.descriptor()}; }
  void drain() override { event_.clear(); }
  void raise() const { event_.raise(); }

 private:
  FakeKernel& kernel_;
  Event event_;
};

FakeKernel::FakeKernel() : replaced_(*this) { addNamespace(Lanix::kDefaultNamespace); }
FakeKernel::~FakeKernel() = default;

FakeKernel::Namespace& FakeKernel::addNamespace(const std::string& name) {
  auto& slot = namespaces_[name];
  slot = std::make_shared<Namespace>(NamespaceId{4, ++nextInode_});
  namesChanged();
  return *slot;
}

void FakeKernel::addName(const std::string& name) {
  namespaces_[name] = nullptr;
  namesChanged();
}

void FakeKernel::delNamespace(const std::string& name) {
  namespaces_.erase(name);
  namesChanged();
}

void FakeKernel::namesChanged() {
  if (events_) events_->raise();
}

NamespaceLook FakeKernel::look(const Lanix::NamespaceName& name) {
  const auto found = namespaces_.find(name);
  if (found == namespaces_.end()) return {};
  return {true, found->second ? found->second->id_ : NamespaceId{}};
}

std::unique_ptr<RouteSource> FakeKernel::open(const Lanix::NamespaceName& name, std::string& problem) {
  const auto found = namespaces_.find(name);
  if (found == namespaces_.end() || !found->second) {
    problem = name + " cannot be entered";
    return nullptr;
  }
  ++opened_;
  return std::make_unique<Source>(*this, found->second);
}

std::unique_ptr<NamespaceEvents> FakeKernel::watchNamespaces() { return std::make_unique<Events>(*this); }

void FakeKernel::Namespace::tell(const Message& message) {
  if (losing_) return;
  for (Source* listener : listeners_) listener->tell(message);
}

void FakeKernel::Namespace::overrun() {
  losing_ = false;
  for (Source* listener : listeners_) listener->overrun();
}

std::uint32_t FakeKernel::Namespace::indexOf(const std::string& name) const {
  const auto device =
      std::ranges::find_if(devices_, [&](const auto& item) { return item.second.name == name; });
  return device == devices_.end() ? 0 : device->first;
}

Message FakeKernel::Namespace::link(std::uint16_t type, std::uint32_t ifIndex) const {
  ifinfomsg header{};
  header.ifi_index = static_cast<int>(ifIndex);
  const Device& device = devices_.at(ifIndex);
  Message message(type);
  message.header(header).string(IFLA_IFNAME, device.name);
  if (!device.mac.empty()) put(message, IFLA_ADDRESS, device.mac);
  return message;
}

Message FakeKernel::Namespace::address(std::uint16_t type, std::uint32_t ifIndex, const std::string& text,
                                       bool secondary) const {
  const auto prefix = Lanix::IpGenPrefix::fromStrep(text).value();
  ifaddrmsg header{};
  header.ifa_family = AF_INET;
  header.ifa_prefixlen = static_cast<std::uint8_t>(prefix.length());
  header.ifa_index = ifIndex;
  const auto bytes = prefix.address().ipv4().bytes();
  Message message(type);
  message.header(header)
      .bytes(IFA_LOCAL, std::as_bytes(std::span(bytes)))
      .u32(IFA_FLAGS, secondary ? unsigned{IFA_F_SECONDARY} : 0U);
  return message;
}

Message FakeKernel::Namespace::neighbour(std::uint16_t type, std::uint32_t ifIndex,
                                         const std::string& ip) const {
  const Neighbour& entry = neighbours_.at({ifIndex, ip});
  const auto address = Lanix::IpGenAddr::fromStrep(ip).value();
  ndmsg header{};
  header.ndm_family = address.isIpv4() ? AF_INET : AF_INET6;
  header.ndm_ifindex = static_cast<int>(ifIndex);
  header.ndm_state = entry.state;
  header.ndm_flags = entry.flags;
  Message message(type);
  message.header(header).bytes(NDA_DST,
                               std::as_bytes(std::span(address.bytes())).first(address.isIpv4() ? 4 : 16));
  if (!entry.mac.empty()) put(message, NDA_LLADDR, entry.mac);
  if (entry.protocol) message.u8(NDA_PROTOCOL, *entry.protocol);
  return message;
}

Message FakeKernel::Namespace::mac(std::uint16_t type, std::uint32_t bridge, const std::string& mac) const {
  const Mac& entry = macs_.at({bridge, mac});
  ndmsg header{};
  header.ndm_family = AF_BRIDGE;
  header.ndm_ifindex = static_cast<int>(indexOf(entry.port));
  header.ndm_state = entry.state;
  header.ndm_flags = entry.flags;
  Message message(type);
  put(message.header(header), NDA_LLADDR, mac);
  if (bridge != 0) message.u32(NDA_MASTER, bridge);
  if (entry.vlan != 0) message.u16(NDA_VLAN, entry.vlan);
  return message;
}

std::vector<Message> FakeKernel::Namespace::snapshot(Table table) const {
  std::vector<Message> messages;
  if (table == Table::links) {
    for (const auto& [ifIndex, device] : devices_) messages.push_back(link(RTM_NEWLINK, ifIndex));
  } else if (table == Table::addresses) {
    for (const auto& [ifIndex, item] : addresses_)
      messages.push_back(address(RTM_NEWADDR, ifIndex, item.first, item.second));
  } else if (table == Table::neighbours) {
    for (const auto& [key, entry] : neighbours_)
      messages.push_back(neighbour(RTM_NEWNEIGH, key.first, key.second));
  } else {
    for (const auto& [key, entry] : macs_) messages.push_back(mac(RTM_NEWNEIGH, key.first, key.second));
  }
  return messages;
}

void FakeKernel::Namespace::addLink(const std::string& name, std::uint32_t ifIndex, const std::string& mac) {
  devices_[ifIndex] = {name, mac};
  tell(link(RTM_NEWLINK, ifIndex));
}

void FakeKernel::Namespace::delLink(const std::string& name) {
  const std::uint32_t ifIndex = indexOf(name);
  const auto macs = macs_;
  for (const auto& [key, entry] : macs) {
    if (entry.port != name) continue;
    tell(this->mac(RTM_DELNEIGH, key.first, key.second));
    macs_.erase(key);
  }
  const auto neighbours = neighbours_;
  for (const auto& [key, entry] : neighbours) {
    if (key.first != ifIndex) continue;
    tell(neighbour(RTM_DELNEIGH, key.first, key.second));
    neighbours_.erase(key);
  }
  const auto addresses = addresses_;
  for (const auto& [index, item] : addresses) {
    if (index == ifIndex) delAddress(name, item.first);
  }
  tell(link(RTM_DELLINK, ifIndex));
  devices_.erase(ifIndex);
}

void FakeKernel::Namespace::renameLink(const std::string& name, const std::string& newName) {
  const std::uint32_t ifIndex = indexOf(name);
  for (auto& [key, entry] : macs_) {
    if (entry.port == name) entry.port = newName;
  }
  devices_.at(ifIndex).name = newName;
  tell(link(RTM_NEWLINK, ifIndex));
}

void FakeKernel::Namespace::macIs(const std::string& name, const std::string& mac) {
  devices_.at(indexOf(name)).mac = mac;
  tell(link(RTM_NEWLINK, indexOf(name)));
}

void FakeKernel::Namespace::addAddress(const std::string& device, const std::string& prefix, bool secondary) {
  const std::uint32_t ifIndex = indexOf(device);
  const auto at = std::ranges::find_if(
      addresses_, [&](const auto& item) { return item.first == ifIndex && item.second.first == prefix; });
  if (at != addresses_.end()) {
    at->second.second = secondary;
  } else {
    addresses_.push_back({ifIndex, {prefix, secondary}});
  }
  tell(address(RTM_NEWADDR, ifIndex, prefix, secondary));
}

void FakeKernel::Namespace::delAddress(const std::string& device, const std::string& prefix) {
  const std::uint32_t ifIndex = indexOf(device);
  std::erase_if(addresses_,
                [&](const auto& item) { return item.first == ifIndex && item.second.first == prefix; });
  tell(address(RTM_DELADDR, ifIndex, prefix, false));
}

void FakeKernel::Namespace::addNeighbour(const std::string& device, const std::string& ip,
                                         const Neighbour& entry) {
  neighbours_[{indexOf(device), ip}] = entry;
  tell(neighbour(RTM_NEWNEIGH, indexOf(device), ip));
}

void FakeKernel::Namespace::delNeighbour(const std::string& device, const std::string& ip) {
  tell(neighbour(RTM_DELNEIGH, indexOf(device), ip));
  neighbours_.erase({indexOf(device), ip});
}

void FakeKernel::Namespace::addMac(const std::string& bridge, const std::string& mac, const Mac& entry) {
  macs_[{indexOf(bridge), mac}] = entry;
  tell(this->mac(RTM_NEWNEIGH, indexOf(bridge), mac));
}

void FakeKernel::Namespace::delMac(const std::string& bridge, const std::string& mac) {
  tell(this->mac(RTM_DELNEIGH, indexOf(bridge), mac));
  macs_.erase({indexOf(bridge), mac});
}

}  // namespace KernelState
