#include "KernelState/NamespaceSm.h"

#include <linux/rtnetlink.h>

namespace KernelState {
namespace {

std::vector<Table> tablesOf(const FdbSm* fdb) {
  std::vector<Table> tables{Table::links, Table::addresses, Table::neighbours};
  if (fdb) tables.push_back(Table::macs);
  return tables;
}

}  // namespace

NamespaceSm::NamespaceSm(Ptr<NamespaceState> state, Ptr<KernelNetInfo::Status> kernelNetInfo,
                         Ptr<const VlanOwners> owners, Ptr<NeighbourTable> neighbourTable, FdbSm* fdb,
                         Switch::ProblemReporter& problems, const Ptr<Orb::TaskScheduler>& scheduler,
                         std::function<void()> changed)
    : state_(std::move(state)),
      linkSm_(state_, std::move(kernelNetInfo)),
      addressSm_(state_),
      neighbourSm_(state_, std::move(owners), std::move(neighbourTable), scheduler),
      fdb_(fdb),
      problems_(problems),
      changed_(std::move(changed)),
      tables_(tablesOf(fdb_)),
      feed_(scheduler, *this, "KernelState", state_->name(), tables_) {}

void NamespaceSm::openIs(std::unique_ptr<RouteSource> source) {
  broken_ = false;
  feed_.openIs(std::move(source));
}

void NamespaceSm::closeIs() {
  broken_ = false;
  state_->enteredIs(false);
  state_->syncedIs(false);
  problems_.problemDel(subject());
  feed_.closeIs();
}

void NamespaceSm::handleMessage(const Netlink::Received& message, Word word) {
  switch (message.type()) {
    case RTM_NEWLINK:
    case RTM_DELLINK:
      linkSm_.handleMessage(message, word);
      break;
    case RTM_NEWADDR:
    case RTM_DELADDR:
      addressSm_.handleMessage(message, word);
      break;
    case RTM_NEWNEIGH:
    case RTM_DELNEIGH:
      if (const auto read = Netlink::readNeighbour(message); !read) {
        break;
      } else if (!read->isMacEntry()) {
        neighbourSm_.handleNeighbour(*read, message.type() == RTM_DELNEIGH, word);
      } else if (fdb_) {
        fdb_->handleEntry(*read, message.type() == RTM_DELNEIGH, word);
      }
      break;
    default:
      break;
  }
}

void NamespaceSm::handleReconcile(Table table) {
  switch (table) {
    case Table::links:
      return linkSm_.reconcileBegin();
    case Table::addresses:
      return addressSm_.reconcileBegin();
    case Table::neighbours:
      return neighbourSm_.reconcileBegin();
    case Table::macs:
      return fdb_->reconcileBegin();
  }
}

bool NamespaceSm::handleSweep(Table table) {
  switch (table) {
    case Table::links:
      return linkSm_.sweep();
    case Table::addresses:
      return addressSm_.sweep();
    case Table::neighbours:
      return neighbourSm_.sweep();
    case Table::macs:
      return fdb_->sweep();
  }
  return false;
}

void NamespaceSm::handleTableRead(Table table) {
  if (table == Table::addresses) addressSm_.handleTableRead();
  if (table == Table::links && feed_.state() == RouteFeed::State::open) state_->enteredIs(true);
}

void NamespaceSm::handleRound(bool complete) {
  state_->attemptedIs(true);
  if (!complete) return;
  state_->syncedIs(true);
  problems_.problemDel(subject());
}

void NamespaceSm::handleFailure(const std::string& problem) {
  problems_.problemIs(subject(), problem + "; tried again");
}

void NamespaceSm::handleBroken() {
  broken_ = true;
  changed_();
}

void NamespaceSm::handleClosed() { changed_(); }

}  // namespace KernelState
