#pragma once

#include <functional>
#include <memory>
#include <optional>

#include "KernelState/FdbSm.h"
#include "KernelState/LinkSm.h"
#include "KernelState/NeighbourSm.h"
#include "Netlink/RouteFeed.h"
#include "Switch/ProblemReporter.h"

namespace KernelState {

using Netlink::NamespaceId;
using Netlink::RouteFeed;

// One network namespace, for as long as a VRF is configured to be it: while the namespace is there feeds
// read it, and the tables' reactors publish what they say; when it goes they are emptied, in slices, before
// it can be opened again. The bridges' MAC tables have a feed of their own, so that nothing else waits for
// them, nor is lost with what a storm of senders does to them.
class NamespaceSm final : public Mox::Entity, private Netlink::RouteFeedClient {
 public:
  // `fdb` is null for a namespace whose bridges are of no concern. `changed` is called, from the feed's
  // tasks, when the namespace is closed or its sockets are broken: it is to schedule work only.
  NamespaceSm(Ptr<NamespaceState> state, Ptr<KernelNetInfo::Status> kernelNetInfo,
              Ptr<const VlanOwners> owners, Ptr<NeighbourTable> neighbourTable, FdbSm* fdb,
              Switch::ProblemReporter& problems, const Ptr<Orb::TaskScheduler>& scheduler,
              std::function<void()> changed);
  ~NamespaceSm() override;

  const Ptr<NamespaceState>& state() const { return state_; }
  // What its problems are reported about, in an operator's words.
  Mox::String subject() const { return "network namespace " + state_->name(); }
  RouteFeed::State feedState() const;
  NamespaceId id() const { return feed_.id(); }
  bool broken() const { return broken_; }

  // As RouteFeed has it. A failure leaves it as it is; that it is another namespace closes it.
  Mox::Result<> open();
  void closeIs();

 private:
  void handleMessage(const Netlink::Received& message, Word word) override;
  void handleReconcile(Table table) override;
  std::optional<Netlink::Message> handleRead(Table table, std::size_t part) override;
  bool handleEnough(Table table) override;
  bool handleSweep(Table table) override;
  void handleTableRead(Table table) override;
  void handleRound(bool complete) override;
  void handleFailure(const std::string& problem) override;
  void handleBroken() override;
  void handleClosed() override;

  Ptr<NamespaceState> state_;
  LinkSm linkSm_;
  AddressSm addressSm_;
  NeighbourSm neighbourSm_;
  FdbSm* fdb_;
  Switch::ProblemReporter& problems_;
  std::function<void()> changed_;
  bool broken_ = false;
  RouteFeed feed_;
  std::optional<RouteFeed> macFeed_;
};

}  // namespace KernelState
