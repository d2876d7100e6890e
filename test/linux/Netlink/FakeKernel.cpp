#include "FakeKernel.h"

#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/rtnetlink.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <deque>

#include "Lanix/IpGenPrefix.h"

namespace Netlink {
namespace {

constexpr std::size_t kMessagesPerSlice = 2;

template <class Address>
auto bytesOf(const std::string& text) {
  return Address::fromStrep(text).value().bytes();
}

void put(Message& message, std::uint16_t attribute, const std::string& mac) {
  const auto bytes = bytesOf<Lanix::EthAddr>(mac);
  message.bytes(attribute, std::as_bytes(std::span(bytes)));
}

std::uint16_t newTypeOf(Table table) {
  return table == Table::links ? RTM_NEWLINK : table == Table::addresses ? RTM_NEWADDR : RTM_NEWNEIGH;
}

template <class Header>
Header headerOf(const Message& message) {
  Header header{};
  const auto bytes = message.data().subspan(sizeof(nlmsghdr));
  std::memcpy(&header, bytes.data(), std::min(bytes.size(), sizeof header));
  return header;
}

// What it is about, or asks for.
Table tableOf(const Message& message) {
  if (message.type() < RTM_NEWADDR) return Table::links;
  if (message.type() < RTM_NEWROUTE) return Table::addresses;
  return headerOf<rtgenmsg>(message).rtgen_family == AF_BRIDGE ? Table::macs : Table::neighbours;
}

constexpr Policy kMacPolicy[] = {
    {NDA_LLADDR, Kind::bytes, 6, 6}, {NDA_MASTER, Kind::u32}, {NDA_VLAN, Kind::u16}};

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
  Source(FakeKernel& kernel, std::shared_ptr<Namespace> of, const std::vector<Table>& tables)
      : kernel_(kernel), of_(std::move(of)), tables_(tables) {
    of_->listeners_.push_back(this);
    ++kernel_.openSources_;
  }
  ~Source() override {
    std::erase(of_->listeners_, this);
    --kernel_.openSources_;
  }

  void tell(const Message& message) {
    if (congested_ || std::ranges::count(tables_, tableOf(message)) == 0) return;
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

  Notifications receive(const Handler& handler, std::size_t maxMessages) override {
    event_.clear();
    Notifications result;
    if (std::exchange(overrun_, false)) {
      result.overrun = result.more = true;
      return result;
    }
    while (!waiting_.empty() && result.messages < maxMessages) {
      const Message message = waiting_.front();
      waiting_.pop_front();
      handler(Received(message.data()));
      ++result.messages;
    }
    result.more = !waiting_.empty();
    congested_ = congested_ && result.more;
    return result;
  }

  Mox::Result<> dumpStart(Message request) override {
    if (dumping_) return Mox::Failure{"a dump is running", EBUSY};
    table_ = tableOf(request);
    const bool ofOnePort = table_ == Table::macs;
    ++of_->dumps_[table_];
    dump_ = of_->snapshot(table_, ofOnePort ? headerOf<ndmsg>(request).ndm_ifindex : 0);
    at_ = 0;
    dumping_ = true;
    return {};
  }

  DumpSlice dumpSlice(const Handler& handler) override {
    DumpSlice slice;
    for (std::size_t i = 0; i < kMessagesPerSlice && at_ < dump_.size(); ++i, ++at_, ++slice.messages)
      handler(Received(dump_[at_].data()));
    if (at_ < dump_.size()) return slice;
    slice.done = true;
    dumping_ = false;
    if (of_->disturbed_[table_] > 0) {
      --of_->disturbed_[table_];
      slice.interrupted = true;
    }
    if (const int error = std::exchange(of_->refused_[table_], 0))
      slice.result = Mox::Failure{strerror(error), error};
    return slice;
  }

  Mox::Result<> dumpEnd() override {
    dumping_ = false;
    return {};
  }

  Mox::Result<> get(Message request, const Handler& handler) override {
    if (dumping_) return Mox::Failure{"a dump is running", EBUSY};
    const Attributes wanted(Received(request.data()).attributes(sizeof(ndmsg)), kMacPolicy);
    Lanix::EthAddr::Bytes mac;
    std::memcpy(mac.data(), wanted.bytes(NDA_LLADDR)->data(), mac.size());
    const auto entry = of_->entries_[Table::macs].find(
        {*wanted.u32(NDA_MASTER),
         Lanix::EthAddr(mac).toStrep() + " " + std::to_string(wanted.u16(NDA_VLAN).value_or(0))});
    if (entry == of_->entries_[Table::macs].end()) return Mox::Failure{strerror(ENOENT), ENOENT};
    handler(Received(entry->second.message(RTM_NEWNEIGH).data()));
    return {};
  }

 private:
  FakeKernel& kernel_;
  std::shared_ptr<Namespace> of_;
  const std::vector<Table> tables_;
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
  Mox::Result<> drain() override {
    event_.clear();
    const int error = kernel_.refusedNameWatch_;
    return error == 0 ? Mox::Result<>() : Mox::Result<>(Mox::Failure{strerror(error), error});
  }
  void raise() const {
    if (kernel_.refusedNameWatch_ == 0) event_.raise();
  }

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

Mox::Result<NamespaceLook> FakeKernel::look(const Lanix::NamespaceName& name) {
  ++looks_;
  if (refusedNames_ != 0) return Mox::Failure{name + ": " + strerror(refusedNames_), refusedNames_};
  const auto found = namespaces_.find(name);
  if (found == namespaces_.end()) return NamespaceLook{};
  return NamespaceLook{true, found->second ? found->second->id_ : NamespaceId{}};
}

Mox::Result<std::unique_ptr<RouteSource>> FakeKernel::open(const Lanix::NamespaceName& name,
                                                           const std::vector<Table>& tables) {
  const auto found = namespaces_.find(name);
  const int error = found == namespaces_.end() || !found->second ? ENOENT : refusedEntering_;
  if (error != 0) return Mox::Failure{name + " cannot be entered: " + strerror(error), error};
  return std::unique_ptr<RouteSource>(std::make_unique<Source>(*this, found->second, tables));
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

std::vector<Message> FakeKernel::Namespace::snapshot(Table table, int device) {
  std::vector<Message> messages;
  for (const auto& [key, entry] : entries_[table])
    if (device == 0 || static_cast<int>(entry.device) == device)
      messages.push_back(entry.message(newTypeOf(table)));
  return messages;
}

void FakeKernel::Namespace::entryIs(Table table, const Key& key, Entry entry) {
  tell(entry.message(newTypeOf(table)));
  entries_[table].insert_or_assign(key, std::move(entry));
}

void FakeKernel::Namespace::entryDel(Table table, const Key& key) {
  const auto entry = entries_[table].extract(key);
  tell(entry.mapped().message(static_cast<std::uint16_t>(newTypeOf(table) + 1)));  // RTM_DEL...
}

void FakeKernel::Namespace::linkIs(std::uint32_t ifIndex, const Device& device) {
  devices_[ifIndex] = device;
  const auto message = [=](std::uint16_t type) {
    ifinfomsg header{};
    header.ifi_index = static_cast<int>(ifIndex);
    Message message(type);
    message.header(header).string(IFLA_IFNAME, device.name);
    if (!device.mac.empty()) put(message, IFLA_ADDRESS, device.mac);
    const std::uint32_t master = device.vrfDevice != 0 ? device.vrfDevice : device.bridge;
    if (master != 0) message.u32(IFLA_MASTER, master);
    if (device.lower != 0) message.u32(IFLA_LINK, device.lower);
    message.nest(IFLA_LINKINFO, [&](Message& info) {
      if (!device.kind.empty()) info.string(IFLA_INFO_KIND, device.kind);
      info.nest(IFLA_INFO_DATA, [&](Message& data) {
        if (device.kind == "bridge") data.u8(IFLA_BR_VLAN_FILTERING, device.filters ? 1 : 0);
        if (device.kind == "vlan") data.u16(IFLA_VLAN_ID, device.vlanId);
      });
      if (master != 0) info.string(IFLA_INFO_SLAVE_KIND, device.vrfDevice != 0 ? "vrf" : "bridge");
    });
    return message;
  };
  entryIs(Table::links, {ifIndex, ""}, {ifIndex, message});
}

void FakeKernel::Namespace::flush(std::uint32_t ifIndex, std::initializer_list<Table> tables) {
  for (const Table table : tables) {
    const auto entries = entries_[table];
    for (const auto& [key, entry] : entries) {
      if (entry.device == ifIndex) entryDel(table, key);
    }
  }
}

void FakeKernel::Namespace::putBelow(const std::string& name, const std::string& vrfDevice) {
  change(name, [&](Device& device) { device.vrfDevice = indexOf(vrfDevice); });
  flush(indexOf(name), {Table::neighbours});
}

void FakeKernel::Namespace::delLink(const std::string& name) {
  const std::uint32_t ifIndex = indexOf(name);
  const auto devices = devices_;
  for (const auto& [index, device] : devices) {
    if (device.vrfDevice == ifIndex) putBelow(device.name, "");
  }
  flush(ifIndex, {Table::macs, Table::neighbours, Table::addresses});
  entryDel(Table::links, {ifIndex, ""});
  devices_.erase(ifIndex);
}

void FakeKernel::Namespace::addAddress(const std::string& device, const std::string& text, bool secondary) {
  const std::uint32_t ifIndex = indexOf(device);
  const auto message = [=](std::uint16_t type) {
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
  };
  entryIs(Table::addresses, {ifIndex, text}, {ifIndex, message});
}

void FakeKernel::Namespace::addNeighbour(const std::string& device, const std::string& ip,
                                         const Neighbour& entry) {
  const std::uint32_t ifIndex = indexOf(device);
  const auto message = [=](std::uint16_t type) {
    const auto address = Lanix::IpGenAddr::fromStrep(ip).value();
    ndmsg header{};
    header.ndm_family = address.isIpv4() ? AF_INET : AF_INET6;
    header.ndm_ifindex = static_cast<int>(ifIndex);
    header.ndm_state = entry.state;
    header.ndm_flags = entry.flags;
    const std::size_t size = address.isIpv4() ? 4 : 16;
    Message message(type);
    message.header(header).bytes(NDA_DST, std::as_bytes(std::span(address.bytes())).first(size));
    if (!entry.mac.empty()) put(message, NDA_LLADDR, entry.mac);
    if (entry.protocol) message.u8(NDA_PROTOCOL, *entry.protocol);
    return message;
  };
  entryIs(Table::neighbours, {ifIndex, ip}, {ifIndex, message});
}

void FakeKernel::Namespace::addMac(const std::string& bridge, const std::string& mac, const Mac& entry) {
  const std::uint32_t ifIndex = indexOf(bridge), port = indexOf(entry.port);
  const auto message = [=](std::uint16_t type) {
    ndmsg header{};
    header.ndm_family = AF_BRIDGE;
    header.ndm_ifindex = static_cast<int>(port);
    header.ndm_state = entry.state;
    header.ndm_flags = entry.flags;
    Message message(type);
    put(message.header(header), NDA_LLADDR, mac);
    if (ifIndex != 0) message.u32(NDA_MASTER, ifIndex);
    if (entry.vlan != 0) message.u16(NDA_VLAN, entry.vlan);
    return message;
  };
  entryIs(Table::macs, {ifIndex, mac + " " + std::to_string(entry.vlan)}, {port, message});
}

}  // namespace Netlink
