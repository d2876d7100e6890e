#pragma once

#include <functional>
#include <memory>

#include "KernelState/FdbSm.h"
#include "KernelState/LinkSm.h"
#include "KernelState/NeighbourSm.h"
#include "Netlink/RouteFeed.h"
#include "Switch/ProblemReporter.h"

namespace KernelState {

using Netlink::NamespaceId;
using Netlink::RouteFeed;
using Netlink::RouteSource;

// One network namespace, for as long as a VRF is configured to be it: while the namespace is there a feed
// reads it, and the tables' reactors publish what it says; when it goes they are emptied, in slices, before
// it can be opened again.
class NamespaceSm final : public Mox::Entity, private Netlink::RouteFeedClient {
 public:
  // `fdb` is null for a namespace whose bridges are of no concern. `changed` is called, from the feed's
  // tasks, when the namespace is closed or its sockets are broken: it is to schedule work only.
  NamespaceSm(Ptr<NamespaceState> state, Ptr<KernelNetInfo::Status> kernelNetInfo,
              Ptr<const VlanOwners> owners, Ptr<NeighbourTable> neighbourTable, FdbSm* fdb,
              Switch::ProblemReporter& problems, const Ptr<Orb::TaskScheduler>& scheduler,
              std::function<void()> changed);

  const Ptr<NamespaceState>& state() const { return state_; }
  // What its problems are reported about, in an operator's words.
  Mox::String subject() const { return "network namespace " + state_->name(); }
  // Which of them the feed reads.
  const std::vector<Table>& tables() const { return tables_; }
  RouteFeed::State feedState() const { return feed_.state(); }
  NamespaceId id() const { return feed_.id(); }
  bool broken() const { return broken_; }

  void openIs(std::unique_ptr<RouteSource> source);
  void closeIs();

 private:
  void handleMessage(const Netlink::Received& message, Word word) override;
  void handleReconcile(Table table) override;
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
  const std::vector<Table> tables_;
  RouteFeed feed_;
};

}  // namespace KernelState
