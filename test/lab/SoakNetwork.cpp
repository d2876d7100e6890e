#include "lab/SoakNetwork.h"

#include <arpa/inet.h>

#include <fstream>

#include "lab/LabKernel.h"

namespace Lab {
namespace {

constexpr unsigned kPortsOfVlan = 4, kHostsOfPort = 5;
constexpr auto kTolerance =
    std::chrono::seconds(5);  // an old MAC may be answered, where the daemon was killed
const auto kDeadline = std::chrono::seconds(10) * patienceFactor();  // a machine may leave the daemon waiting
constexpr std::size_t kFaultsTold = 20;
constexpr std::size_t kArpOperation = 20, kArpSender = 22, kArpSenderIp = 28, kArpTargetIp = 38;

template <std::size_t kSize>
std::array<std::uint8_t, kSize> bytesAt(const Frame& frame, std::size_t at) {
  std::array<std::uint8_t, kSize> bytes{};
  for (std::size_t i = 0; i < kSize; ++i) bytes[i] = std::to_integer<std::uint8_t>(frame.at(at + i));
  return bytes;
}
std::optional<Address> addressOf(const Ip& ip) {
  if (ip[0] != 10) return {};
  return Address{ip[1], false, ip[2], ip[3]};
}
std::optional<Address> addressOf(const Ip6& ip) {
  const Address address{ip[5], true, ip[13], ip[15]};
  if (address.ip6() != ip) return {};
  return address;
}

void addressIs(const std::string& device) { run("ip link set " + device + " address 02:00:00:00:00:01"); }
void ipv6Is(const std::string& device) {
  std::ofstream("/proc/sys/net/ipv6/conf/" + device + "/disable_ipv6") << 0;
}

}  // namespace

std::string textOf(const Mac& mac) {
  char text[18];
  std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", mac[0], mac[1], mac[2], mac[3], mac[4],
                mac[5]);
  return text;
}

std::string Address::text() const {
  char text[INET6_ADDRSTRLEN];
  const Ip own = ip();
  const Ip6 own6 = ip6();
  return inet_ntop(is6 ? AF_INET6 : AF_INET, is6 ? static_cast<const void*>(own6.data()) : own.data(), text,
                   sizeof text);
}

SoakNetwork::SoakNetwork(const Namespace& inside, std::uint64_t seed) : inside_(inside), random_(seed) {
  vrfs_[20].emplace("red");
  vrfs_[30].emplace("blue");
  const Entered entered(inside_);
  for (const std::uint8_t vlan : kVlans) {
    const std::string number = std::to_string(vlan);
    bridgeIs(bridgeOf(vlan));
    addressIs(bridgeOf(vlan));  // one that changes with the ports takes all neighbours along
    ipv6Is(bridgeOf(vlan));     // so that a routing daemon can write IPv6 neighbours there
    if (vlan == 10)
      KernelState::addressIs("vlan10", Address{10}.text() + "/16");
    else
      interfaceIs(vlan, true);
    portIs(vlan, "core" + number, Port::Kind::tunnel);
    spareTunnelIs(vlan, true);
    for (unsigned i = 1; i <= kPortsOfVlan; ++i) accessPortIs(vlan, i, true);
    for (unsigned i = 0; i < kPortsOfVlan * kHostsOfPort; ++i) {
      const auto host = static_cast<std::uint8_t>(i + 1);
      hosts_.push_back({vlan, {0x02, 0, 0, 0, vlan, host}, {vlan, false, Address::local, host}, {}});
      hostOf_[hosts_.back().mac] = hosts_.size() - 1;
      hostIs(hosts_.size() - 1, portName(vlan, 1 + i / kHostsOfPort));
    }
  }
}

std::string SoakNetwork::portName(std::uint8_t vlan, unsigned number) {
  return "Ethernet" + std::to_string(vlan * 10U + number);
}

void SoakNetwork::portIs(std::uint8_t vlan, const std::string& name, Port::Kind kind) {
  const Entered entered(inside_);
  vethIs(name, "far-" + name, outside_);
  Lab::portIs(name, bridgeOf(vlan));
  const Entered there(outside_);
  Port port{vlan, kind, PacketSocket("far-" + name)};
  const std::lock_guard lock(mutex_);
  ports_.emplace(name, std::move(port));
}

void SoakNetwork::portDel(const std::string& name) {
  const std::lock_guard lock(mutex_);
  const auto now = Clock::now();
  for (Host& host : hosts_)
    if (host.port == name) host.changed = now;
  listen(now);
  ports_.erase(name);
  const Entered entered(inside_);
  linkDel(name);
}

void SoakNetwork::accessPortIs(std::uint8_t vlan, unsigned number, bool isThere) {
  const std::string name = portName(vlan, number);
  if (isThere == hasPort(name)) return;
  isThere ? portIs(vlan, name, Port::Kind::access) : portDel(name);
}

void SoakNetwork::accessPortFlaps(std::uint8_t vlan, unsigned number) {
  const std::string name = portName(vlan, number);
  const std::lock_guard lock(mutex_);
  const Entered entered(inside_);
  upIs(name, false);
  upIs(name, true);
  awaitOperational(name);
  for (Host& host : hosts_)
    if (host.port == name) host.changed = Clock::now();
}

void SoakNetwork::spareTunnelIs(std::uint8_t vlan, bool isThere) {
  const std::string name = "spare" + std::to_string(vlan);
  if (isThere == hasPort(name)) return;
  isThere ? portIs(vlan, name, Port::Kind::spare) : portDel(name);
}

void SoakNetwork::interfaceIs(std::uint8_t vlan, bool isThere) {
  const std::string device = "vlan" + std::to_string(vlan), end = "to-" + device;
  const Entered entered(inside_);
  if (isThere == (ifIndex(end) != 0)) return;
  {
    const std::lock_guard lock(mutex_);
    interfaceChanged_ = Clock::now();
  }
  if (!isThere) return linkDel(end);
  const Namespace& where = placeOf(vlan);
  vethIs(end, device, where);
  Lab::portIs(end, bridgeOf(vlan));
  const Entered there(where);
  addressIs(device);
  ipv6Is(device);
  KernelState::addressIs(device, Address{vlan}.text() + "/16");
}

void SoakNetwork::namespaceIsAnother() {
  interfaceIs(30, false);
  vrfs_[30].reset();
  vrfs_[30].emplace("blue");
}

void SoakNetwork::trafficIs(bool on) {
  if (on == thread_.joinable()) return;
  if (on) {
    thread_ = std::jthread([this](const std::stop_token& over) { run(over); });
  } else {
    thread_.request_stop();
    thread_.join();
  }
}

SoakNetwork::Sums SoakNetwork::sums() const {
  const std::lock_guard lock(mutex_);
  return sums_;
}

std::vector<std::string> SoakNetwork::faults() const {
  const std::lock_guard lock(mutex_);
  return faults_;
}

void SoakNetwork::ownerIs(const Address& address, const Mac& mac) {
  const std::lock_guard lock(mutex_);
  owners_[{address, mac}] = Clock::time_point::max();
}

void SoakNetwork::ownerDel(const Address& address, const Mac& mac) {
  const std::lock_guard lock(mutex_);
  owners_[{address, mac}] = Clock::now() + kTolerance;
}

void SoakNetwork::daemonKilled() {
  const std::lock_guard lock(mutex_);
  killed_.push_back(Clock::now());
}

void SoakNetwork::hooksChange(bool begin) {
  constexpr auto kBefore = std::chrono::milliseconds(20);
  constexpr auto kBehind = std::chrono::milliseconds(500);  // until forwarding has done what it heard of
  const std::lock_guard lock(mutex_);
  const auto now = Clock::now();
  if (begin) hooking_.push_back({now - kBefore, Clock::time_point::max()});
  if (!begin) hooking_.back().second = now + kBehind;
}

void SoakNetwork::neverAnsweredIs(const std::set<Address>& addresses) {
  const std::lock_guard lock(mutex_);
  never_ = addresses;
}

void SoakNetwork::hostIs(std::size_t at, const std::string& port) {
  const std::lock_guard lock(mutex_);
  Host& host = hosts_[at];
  host.port = port;
  host.changed = Clock::now();
  owners_[{host.address, host.mac}] = Clock::time_point::max();  // it is the same behind the overlay
  Address other = host.address;
  other.is6 = true;
  owners_[{other, host.mac}] = Clock::time_point::max();
  speaks(host);
}

void SoakNetwork::speaks(const Host& host) {
  const auto port = ports_.find(host.port.empty() ? "core" + std::to_string(host.vlan) : host.port);
  if (port != ports_.end())
    port->second.socket.trySend(arpFrame({1, host.mac, host.address.ip(), {}, host.address.ip()}));
}

void SoakNetwork::allSpeak() {
  const std::lock_guard lock(mutex_);
  for (const Host& host : hosts_)
    if (!host.port.empty()) speaks(host);
}

void SoakNetwork::run(const std::stop_token& over) {
  auto expired = Clock::now();
  while (!over.stop_requested()) {
    {
      const std::lock_guard lock(mutex_);
      const auto now = Clock::now();
      askOne(now);
      listen(now);
      if (now - expired > std::chrono::milliseconds(100)) expire(expired = now);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1) * patienceFactor());
  }
}

void SoakNetwork::askOne(Clock::time_point now) {
  const auto below = [this](std::size_t limit) {
    return std::uniform_int_distribution<std::size_t>(0, limit - 1)(random_);
  };
  const std::size_t host = below(hosts_.size());
  Address target{hosts_[host].vlan, below(3) == 0, Address::remote,
                 static_cast<std::uint8_t>(below(kRemotes))};
  const std::size_t what = below(100);
  if (what < 15) {
    target.group = Address::local;
    target.number = static_cast<std::uint8_t>(1 + below(kPortsOfVlan * kHostsOfPort));
  } else if (what < 30) {
    target.group = Address::nobody;
  } else if (what < 32) {
    target = {target.vlan};
  }
  ask(host, target, now);
}

void SoakNetwork::ask(std::size_t at, const Address& target, Clock::time_point now) {
  const Host& host = hosts_[at];
  const auto port = ports_.find(host.port);
  Address own = host.address;
  own.is6 = target.is6;
  if (target.group == Address::local) {  // who shares a port hears it without the switch
    const Host& owner = hosts_[hostOf_.at({0x02, 0, 0, 0, target.vlan, target.number})];
    if (owner.port == host.port) return;
  }
  if (port == ports_.end() || target == own || pending_.contains({at, target})) return;
  const Frame frame = target.is6 ? solicitation(host.mac, own.ip6(), target.ip6())
                                 : arpFrame({1, host.mac, own.ip(), {}, target.ip()});
  if (!port->second.socket.trySend(frame)) return;
  pending_[{at, target}] = {now, at};
  ++sums_.asked;
}

void SoakNetwork::listen(Clock::time_point now) {
  for (auto& [name, port] : ports_)
    while (const auto frame = port.socket.receive(std::chrono::milliseconds(0)))
      hear(port, name, *frame, now);
}

void SoakNetwork::hear(Port& port, const std::string& name, const Frame& frame, Clock::time_point now) {
  if (frame.size() < 42) return;
  const auto type = bytesAt<2>(frame, 12);
  const bool isArp = type == std::array<std::uint8_t, 2>{8, 6};
  const bool isNd = type == std::array<std::uint8_t, 2>{0x86, 0xDD} && frame.size() >= 86 &&
                    frame[Nd::kNextHeader] == std::byte{58};
  if (!isArp && !isNd) return;
  const Mac to = bytesAt<6>(frame, 0);
  const Mac from = bytesAt<6>(frame, 6);
  const std::byte operation = isArp ? frame[kArpOperation + 1] : frame[Nd::kType];
  if (operation == (isArp ? std::byte{2} : std::byte{136})) {
    if (port.kind != Port::Kind::access) return;
    const auto about =
        isArp ? addressOf(bytesAt<4>(frame, kArpSenderIp)) : addressOf(bytesAt<16>(frame, Nd::kTarget));
    if (about) answeredBy(to, *about, bytesAt<6>(frame, isArp ? kArpSender : Nd::kOptionAddress), now);
    return;
  }
  if (operation != (isArp ? std::byte{1} : std::byte{135})) return;
  const auto target =
      isArp ? addressOf(bytesAt<4>(frame, kArpTargetIp)) : addressOf(bytesAt<16>(frame, Nd::kTarget));
  if (!target) return;
  if (port.kind == Port::Kind::tunnel) {
    const auto asker = hostOf_.find(from);
    if (asker != hostOf_.end()) resolve({asker->second, *target}, sums_.flooded, now);
    return;
  }
  // The host that has it answers, the switch's own questions too.
  if (target->group != Address::local || port.kind != Port::Kind::access) return;
  const auto owner = hostOf_.find({0x02, 0, 0, 0, target->vlan, target->number});
  if (owner == hostOf_.end() || hosts_[owner->second].port != name || from == owner->first) return;
  if (isArp)
    port.socket.trySend(
        arpFrame({2, owner->first, target->ip(), from, bytesAt<4>(frame, kArpSenderIp)}, from));
  else
    port.socket.trySend(
        advertisement(owner->first, target->ip6(), from, bytesAt<16>(frame, Nd::kSourceIp), false));
}

void SoakNetwork::answeredBy(const Mac& asker, const Address& target, const Mac& owner,
                             Clock::time_point now) {
  const auto host = hostOf_.find(asker);
  if (host == hostOf_.end()) return;
  if (target.group != Address::gateway) {
    const auto known = owners_.find({target, owner});
    if (known == owners_.end() || known->second < now || never_.contains(target)) {
      ++sums_.wrong;
      fault(std::to_string(seconds()) + " s: host " + textOf(asker) + " was told that " + target.text() +
            " is at " + textOf(owner));
    }
  }
  resolve({host->second, target}, sums_.answered, now);
}

void SoakNetwork::resolve(const std::pair<std::size_t, Address>& request, std::uint64_t& sum,
                          Clock::time_point now) {
  const auto pending = pending_.find(request);
  if (pending == pending_.end()) return;
  sums_.longestWait =
      std::max(sums_.longestWait, std::chrono::duration<double>(now - pending->second.sent).count());
  pending_.erase(pending);
  ++sum;
}

void SoakNetwork::expire(Clock::time_point now) {
  for (auto at = pending_.begin(); at != pending_.end();) {
    const auto& [host, target] = at->first;
    const Clock::time_point sent = at->second.sent;
    if (now - sent < kDeadline) {
      ++at;
      continue;
    }
    const auto changedNear = [&](Clock::time_point changed) { return changed > sent - kTolerance; };
    const Host& asker = hosts_[host];
    bool isCut = changedNear(asker.changed) || !ports_.contains(asker.port) ||
                 (target.group == Address::gateway && changedNear(interfaceChanged_));
    if (target.group == Address::local) {
      const Host& owner = hosts_[hostOf_.at({0x02, 0, 0, 0, target.vlan, target.number})];
      isCut = isCut || changedNear(owner.changed) || !ports_.contains(owner.port);
    }
    const auto kill = std::ranges::find_if(killed_, [&](Clock::time_point at) {
      return sent > at - std::chrono::milliseconds(100) &&
             sent < at + kFailOpen + std::chrono::milliseconds(500);
    });
    if (kill != killed_.end()) {
      ++sums_.afterKill;
      sums_.longestAfterKill =
          std::max(sums_.longestAfterKill, std::chrono::duration<double>(sent - *kill).count());
    } else if (std::ranges::any_of(
                   hooking_, [&](const auto& span) { return sent > span.first && sent < span.second; })) {
      ++sums_.hooked;
    } else if (isCut) {
      ++sums_.cut;
    } else {
      ++sums_.lost;
      fault(std::to_string(std::chrono::duration<double>(sent - begin_).count()) + " s: a request of " +
            asker.address.text() + " on " + asker.port + " for " + target.text() +
            " was neither answered nor flooded");
    }
    at = pending_.erase(at);
  }
}

void SoakNetwork::fault(const std::string& what) {
  if (faults_.size() < kFaultsTold) faults_.push_back(what);
}

std::pair<std::size_t, std::size_t> SoakNetwork::census(const std::vector<Address>& addresses) {
  trafficIs(false);
  const auto settle = [this] {
    const auto end = Clock::now() + kDeadline + std::chrono::seconds(1);
    const std::lock_guard lock(mutex_);
    while (!pending_.empty() && Clock::now() < end) {
      listen(Clock::now());
      expire(Clock::now());
    }
  };
  settle();
  const Sums before = sums();
  for (const Address& address : addresses) {
    {
      const std::lock_guard lock(mutex_);
      std::size_t host = random_() % hosts_.size();
      while (hosts_[host].vlan != address.vlan || !ports_.contains(hosts_[host].port))
        host = (host + 1) % hosts_.size();
      ask(host, address, Clock::now());
      listen(Clock::now());
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  settle();
  const Sums after = sums();
  return {after.answered - before.answered, after.flooded - before.flooded};
}

}  // namespace Lab
