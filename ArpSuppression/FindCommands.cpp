#include "ArpSuppression/FindCommands.h"

#include <algorithm>
#include <array>
#include <optional>
#include <set>
#include <span>
#include <tuple>

#include "ArpSuppression/ArpSuppressionAgent.h"
#include "Orb/DumpContext.h"
#include "Orb/JsonObject.h"
#include "Suppression/BindingOrigin.h"

namespace ArpSuppression {

namespace {

using Arguments = std::vector<Mox::String>;

// Which hosts are asked for: what is not set holds for all.
struct Filter {
  std::optional<Bridging::VlanId> vlanId;
  std::optional<Lanix::IpGenAddr> ip;
  std::optional<Lanix::EthAddr> mac;
  std::optional<Mox::String> vrf;
  std::optional<Mox::String> interface;

  static Mox::Result<Filter> of(std::span<const Mox::String> arguments) {
    Filter filter;
    for (const Mox::String& argument : arguments) {
      const std::size_t equals = std::min(argument.find('='), argument.size());
      const Mox::String name = argument.substr(0, equals);
      const Mox::String value = argument.substr(std::min(equals + 1, argument.size()));
      const auto is = [&](auto& member, const auto& read, const char* allowed) -> Mox::Result<> {
        member = read;
        if (member) return {};
        return Mox::Failure{name + " \"" + value + "\" is not " + allowed};
      };
      Mox::Result<> good;
      if (name == "vlan") {
        good = is(filter.vlanId, Bridging::VlanId::fromStrep(value), "a VLAN id from 1 to 4094");
      } else if (name == "ip") {
        good = is(filter.ip, Lanix::IpGenAddr::fromStrep(value), "an IPv4 or IPv6 address like 10.0.0.9");
      } else if (name == "mac") {
        good = is(filter.mac, Lanix::EthAddr::fromStrep(value), "a MAC address like 02:00:00:00:00:09");
      } else if (name == "vrf") {
        filter.vrf = value;
      } else if (name == "interface") {
        filter.interface = value;
      } else {
        good = Mox::Failure{"\"" + argument + "\" is not vlan=, ip=, mac=, vrf= or interface="};
      }
      if (!good) return good.failure();
    }
    return filter;
  }
  bool holds(Bridging::VlanId ofVlan, const Lanix::IpGenAddr& ofIp, const Lanix::EthAddr& ofMac) const {
    return (!vlanId || *vlanId == ofVlan) && (!ip || *ip == ofIp) && (!mac || *mac == ofMac);
  }
};

// A JSON array, an element a line.
class List {
 public:
  explicit List(int descriptor) : answer_(descriptor) {}
  List(const List&) = delete;
  List& operator=(const List&) = delete;
  ~List() {
    answer_.line(0, line_);
    answer_.line(0, "]");
  }
  void add(const Orb::JsonObject& element) {
    answer_.line(0, line_ + (std::exchange(begun_, true) ? "," : ""));
    line_ = element.text();
  }

 private:
  Orb::DumpContext answer_;
  Mox::String line_ = "[";  // one behind, as only the last element has no comma
  bool begun_ = false;      // an element is in hand
};

// What is known, by VLAN and address.
class Tables {
 public:
  explicit Tables(const ArpSuppressionRootSm& rootSm) : rootSm_(rootSm), mounts_(*rootSm.mounts()) {}

  template <class Take>
  void local(const Filter& filter, const Take& take) const {
    if (!rootSm_.root()) return;
    std::vector<const LocalBinding*> found;
    for (const Ptr<LocalBinding>& binding : rootSm_.root()->localBindingRecord->bindingCollection()) {
      const auto& [vlanId, mac] = binding->vlanIdMacAddress();
      const VrfIpAddress& key = binding->vrfIpAddress();
      if (filter.holds(vlanId, key.ipAddress, mac) && (!filter.vrf || *filter.vrf == nameOf(key.vrfInfo)) &&
          (!filter.interface || *filter.interface == interfaceOf(vlanId, mac)))
        found.push_back(binding.get());
    }
    std::ranges::sort(found, {}, [](const LocalBinding* binding) {
      return std::tuple(binding->vlanIdMacAddress().vlanId, binding->vrfIpAddress().ipAddress);
    });
    for (const LocalBinding* binding : found) take(*binding);
  }

  // Also those of VLANs that have no layer-3 info: requests for them are answered as well.
  template <class Take>
  void remote(const Filter& filter, const Take& take) const {
    if (!mounts_.remoteBindingConfig || filter.interface) return;
    std::vector<std::pair<RemoteBindingKey, RemoteBinding>> found;
    mounts_.remoteBindingConfig->remoteBindingForEach(
        [&](const RemoteBindingKey& key, const RemoteBinding& binding) {
          if (filter.holds(key.vlanId, key.ipAddress, binding.macAddress) &&
              (!filter.vrf || *filter.vrf == vrfOf(key.vlanId)))
            found.emplace_back(key, binding);
        });
    std::ranges::sort(
        found, {}, [](const auto& entry) { return std::tuple(entry.first.vlanId, entry.first.ipAddress); });
    for (const auto& [key, binding] : found) take(key, binding);
  }

  template <class Take>
  void neighbours(const Filter& filter, const Take& take) const {
    if (!mounts_.arpStatus) return;
    mounts_.arpStatus->arpEntryForEach([&](const Arp::Table::ArpKey& key, const Arp::Table::ArpEntry& entry) {
      const std::uint32_t vlan = key.intfId.vlanNumber();
      if (Bridging::VlanId::valid(vlan) && filter.holds(Bridging::VlanId(vlan), key.addr, entry.mac))
        take(Bridging::VlanId(vlan), key, entry);
    });
  }

  template <class Take>
  void macs(const std::set<Lanix::EthAddr>& wanted, const Take& take) const {
    if (!mounts_.bridgingStatus) return;
    mounts_.bridgingStatus->fdbForEach(
        [&](const Bridging::HostKey& key, const Memtab::Bridging::MemtabFdbStatus& entry) {
          if (wanted.contains(key.macAddress)) take(vlanOf(key.fid), key, entry);
        });
  }

  Mox::String interfaceOf(Bridging::VlanId vlanId, const Lanix::EthAddr& mac) const {
    const auto port = mounts_.bridgingStatus->fdb({rootSm_.arpSuppressionSm()->fidOf(vlanId), mac});
    return port.intf ? port.intf.toStrep() : Mox::String();
  }
  Mox::String vrfOf(Bridging::VlanId vlanId) const {
    const auto info = rootSm_.root() ? rootSm_.root()->vlanL3InfoStatus->vlanL3Info(vlanId) : nullptr;
    return info ? nameOf(info->vrfInfo()) : Mox::String();
  }
  Mox::String vrfOf(Vrf::VrfIdMap::VrfId id) const { return mounts_.vrfIdMap->vrfIdToName(id).toStrep(); }
  // What is known of a local host's past, behind what is said of it.
  Orb::JsonObject& addHistory(Orb::JsonObject& shown, const LocalBinding& binding) const {
    const auto& [since, heard, moves] = binding.history();
    const auto now = static_cast<std::uint32_t>(rootSm_.arpInputConfigSm()->scheduler()->loop().now());
    return shown.add("ageSeconds", now - since).add("lastSeenSeconds", now - heard).add("moves", moves);
  }
  std::optional<BindingOrigin::Origin> originOf(const RemoteBindingKey& key) const {
    const auto origin = mounts_.entityManager->entityOf<BindingOrigin>(kBindingOriginPath);
    return origin ? origin->of(key) : std::nullopt;
  }
  static Mox::String nameOf(const Ptr<VrfInfo>& vrf) { return vrf ? vrf->vrfName() : Mox::String(); }

 private:
  // The VLAN whose forwarding database it is.
  std::uint32_t vlanOf(Bridging::Fid fid) const {
    for (const auto& [vlanId, own] : mounts_.bridgingConfig->vidToFidMapCollection())
      if (own == fid) return vlanId.value();
    return fid;
  }

  const ArpSuppressionRootSm& rootSm_;
  const ArpSuppressionMounts& mounts_;
};

class BindingsCommand final : public Plugin::AgentCommandCallback {
 public:
  explicit BindingsCommand(Ptr<const ArpSuppressionRootSm> rootSm)
      : AgentCommandCallback("", "bindings", Answer::large), rootSm_(std::move(rootSm)) {}

  Mox::Result<> check(const Arguments& arguments) const override {
    if (arguments.empty()) return Mox::Failure{"bindings takes local, remote or both, and filters"};
    if (arguments[0] != "local" && arguments[0] != "remote" && arguments[0] != "both")
      return Mox::Failure{"the table \"" + arguments[0] + "\" is not local, remote or both"};
    const auto filter = Filter::of(std::span(arguments).subspan(1));
    return filter ? Mox::Result<>() : filter.failure();
  }

  void handleCommand(int descriptor, const Arguments& arguments) override {
    const Filter filter = *Filter::of(std::span(arguments).subspan(1));
    const Tables tables(*rootSm_);
    const bool both = arguments[0] == "both";
    List list(descriptor);
    const auto begun = [&](const char* table, const Mox::String& vrf, const Lanix::IpGenAddr& ip,
                           Bridging::VlanId vlanId, const Lanix::EthAddr& mac) {
      Orb::JsonObject shown;
      if (both) shown.add("table", table);
      shown.add("vrf", vrf).add("ip", ip.toStrep()).add("vlan", vlanId.value()).add("mac", mac.toStrep());
      return shown;
    };
    if (arguments[0] != "remote") {
      tables.local(filter, [&](const LocalBinding& binding) {
        const auto& [vlanId, mac] = binding.vlanIdMacAddress();
        const VrfIpAddress& key = binding.vrfIpAddress();
        Orb::JsonObject shown = begun("local", Tables::nameOf(key.vrfInfo), key.ipAddress, vlanId, mac);
        if (const Mox::String port = tables.interfaceOf(vlanId, mac); !port.empty())
          shown.add("interface", port);
        shown.add("dynamic", binding.arpStatusHasDynamicEntry());
        list.add(tables.addHistory(shown, binding));
      });
    }
    if (arguments[0] == "local") return;
    tables.remote(filter, [&](const RemoteBindingKey& key, const RemoteBinding& binding) {
      Orb::JsonObject shown =
          begun("remote", tables.vrfOf(key.vlanId), key.ipAddress, key.vlanId, binding.macAddress);
      shown.add("localMultihomed", binding.localMultihomed);
      if (key.ipAddress.isIpv6()) shown.add("router", binding.router);
      list.add(shown);
    });
  }

 private:
  Ptr<const ArpSuppressionRootSm> rootSm_;
};

class FindCommand final : public Plugin::AgentCommandCallback {
 public:
  explicit FindCommand(Ptr<const ArpSuppressionRootSm> rootSm)
      : AgentCommandCallback("", "find", Answer::large), rootSm_(std::move(rootSm)) {}

  Mox::Result<> check(const Arguments& arguments) const override {
    if (arguments.size() == 1 &&
        (Lanix::EthAddr::fromStrep(arguments[0]) || Lanix::IpGenAddr::fromStrep(arguments[0])))
      return {};
    return Mox::Failure{"find takes a MAC address like 02:00:00:00:00:09 or an IP address like 10.0.0.9"};
  }

  void handleCommand(int descriptor, const Arguments& arguments) override {
    Filter filter;
    filter.mac = Lanix::EthAddr::fromStrep(arguments[0]);
    if (!filter.mac) filter.ip = Lanix::IpGenAddr::fromStrep(arguments[0]);
    const Tables tables(*rootSm_);
    List list(descriptor);
    std::set<Lanix::EthAddr> macs;
    if (filter.mac) macs.insert(*filter.mac);
    const auto begun = [&](const char* table, std::uint32_t vlan, const Mox::String& ip,
                           const Lanix::EthAddr& mac) {
      macs.insert(mac);
      return Orb::JsonObject().add("vlan", vlan).add("ip", ip).add("mac", mac.toStrep()).add("table", table);
    };
    tables.local(filter, [&](const LocalBinding& binding) {
      const auto& [vlanId, mac] = binding.vlanIdMacAddress();
      const VrfIpAddress& key = binding.vrfIpAddress();
      Orb::JsonObject shown = begun("local", vlanId.value(), key.ipAddress.toStrep(), mac);
      if (const Mox::String port = tables.interfaceOf(vlanId, mac); !port.empty())
        shown.add("interface", port);
      shown.add("vrf", Tables::nameOf(key.vrfInfo))
          .add("source", binding.confirmed() ? "ARP" : "moved here with its MAC, being asked for");
      list.add(tables.addHistory(shown, binding));
    });
    tables.remote(filter, [&](const RemoteBindingKey& key, const RemoteBinding& binding) {
      Orb::JsonObject shown =
          begun("remote", key.vlanId.value(), key.ipAddress.toStrep(), binding.macAddress);
      shown.add("vrf", tables.vrfOf(key.vlanId));
      if (key.ipAddress.isIpv6()) shown.add("router", binding.router);
      if (const auto origin = tables.originOf(key)) {
        list.add(shown.add("source", origin->writer).add("ageSeconds", origin->ageSeconds));
      } else {
        list.add(shown.add("source", binding.source == BindingSource::feed ? "EVPN" : "by hand"));
      }
    });
    tables.neighbours(filter, [&](Bridging::VlanId vlanId, const Arp::Table::ArpKey& key,
                                  const Arp::Table::ArpEntry& entry) {
      const bool own = entry.isStatic && entry.arpType == Arp::Table::kArpTypeOwn;
      list.add(begun("kernel", vlanId.value(), key.addr.toStrep(), entry.mac)
                   .add("interface", key.intfId.toStrep())
                   .add("vrf", tables.vrfOf(key.vrfId))
                   .add("source", own              ? "this system"
                                  : entry.isStatic ? "static"
                                                   : "dynamic"));
    });
    const std::set<Lanix::EthAddr> wanted = macs;
    tables.macs(wanted, [&](std::uint32_t vlan, const Bridging::HostKey& key,
                            const Memtab::Bridging::MemtabFdbStatus& entry) {
      list.add(begun("mac", vlan, "", key.macAddress)
                   .add("interface", entry.intf.toStrep())
                   .add("source", Mox::toStrep(entry.entryType)));
    });
  }

 private:
  Ptr<const ArpSuppressionRootSm> rootSm_;
};

}  // namespace

Ptr<Plugin::AgentCommandCallback> makeBindingsCommand(Ptr<const ArpSuppressionRootSm> rootSm) {
  return Mox::make<BindingsCommand>(std::move(rootSm));
}

Ptr<Plugin::AgentCommandCallback> makeFindCommand(Ptr<const ArpSuppressionRootSm> rootSm) {
  return Mox::make<FindCommand>(std::move(rootSm));
}

}  // namespace ArpSuppression
