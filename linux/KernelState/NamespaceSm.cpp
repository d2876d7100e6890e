#include "KernelState/NamespaceSm.h"

#include <linux/rtnetlink.h>

namespace KernelState {
namespace {

const std::vector<Table> kTables{Table::links, Table::addresses, Table::neighbours};
const std::vector<Table> kMacTables{Table::macs};

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
      feed_(scheduler, *this, "KernelState", state_->name(), kTables) {
  if (!fdb_) return;
  RouteFeedClient& self = *this;
  macFeed_.emplace(scheduler, self, "KernelState", "bridges in " + state_->name(), kMacTables, true);
  fdb_->readerIs([this] { macFeed_->readAgain(); });
}

NamespaceSm::~NamespaceSm() {
  if (fdb_) fdb_->readerIs({});
}

RouteFeed::State NamespaceSm::feedState() const {
  const bool emptying = macFeed_ && macFeed_->state() == RouteFeed::State::closing;
  return emptying ? RouteFeed::State::closing : feed_.state();
}

Mox::Result<> NamespaceSm::open() {
  auto& kernel = Netlink::KernelAccess::current();
  auto source = kernel.open(state_->name(), kTables);
  if (!source) return source.failure();
  if (feed_.state() == RouteFeed::State::open && (*source)->id() != feed_.id()) {
    closeIs();  // another one took the name in this moment
    return {};
  }
  if (macFeed_) {
    auto macSource = kernel.open(state_->name(), kMacTables);
    if (!macSource) return macSource.failure();
    (*macSource)->filterIs(fdb_->filter());
    macFeed_->openIs(std::move(*macSource));
  }
  broken_ = false;
  feed_.openIs(std::move(*source));
  return {};
}

void NamespaceSm::closeIs() {
  broken_ = false;
  state_->enteredIs(false);
  state_->syncedIs(false);
  problems_.problemDel(subject());
  feed_.closeIs();
  if (macFeed_) macFeed_->closeIs();
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
      return fdb_->reconcileBegin(macFeed_->everything());
  }
}

std::optional<Netlink::Message> NamespaceSm::handleRead(Table table, std::size_t part) {
  return table == Table::macs ? fdb_->reading().next() : RouteFeedClient::handleRead(table, part);
}

bool NamespaceSm::handleEnough(Table table) { return table == Table::macs && fdb_->reading().enough(); }

bool NamespaceSm::handleSweep(Table table) {
  switch (table) {
    case Table::links:
      return linkSm_.sweep();
    case Table::addresses:
      return addressSm_.sweep();
    case Table::neighbours:
      return neighbourSm_.sweep();
    case Table::macs:
      return fdb_->sweep([this](Netlink::Message request, const Netlink::Handler& handler) {
        return macFeed_->get(std::move(request), handler);
      });
  }
  return false;
}

void NamespaceSm::handleTableRead(Table table) {
  if (table == Table::addresses) addressSm_.handleTableRead();
  if (table == Table::links && feed_.state() == RouteFeed::State::open) state_->enteredIs(true);
}

void NamespaceSm::handleRound(bool /*complete*/) {
  const std::optional<bool> tables = feed_.read(), macs = macFeed_ ? macFeed_->read() : true;
  if (!tables || !macs) return;
  state_->attemptedIs(true);
  if (!*tables || !*macs) return;
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
