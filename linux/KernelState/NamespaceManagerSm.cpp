#include "KernelState/NamespaceManagerSm.h"

#include <algorithm>

#include "KernelState/Trace.h"

namespace KernelState {
namespace {

constexpr char kSource[] = "KernelState/NamespaceManagerSm";
constexpr unsigned kCheckLevel = 3;
// Between a name and the namespace behind it there is a moment, and then it is there: asked for often at
// first.
constexpr double kFirstRetry = 0.01;  // seconds
constexpr double kLastRetry = 5;

}  // namespace

NamespaceManagerSm::NamespaceManagerSm(Ptr<const NamespaceVrfs> vrfs, Ptr<const VlanOwners> owners,
                                       FdbSm* fdb, Ptr<NamespaceStates> states,
                                       Ptr<NeighbourTable> neighbourTable, Ptr<Statedb::EntityManager> tree,
                                       const Ptr<Orb::TaskScheduler>& scheduler)
    : vrfs_(std::move(vrfs)),
      owners_(std::move(owners)),
      fdb_(fdb),
      states_(std::move(states)),
      neighbourTable_(std::move(neighbourTable)),
      tree_(std::move(tree)),
      scheduler_(scheduler),
      events_(KernelAccess::current().watchNamespaces()),
      retryDelay_(kFirstRetry),
      checkTask_(scheduler, "KernelState namespaces", kCheckLevel, [this] { check(); }) {
  vrfs_.on(NamespaceVrfs::vrfChanged, [this](const Lanix::NamespaceName&) { handleNames(); });
  for (const int descriptor : events_->descriptors()) {
    descriptors_.push_back(Mox::make<Orb::FileDescriptor>(scheduler->loop(), "KernelState namespaces"));
    readable_.push_back(std::make_unique<Mox::Notifiee<Orb::FileDescriptor>>(descriptors_.back()));
    readable_.back()->on(Orb::FileDescriptor::readableCountChanged, [this] { handleNames(); });
    descriptors_.back()->descriptorIs(descriptor);
    descriptors_.back()->notifyOnReadableIs(true);
  }
  checkTask_.schedule();
}

NamespaceManagerSm::~NamespaceManagerSm() {
  for (const Ptr<Orb::FileDescriptor>& descriptor : descriptors_) descriptor->descriptorIs(-1);
}

void NamespaceManagerSm::handleNames() {
  retryDelay_ = kFirstRetry;
  checkTask_.schedule();
}

void NamespaceManagerSm::check() {
  events_->drain();
  for (const auto& [name, vrf] : vrfs_->vrfCollection()) namespaceIs(name);
  bool retry = false;
  for (auto slot = slots_.begin(); slot != slots_.end();) {
    retry = update(slot->first, slot->second) || retry;
    if (!vrfs_->vrfHas(slot->first) && slot->second.sm->feedState() == RouteFeed::State::closed) {
      states_->stateDel(slot->first);
      slot = slots_.erase(slot);
    } else {
      ++slot;
    }
  }
  updateStarted();
  if (!retry) return;
  checkTask_.schedule(retryDelay_);
  retryDelay_ = std::min(retryDelay_ * 2, kLastRetry);
}

void NamespaceManagerSm::namespaceIs(const Lanix::NamespaceName& name) {
  Slot& slot = slots_[name];
  if (slot.sm) return;
  const std::string path = "kni/ns/" + name + "/status";
  std::string problem;
  const auto kernelNetInfo =
      Mox::dynamicPtrCast<KernelNetInfo::Status>(tree_->entityIs(path, "KernelNetInfo::Status", &problem));
  if (!kernelNetInfo) KERNEL_STATE_TRACE(0, path << " is not published: " << problem);
  const bool isDefault = name == Lanix::kDefaultNamespace;
  const Ptr<NamespaceState> state = states_->stateIs(name);
  slot.watch = std::make_unique<Watch>(state);
  slot.watch->state.on(NamespaceState::attemptedChanged, [this] { updateStarted(); });
  slot.sm = Mox::make<NamespaceSm>(state, kernelNetInfo, vrfs_.notifier(), owners_, neighbourTable_,
                                   isDefault ? fdb_ : nullptr, scheduler_, [this] { checkTask_.schedule(); });
}

// True: to be tried again soon.
bool NamespaceManagerSm::update(const Lanix::NamespaceName& name, Slot& slot) {
  NamespaceLook look;
  if (vrfs_->vrfHas(name)) look = KernelAccess::current().look(name);
  switch (slot.sm->feedState()) {
    case RouteFeed::State::closing:
      return false;  // it says when it is done
    case RouteFeed::State::open:
      if (look.id != slot.sm->id()) {
        KERNEL_STATE_TRACE(1, "network namespace \"" << name << "\" has gone");
        slot.sm->closeIs();
        return false;
      }
      return slot.sm->broken() && !open(name, slot);
    case RouteFeed::State::closed:
      return look.named && !(look.id && open(name, slot));
  }
  return false;
}

bool NamespaceManagerSm::open(const Lanix::NamespaceName& name, Slot& slot) {
  std::string problem;
  auto source = KernelAccess::current().open(name, problem);
  if (source && slot.sm->feedState() == RouteFeed::State::open && source->id() != slot.sm->id()) {
    slot.sm->closeIs();  // another one took the name in this moment
  } else if (source) {
    slot.reported = false;
    slot.sm->openIs(std::move(source));
  } else if (!std::exchange(slot.reported, true)) {
    KERNEL_STATE_TRACE(0, problem);
    TRACELET_RECORD("{}", problem);
  }
  return slot.sm->feedState() == RouteFeed::State::open && !slot.sm->broken();
}

void NamespaceManagerSm::updateStarted() {
  if (states_->started() || slots_.empty()) return;
  const bool all = std::all_of(slots_.begin(), slots_.end(), [](const auto& slot) {
    return slot.second.sm->feedState() != RouteFeed::State::open || slot.second.sm->state()->attempted();
  });
  if (all) states_->startedIs(true);
}

}  // namespace KernelState
