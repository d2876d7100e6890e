#pragma once

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

#include "Ip/OwnAddresses.h"
#include "KernelEvpn/FeedDevices.h"
#include "Memtab/Cursor.h"
#include "Mox/Notifiee.h"
#include "Netlink/RouteFeed.h"
#include "Orb/WalkSm.h"
#include "Suppression/BindingOrigin.h"
#include "Suppression/RemoteBindingConfig.h"
#include "Switch/ConfigWatch.h"
#include "Switch/ProblemReporter.h"
#include "Switch/Readiness.h"

namespace KernelEvpn {

using ArpSuppression::RemoteBinding;
using ArpSuppression::RemoteBindingConfig;
using ArpSuppression::RemoteBindingKey;
using Mox::Ptr;
using Netlink::Word;

// Writes the table of remote bindings. A key has the binding that the feed has for it: the neighbour that a
// routing daemon keeps on the VLAN's device (FeedDevices), externally learned, with a MAC address and one of
// the configured protocols. Where the feed has none, the configuration's `bindings` do. What a key has follows
// from both as they are when it is decided, so that a binding which passes from one to the other is written
// over, and one that is as it should be is not written.
//
// Externally learned neighbours of all devices are kept, since a device becomes or ceases to be a VLAN's
// without a word about its neighbours: then, and when the configuration or the switch's own addresses change, a
// walk decides everything anew. Until all neighbours were read once nothing is taken away that an earlier run
// left in the table, nor is the table ready for those who mount it.
//
// An address that no other switch can have is refused: this switch's own, a loopback one, one of no single host.
class FeedSm final : public Orb::WalkSmBase, private Netlink::RouteFeedClient {
 public:
  struct Inputs {
    Ptr<const Switch::Config> config;  // not null, as the table
    Ptr<const Ip::Status> ipStatus;    // may be null
    Ptr<RemoteBindingConfig> table;
    Ptr<Switch::Readiness> readiness;  // may be null
    // Called once, when the table holds what belongs into it.
    std::function<void()> ready;
  };
  FeedSm(Inputs inputs, Switch::ProblemReporter& problems, const Ptr<Orb::TaskScheduler>& scheduler);

  // May come later than this.
  void ipStatusIs(Ptr<const Ip::Status> ipStatus);

  // How the feed is, for `arpsup status` and metrics: {"source": "kernel" or "none", "protocols": [11, 186],
  // "ready": whether everything was read once, "ipv4", "ipv6": addresses that are taken, "refused": those that
  // are not, "readings": of all neighbours, "overruns": times that the kernel dropped notifications,
  // "readingAgeSeconds": since the last reading that was whole; null: there was none}.
  Mox::String status() const;
  // Who wrote a binding of the feed, and how long ago, as the kernel says when it is asked here.
  std::optional<ArpSuppression::BindingOrigin::Origin> originOf(const RemoteBindingKey& key) const;

 private:
  enum class Stage : std::uint8_t { neighbours, bindings, former, sweep, over };
  using Key = Netlink::OnDevice<Lanix::IpGenAddr>;
  struct Record {
    Lanix::EthAddr mac;         // zero: a new record
    std::uint8_t protocol = 0;  // who wrote the neighbour
    bool router = false;        // of IPv6
    std::uint16_t vlan = 0;     // decided for this one; 0: for none
    bool held = false;          // and taken
  };
  using Bindings = Ptr<const Switch::EvpnConfig::Bindings>;

  void handleMessage(const Netlink::Received& message, Word word) override;
  void handleReconcile(Netlink::Table table) override;
  bool handleSweep(Netlink::Table table) override;
  void handleTableRead(Netlink::Table table) override;
  void handleRound(bool complete) override;
  void handleFailure(const std::string& problem) override;
  void handleBroken() override;
  void handleClosed() override;

  Orb::WalkRet walk() override;
  bool walkStartedNotification() override;
  void walkFinishedNotification() override;
  bool allowWalkRestarts() const override { return true; }
  bool step();
  bool bindingsStep(const Bindings& bindings);

  void open();
  void handleConfig();
  void handleLink(const Netlink::Received& message, Word word);
  void handleNeighbour(const Netlink::Neighbour& neighbour, bool gone, Word word);
  void followAddresses(const Lanix::IntfId& intf);
  void handleAddresses();
  void publish(const Key& key, Record& record);
  void forget(const Key& key, Record record);
  // Whether the key has the feed's binding now.
  bool decide(std::uint16_t vlanId, const Lanix::IpGenAddr& address);
  void hold(const Key& key, Record& record, bool held);
  RemoteBinding wanted(std::uint16_t vlanId, const Lanix::IpGenAddr& address);
  bool refuses(const RemoteBindingKey& key);
  void tellProblems();

  Ptr<RemoteBindingConfig> table_;
  Ptr<Switch::Readiness> readiness_;
  std::function<void()> ready_;
  Switch::ProblemReporter& problems_;
  FeedDevices devices_;
  Netlink::Mirror<IfIndex, bool> links_;
  Netlink::Mirror<Key, Record> neighbours_;
  Netlink::Tally onDevice_;

  bool configured_ = false;  // the configuration has not changed since it was looked at
  bool reading_ = false;     // it wants the kernel's neighbours
  bool complete_ = false;    // everything was read once, or nothing is to be
  bool swept_ = false;       // and what an earlier run left was looked through
  std::vector<std::uint8_t> protocols_;
  Bindings bindings_;
  std::vector<Bindings> former_;  // what the configuration said before
  std::set<RemoteBindingKey> refused_;
  std::array<std::size_t, 2> held_{};  // of IPv4, of IPv6
  std::uint64_t readings_ = 0;
  std::optional<double> lastReading_;  // that was whole

  Stage stage_ = Stage::over;
  std::optional<Key> bookmark_;
  std::optional<RemoteBindingKey> bindingBookmark_;

  Mox::Notifiee<const Ip::Status> ipStatus_;
  std::map<Lanix::IntfId, std::unique_ptr<Mox::Notifiee<const Ip::IpIntfStatus>>> interfaces_;
  std::unique_ptr<Ip::OwnAddresses> own_;  // null: to be made anew
  Orb::Task openTask_;
  Orb::Task problemTask_;
  Orb::Task retryTask_;                    // an entry had no room
  std::set<std::uint16_t> withoutDevice_;  // reported
  Switch::ConfigWatch config_;
  Netlink::RouteFeed feed_;
};

}  // namespace KernelEvpn
