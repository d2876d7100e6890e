#pragma once

#include <map>
#include <optional>
#include <unordered_map>
#include <vector>

#include "Arp/Table.h"
#include "KernelState/Messages.h"
#include "KernelState/Tables.h"
#include "Mox/Notifiee.h"
#include "Orb/WalkSm.h"

namespace KernelState {

class NeighbourSm;

// The published neighbour table, which the NeighbourSm of every namespace writes. A key may pass from one of
// them to another (a device that moves, VRFs that swap their numbers) in either order of their work, so
// giving one up asks the others for it first.
class NeighbourTable final : public Mox::Referenced {
 public:
  // Null: there is no table to publish in.
  explicit NeighbourTable(Ptr<Arp::Table::Status> arpStatus) : arpStatus_(std::move(arpStatus)) {}

  // False: there is no room for it in shared memory.
  bool entryIs(const Arp::Table::ArpKey& key, const Arp::Table::ArpEntry& entry);
  void withdraw(const Arp::Table::ArpKey& key);
  // Something waits to be published or withdrawn.
  bool busy() const;

 private:
  friend class NeighbourSm;
  Ptr<Arp::Table::Status> arpStatus_;
  std::vector<NeighbourSm*> publishers_;
};

// Keeps the neighbours of one namespace, and publishes those on VLAN interfaces. All are kept, since a device
// becomes or ceases to be a VLAN interface without a word about its neighbours: then, and when the VRF's
// number changes, a walk brings what is published in step.
class NeighbourSm final : public Orb::WalkSmBase {
 public:
  NeighbourSm(Ptr<const NamespaceState> state, Ptr<const VlanOwners> owners, Ptr<NeighbourTable> table,
              const Ptr<Orb::TaskScheduler>& scheduler);
  ~NeighbourSm() override;

  // `gone`: the kernel has the neighbour no longer.
  void handleNeighbour(const Netlink::Neighbour& neighbour, bool gone, Word word);
  void reconcileBegin() { mirror_.reconcileBegin(); }
  bool sweep();

  // Publishes the key if it stands for a neighbour here.
  bool claim(const Arp::Table::ArpKey& key);

 private:
  using Key = Netlink::OnDevice<Lanix::IpGenAddr>;
  struct Record {
    Arp::Table::ArpEntry entry;
    // Published under these; without an interface: not published.
    Vrf::VrfIdMap::VrfId vrfId = Vrf::VrfIdMap::kNoVrfId;
    Lanix::IntfId intf;
  };

  Orb::WalkRet walk() override;
  bool walkStartedNotification() override;
  bool allowWalkRestarts() const override { return true; }
  void handleLink(IfIndex ifIndex);
  void handleOwner(const Lanix::IntfId& intf);
  void forget(const Key& key, Record& record);
  void publish(const Key& key, Record& record);
  void withdraw(const Key& key, Record& record);

  Mox::Notifiee<const NamespaceState> state_;
  Mox::Notifiee<const VlanOwners> owners_;
  Ptr<NeighbourTable> table_;
  Mirror<Key, Record> mirror_;
  Tally onDevice_;
  // The devices of this namespace that are VLAN interfaces, with the VRF's number.
  struct Interface {
    Lanix::IntfId intf;
    Vrf::VrfIdMap::VrfId vrfId = Vrf::VrfIdMap::kNoVrfId;
  };
  std::unordered_map<IfIndex, Interface> vlanInterfaces_;
  std::map<Lanix::IntfId, IfIndex> devices_;
  std::optional<Key> bookmark_;
  Orb::Task retryTask_;  // an entry had no room
};

}  // namespace KernelState
