#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Netlink/KernelAccess.h"
#include "Netlink/Message.h"

namespace Netlink {

struct FakeNeighbour {
  std::string mac = "02:00:00:00:00:01";  // "": unresolved
  std::uint16_t state = 0x02;             // NUD_REACHABLE
  std::uint8_t flags = 0;
  std::optional<std::uint8_t> protocol;
};
struct FakeMac {
  std::string port;
  std::uint16_t state = 0x02;
  std::uint8_t flags = 0;
  std::uint16_t vlan = 0;
};

// Network namespaces with devices, addresses, neighbours and bridges' MAC tables, without a kernel behind
// them. Every verb changes the state and tells those who listen, in the kernel's own messages. A dump is made
// when it starts and handed out a few messages at a time, so what happens in between makes it stale.
class FakeKernel final : public KernelAccess {
 public:
  using Neighbour = FakeNeighbour;
  using Mac = FakeMac;
  class Source;

  class Namespace {
   public:
    explicit Namespace(NamespaceId id) : id_(id) {}

    void addLink(const std::string& name, std::uint32_t ifIndex,
                 const std::string& mac = "02:00:00:00:be:ef") {
      linkIs(ifIndex, {name, mac});
    }
    void addVrf(const std::string& name, std::uint32_t ifIndex) { linkIs(ifIndex, {name, "", "vrf"}); }
    // An 802.1Q device; `lower` is an index.
    void addVlan(const std::string& name, std::uint32_t ifIndex, std::uint32_t lower, std::uint16_t vlanId) {
      linkIs(ifIndex, {name, "02:00:00:00:be:ef", "vlan", 0, false, lower, vlanId});
    }
    // With its addresses, neighbours and entries in MAC tables, as the kernel does it, and after what was
    // below a VRF device has left it.
    void delLink(const std::string& name);
    void renameLink(const std::string& name, const std::string& newName) {
      change(name, [&](Device& device) { device.name = newName; });
    }
    void macIs(const std::string& name, const std::string& mac) {
      change(name, [&](Device& device) { device.mac = mac; });
    }
    void filtersVlans(const std::string& bridge, bool filters) {
      change(bridge, [&](Device& device) { device.kind = "bridge", device.filters = filters; });
    }
    void portIs(const std::string& name, const std::string& bridge) {
      change(name, [&](Device& device) { device.bridge = indexOf(bridge); });
    }
    // Below the VRF device ("": none any more), which loses it its neighbours.
    void putBelow(const std::string& name, const std::string& vrfDevice);
    void addAddress(const std::string& device, const std::string& prefix, bool secondary = false);
    void delAddress(const std::string& device, const std::string& prefix) {
      entryDel(Table::addresses, {indexOf(device), prefix});
    }
    void addNeighbour(const std::string& device, const std::string& ip, const Neighbour& neighbour = {});
    void delNeighbour(const std::string& device, const std::string& ip) {
      entryDel(Table::neighbours, {indexOf(device), ip});
    }
    void addMac(const std::string& bridge, const std::string& mac, const Mac& entry);
    void delMac(const std::string& bridge, const std::string& mac, std::uint16_t vlan = 0) {
      entryDel(Table::macs, {indexOf(bridge), mac + " " + std::to_string(vlan)});
    }

    // Notifications get lost from here on, until overrun() says so to the listeners.
    void loses() { losing_ = true; }
    void overrun();
    // The next `count` dumps of a table say that a change disturbed them, or fail.
    void disturbs(Table table, int count) { disturbed_[table] = count; }
    void refuses(Table table, int error) { refused_[table] = error; }
    // Any message at all, as a notification.
    void tell(const Message& message);
    int dumps(Table table) const { return dumps_.contains(table) ? dumps_.at(table) : 0; }

   private:
    friend class FakeKernel;
    friend class Source;
    struct Device {
      std::string name;
      std::string mac;
      std::string kind = {};
      std::uint32_t vrfDevice = 0;
      bool filters = false;
      std::uint32_t lower = 0;
      std::uint16_t vlanId = 0;
      std::uint32_t bridge = 0;
    };
    using Key = std::pair<std::uint32_t, std::string>;  // device (or bridge), and what the entry is for
    struct Entry {
      std::uint32_t device = 0;  // goes with it
      std::function<Message(std::uint16_t type)> message;
    };
    std::uint32_t indexOf(const std::string& name) const;
    void linkIs(std::uint32_t ifIndex, const Device& device);
    void change(const std::string& name, const std::function<void(Device&)>& how) {
      Device device = devices_.at(indexOf(name));
      how(device);
      linkIs(indexOf(name), device);
    }
    void flush(std::uint32_t ifIndex, std::initializer_list<Table> tables);
    void entryIs(Table table, const Key& key, Entry entry);
    void entryDel(Table table, const Key& key);
    std::vector<Message> snapshot(Table table, int device);  // of one device, 0: of all

    NamespaceId id_;
    std::map<std::uint32_t, Device> devices_;
    std::map<Table, std::map<Key, Entry>> entries_;
    std::vector<Source*> listeners_;
    std::map<Table, int> disturbed_;
    std::map<Table, int> refused_;
    std::map<Table, int> dumps_;
    bool losing_ = false;
  };

  FakeKernel();
  ~FakeKernel() override;

  // The default one, or one that was added.
  Namespace& in(const std::string& name = Lanix::kDefaultNamespace) { return *namespaces_.at(name); }
  Namespace& addNamespace(const std::string& name);
  // A name with nothing behind it yet.
  void addName(const std::string& name);
  void delNamespace(const std::string& name);
  // What was opened and is still open, in all namespaces.
  int openSources() const { return openSources_; }
  // How often a namespace was looked at.
  int looks() const { return looks_; }

  // Looking at namespaces and entering them fails with this errno from now on; 0: no longer.
  void refusesNames(int error) { refusedNames_ = refusedEntering_ = error; }
  // The latter alone.
  void refusesEntering(int error) { refusedEntering_ = error; }
  // So does watching their names, of which nothing is told then.
  void refusesNameWatch(int error) { refusedNameWatch_ = error; }

  Mox::Result<NamespaceLook> look(const Lanix::NamespaceName& name) override;
  Mox::Result<std::unique_ptr<RouteSource>> open(const Lanix::NamespaceName& name,
                                                 const std::vector<Table>& tables) override;
  std::unique_ptr<NamespaceEvents> watchNamespaces() override;

 private:
  class Events;
  void namesChanged();

  std::map<std::string, std::shared_ptr<Namespace>> namespaces_;  // null: a name only
  std::uint64_t nextInode_ = 100;
  int openSources_ = 0;
  int refusedNames_ = 0;
  int refusedEntering_ = 0;
  int refusedNameWatch_ = 0;
  int looks_ = 0;
  Events* events_ = nullptr;
  Lanix::Replaced<KernelAccess> replaced_;
};

}  // namespace Netlink
