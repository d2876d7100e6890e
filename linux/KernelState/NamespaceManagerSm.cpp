#include "KernelState/NamespaceManagerSm.h"

#include <algorithm>
#include <cerrno>

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

NamespaceManagerSm::NamespaceManagerSm(Ptr<const VrfPlaces> vrfs, Ptr<const VlanOwners> owners, FdbSm* fdb,
                                       Ptr<NamespaceStates> states, Ptr<NeighbourTable> neighbourTable,
                                       Ptr<Statedb::EntityManager> tree, Switch::ProblemReporter* problems,
                                       const Ptr<Orb::TaskScheduler>& scheduler)
    : vrfs_(std::move(vrfs)),
      owners_(std::move(owners)),
      fdb_(fdb),
      states_(std::move(states)),
      neighbourTable_(std::move(neighbourTable)),
      tree_(std::move(tree)),
      problems_(problems),
      scheduler_(scheduler),
      events_(Netlink::KernelAccess::current().watchNamespaces()),
      retryDelay_(kFirstRetry),
      checkTask_(scheduler, "KernelState namespaces", kCheckLevel, [this] { check(); }) {
  vrfs_.on(VrfPlaces::vrfChanged, [this](const Lanix::NamespaceName&) { handleNames(); });
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
  again_ = true;
  checkTask_.schedule();
}

void NamespaceManagerSm::check() {
  if (!from_) {
    again_ = false;
    retry_ = !problems_->check("names of network namespaces", events_->drain(),
                               "correct that; until then they are looked at every few seconds");
    for (const auto& [name, vrf] : vrfs_->vrfCollection()) slots_.try_emplace(name);
  }
  for (auto slot = from_ ? slots_.lower_bound(*from_) : slots_.begin(); slot != slots_.end();) {
    if (!slot->second.sm) make(slot->first, slot->second);
    retry_ = update(slot->first, slot->second) || retry_;
    if (!vrfs_->vrfHas(slot->first) && slot->second.sm->feedState() == RouteFeed::State::closed) {
      states_->stateDel(slot->first);
      slot = slots_.erase(slot);
    } else {
      ++slot;
    }
    if (slot != slots_.end() && scheduler_->root().mustYield()) {
      from_ = slot->first;
      return checkTask_.schedule();
    }
  }
  from_.reset();
  passed_ = true;
  updateStarted();
  if (again_) return checkTask_.schedule();
  if (!retry_) return;
  checkTask_.schedule(retryDelay_);
  retryDelay_ = std::min(retryDelay_ * 2, kLastRetry);
}

void NamespaceManagerSm::make(const Lanix::NamespaceName& name, Slot& slot) {
  const std::string path = "kni/ns/" + name + "/status";
  const auto made = tree_->entityIs(path, "KernelNetInfo::Status");
  if (!made) KERNEL_STATE_TRACE(0, path << " is not published: " << made.error());
  const auto kernelNetInfo = made ? Mox::dynamicPtrCast<KernelNetInfo::Status>(*made) : nullptr;
  const bool isDefault = name == Lanix::kDefaultNamespace;
  const Ptr<NamespaceState> state = states_->stateIs(name);
  slot.watch = std::make_unique<Watch>(state);
  slot.watch->state.on(NamespaceState::attemptedChanged, [this] { updateStarted(); });
  slot.sm = Mox::make<NamespaceSm>(state, kernelNetInfo, owners_, neighbourTable_, isDefault ? fdb_ : nullptr,
                                   *problems_, scheduler_, [this] { handleNames(); });
}

// True: to be tried again soon.
bool NamespaceManagerSm::update(const Lanix::NamespaceName& name, Slot& slot) {
  Netlink::NamespaceLook look;
  if (vrfs_->vrfHas(name)) {
    const auto looked = Netlink::KernelAccess::current().look(name);
    if (!looked) return refuse(slot, looked.failure());
    look = *looked;
  }
  // Where it is closed, opening it has the last word.
  if (!look.id || slot.sm->feedState() == RouteFeed::State::open) accept(slot);
  switch (slot.sm->feedState()) {
    case RouteFeed::State::closing:
      return false;  // it says when it is done
    case RouteFeed::State::open:
      if (look.id != slot.sm->id()) {
        KERNEL_STATE_TRACE(1, "network namespace \"" << name << "\" has gone");
        slot.sm->closeIs();
        return false;
      }
      return slot.sm->broken() && !open(slot);
    case RouteFeed::State::closed:
      return look.named && !(look.id && open(slot));
  }
  return false;
}

bool NamespaceManagerSm::open(Slot& slot) {
  const auto opened = [&]() -> Mox::Result<> {
    try {
      return slot.sm->open();
    } catch (const Mox::Error& error) {
      return Mox::Failure{error.what()};
    }
  }();
  if (!opened) {
    // It may have gone in this moment: the next look says so.
    if (opened.number() != ENOENT) refuse(slot, opened.failure());
    return false;
  }
  accept(slot);
  return slot.sm->feedState() == RouteFeed::State::open && !slot.sm->broken();
}

void NamespaceManagerSm::accept(const Slot& slot) {
  if (!slot.sm->state()->refused()) return;
  slot.sm->state()->refusedIs(false);
  problems_->problemDel(slot.sm->subject());
}

bool NamespaceManagerSm::refuse(const Slot& slot, const Mox::Failure& failure) {
  slot.sm->state()->refusedIs(true);
  const bool exhausted = failure.number == EMFILE || failure.number == ENFILE;
  problems_->problemIs(slot.sm->subject(),
                       failure.text + "; what is known of it stands, and it is tried again",
                       exhausted ? "raise the limit on open files (LimitNOFILE of the service)" : "");
  return true;
}

void NamespaceManagerSm::updateStarted() {
  if (states_->started() || !passed_) return;
  const bool all = std::all_of(slots_.begin(), slots_.end(), [](const auto& slot) {
    return !slot.second.sm || slot.second.sm->feedState() != RouteFeed::State::open ||
           slot.second.sm->state()->attempted();
  });
  if (all) states_->startedIs(true);
}

}  // namespace KernelState
