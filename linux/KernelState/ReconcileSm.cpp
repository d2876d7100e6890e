#include "KernelState/ReconcileSm.h"

#include <algorithm>

namespace KernelState {
namespace {

constexpr std::size_t kEntriesPerSweep = 256;
constexpr char kPlugin[] = "KernelState";
constexpr double kPause = 0.01;  // seconds, while the others still work

}  // namespace

ReconcileSm::ReconcileSm(Ptr<const NamespaceStates> states, Ptr<Arp::Table::Status> arpStatus,
                         Ptr<Memtab::Bridging::Status> bridgingStatus, Ptr<Vrf::VrfIdMap::Status> vrfIdMap,
                         Ptr<Switch::Readiness> readiness, const Ptr<Orb::TaskScheduler>& scheduler)
    : WalkSmBase(scheduler, "KernelState reconciliation"),
      states_(states,
              [this](StateWatch::Notifiee& state) {
                state.on(NamespaceState::syncedChanged, [this] { scheduleWalk(); });
                state.on(NamespaceState::enteredChanged, [this] { scheduleWalk(); });
                state.on(NamespaceState::refusedChanged, [this] { scheduleWalk(); });
              }),
      started_(states),
      readiness_(std::move(readiness)) {
  if (readiness_) readiness_->awaitedIs(kPlugin, "the first reading of the kernel's tables");
  started_.on(NamespaceStates::startedChanged, [this] { scheduleWalk(); });
  if (arpStatus) add(arpStatus->arpEntryCollection());
  if (bridgingStatus) add(bridgingStatus->fdbCollection());
  if (vrfIdMap) add(vrfIdMap->vrfIdToNameCollection());
}

template <class Collection>
void ReconcileSm::add(Collection& collection) {
  if (!collection.tableWriter()) return;
  collection.tableWriter()->core().reconcileBegin();
  tables_.push_back([&collection, table = collection.tableWriter()] {
    collection.touched();
    return table->core().sweep(kEntriesPerSweep);
  });
}

void ReconcileSm::writersAre(Ptr<const NeighbourTable> neighbourTable, const VlanInterfaceSm* vlanInterfaces,
                             const FdbSm* fdb) {
  neighbourTable_ = std::move(neighbourTable);
  vlanInterfaces_ = vlanInterfaces;
  fdb_ = fdb;
}

bool ReconcileSm::walkStartedNotification() {
  const bool ready = !readiness_ || readiness_->ready(kPlugin);
  if ((done() && ready) || !fdb_ || !states_->started()) return false;
  if (vlanInterfaces_->busy() || neighbourTable_->busy() || fdb_->walkScheduled()) {
    scheduleWalk(kPause);
    return false;
  }
  // Also when the kernel refused some of it: nothing is gained by waiting for that.
  if (!ready) readiness_->awaitedIs(kPlugin, "");
  return std::ranges::none_of(states_->stateCollection(), [](const auto& entry) {
    const NamespaceState& state = *entry.second;
    return state.refused() || (state.entered() && !state.synced());
  });
}

Orb::WalkRet ReconcileSm::walk() {
  Orb::WalkRet ret;
  while (!done()) {
    ++ret.processed;
    if (!tables_.back()()) tables_.pop_back();
    if (mustYield()) break;
  }
  ret.moreWork = !done();
  return ret;
}

}  // namespace KernelState
