#include "ArpSuppression/VrfInfoSm.h"

#include <algorithm>
#include <cctype>
#include <utility>
#include <vector>

#include "ArpSuppression/Problems.h"
#include "ArpSuppression/Trace.h"
#include "Lanix/NetlinkSocket.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/VlanL3InfoSm";  // as operators know it
constexpr unsigned kRetryLevel = 3;
constexpr double kFirstRetry = 1;  // seconds
constexpr double kLastRetry = 60;

Mox::String kniPath(const Lanix::NamespaceName& netNs) { return "kni/ns/" + netNs + "/status"; }

}  // namespace

VrfInfoSm::VrfInfoSm(Ptr<Orb::TaskScheduler> scheduler, Ptr<VrfInfo> vrfInfo,
                     Ptr<const Ip::VrfStatusLocal> vrfStatusLocal, Ptr<VlanL3InfoStatus> vlanL3InfoStatus,
                     Ptr<Interface::NetNsIntfStatusManagerRoot> netNsIntfStatusManagerRoot,
                     Ptr<const Interface::AllIntfStatusDir> allIntfStatusDir,
                     Ptr<const Interface::AllIntfStatusLocalDir> allIntfStatusLocalDir,
                     Ptr<Interface::DeviceIntfStatusDir> deviceIntfStatusDir,
                     Ptr<Statedb::EntityManager> entityMgr)
    : WalkSmBase(std::move(scheduler), "Vrf-" + vrfInfo->vrfName()),
      vrfInfo_(std::move(vrfInfo)),
      vrfStatusLocal_(std::move(vrfStatusLocal)),
      vlanL3InfoStatus_(std::move(vlanL3InfoStatus)),
      netNsIntfStatusManagerRoot_(std::move(netNsIntfStatusManagerRoot)),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      allIntfStatusLocalDir_(std::move(allIntfStatusLocalDir)),
      deviceIntfStatusDir_(std::move(deviceIntfStatusDir)),
      entityMgr_(std::move(entityMgr)),
      retryDelay_(kFirstRetry),
      retryTask_(this->scheduler(), "VrfInfoSm netlink socket", kRetryLevel, [this] { openSocket(); }) {
  vrfInfo_
      .on(VrfInfo::interfaceWatchChanged,
          [this](const Mox::String& intfName) { handleInterfaceWatch(intfName); })
      .on(VrfInfo::vrfIdChanged, [this] { updateVrfInfo(false); });
  vrfStatusLocal_.on(Ip::VrfStatusLocal::stateChanged, [this] { handleVrfStatusLocal(); })
      .on(Ip::VrfStatusLocal::networkNamespaceChanged, [this] { handleVrfStatusLocal(); });
  kniInterfaceInfo_.on(KernelNetInfo::Status::interfaceChanged,
                       [this](const Mox::String& deviceName) { handleInterfaceByDeviceName(deviceName); });
  handleInitialized();
}

VrfInfoSm::~VrfInfoSm() { handleDestroy(); }

bool VrfInfoSm::CaseInsensitiveLess::operator()(const Mox::String& a, const Mox::String& b) const {
  return std::lexicographical_compare(
      a.begin(), a.end(), b.begin(), b.end(),
      [](unsigned char one, unsigned char other) { return std::tolower(one) < std::tolower(other); });
}

void VrfInfoSm::handleInitialized() {
  TRACE8("");
  for (const auto& [intfName, watch] : vrfInfo_->interfaceWatchCollection()) watched_.insert(intfName);
  updateVrfInfo(false);
}

void VrfInfoSm::handleDestroy() {
  TRACE8("");
  updateVrfInfo(true);
  // The walk that would set the indices back will not come any more, whether it was asked for just now or
  // when the VRF became inactive before.
  const Ptr<VrfInfo> vrfInfo = vrfInfo_.notifier();
  vrfInfo_.notifierIs(nullptr);
  vrfStatusLocal_.notifierIs(nullptr);
  const auto& watches = vrfInfo->interfaceWatchCollection();
  for (auto next = watches.begin(); next != watches.end();) {
    const Mox::String intfName = next->first;
    const Ptr<VrfInterfaceWatch> watch(next->second);
    scheduler()->loop().dispatch("VrfInfoSm", [&] {
      if (watch->kniIntfIfIndex() == 0) return;
      watch->kniIntfIfIndexIs(0);
      if (const auto info = Mox::dynamicPtrCast<VlanL3Info>(watch)) vlanL3InfoStatus_->vlanUpdated(*info);
    });
    next = watches.upperBound(intfName);  // VLANs that hear of it may go, and their watches with them
  }
}

void VrfInfoSm::handleVrfStatusLocal() { updateVrfInfo(false); }

void VrfInfoSm::handleInterfaceWatch(const Mox::String& intfName) {
  const auto [first, last] = watched_.equal_range(intfName);
  const auto known = std::find(first, last, intfName);
  const Ptr<VrfInterfaceWatch> watch(vrfInfo_->interfaceWatch(intfName));
  if (!watch) {
    if (known != last) watched_.erase(known);
    return;
  }
  if (known == last) watched_.insert(intfName);
  TRACE8("watch=" << watch);
  updateInterfaceWatch(watch);
}

void VrfInfoSm::handleInterfaceByDeviceName(const Mox::String& deviceName) {
  const auto [first, last] = watched_.equal_range(deviceName);
  const std::vector<Mox::String> names(first, last);  // those who hear of it may add and remove watches
  for (const Mox::String& intfName : names) {
    const Ptr<VrfInterfaceWatch> watch(vrfInfo_->interfaceWatch(intfName));
    if (!watch || watch->kniIntfName() != deviceName) continue;
    TRACE8("watch=" << watch);
    LifeGuard guard(*this);
    updateInterfaceWatch(watch);
    if (!guard.alive()) return;
  }
}

void VrfInfoSm::updateVrfInfo(bool forceCleanup) {
  // Active without a namespace is a status that is still being filled in.
  const bool nowActive = !forceCleanup && !clearing_ && vrfStatusLocal_->state() == Ip::VrfState::active &&
                         !vrfStatusLocal_->networkNamespace().empty() &&
                         vrfInfo_->vrfId() != Vrf::VrfIdMap::kNoVrfId;
  const bool wasActive = !vrfInfo_->netNs().empty();
  if (nowActive == wasActive) {
    MOX_ASSERT(kSource, "!wasActive || vrfInfo()->netNs() == vrfStatusLocal()->networkNamespace()",
               !wasActive || vrfInfo_->netNs() == vrfStatusLocal_->networkNamespace());
    return;
  }
  TRACE8("this=" << *this << " wasActive=" << wasActive << " nowActive=" << nowActive);
  TRACELET_RECORD("updateVrfInfo vrfName={} wasActive={} nowActive={}", vrfInfo_->vrfName(), wasActive,
                  nowActive);
  if (nowActive) {
    becomeActive();
  } else {
    becomeInactive();
  }
}

void VrfInfoSm::becomeInactive() {
  clearing_ = true;
  retryTask_.cancel();
  problems().problemDel("VRF " + vrfInfo_->vrfName());
  const Lanix::NamespaceName netNs = vrfInfo_->netNs();
  const auto& vrfs = vlanL3InfoStatus_->vrfInfoCollection();
  const bool shared = std::any_of(vrfs.begin(), vrfs.end(), [&](const auto& vrf) {
    return vrf.second != vrfInfo_.notifier() && vrf.second->netNs() == netNs;
  });
  if (!shared) netNsIntfStatusManagerRoot_->netNsIntfStatusManagerDel(netNs);
  Lanix::closeNetlinkSocket(vrfInfo_->netlinkSocket());
  vrfInfo_->netlinkSocketIs(0);
  kniInterfaceInfo_.notifierIs(nullptr);
  if (entityMgr_) entityMgr_->unmount(kniPath(netNs));
  vrfInfo_->netNsIs("");
  scheduleInterfaceWatchUpdate();
}

void VrfInfoSm::becomeActive() {
  const Lanix::NamespaceName netNs = vrfStatusLocal_->networkNamespace();
  vrfInfo_->netNsIs(netNs);
  if (!entityMgr_) {
    scheduleInterfaceWatchUpdate();
    return;
  }
  retryDelay_ = kFirstRetry;
  openSocket();
  const auto mounted = entityMgr_->mount(kniPath(netNs), "KernelNetInfo::Status", "r");
  const auto kniRoot = mounted ? Mox::dynamicPtrCast<const KernelNetInfo::Status>(*mounted) : nullptr;
  kniInterfaceInfo_.notifierIs(kniRoot);
  const auto manager = netNsIntfStatusManagerRoot_->netNsIntfStatusManagerIs(
      netNs, kniRoot, allIntfStatusDir_, allIntfStatusLocalDir_, deviceIntfStatusDir_);
  manager->kernelOnlyInterfaceIs("cpu", "Cpu");
  scheduleInterfaceWatchUpdate();
}

void VrfInfoSm::openSocket() {
  const auto socket = Lanix::openNetlinkSocket(vrfInfo_->netNs());
  problems().check("VRF " + vrfInfo_->vrfName(), socket ? Mox::Result<>() : socket.failure(),
                   "its VLANs have no layer 3 for the agent; correct that, it is tried again");
  if (socket) {
    vrfInfo_->netlinkSocketIs(*socket);
    scheduleInterfaceWatchUpdate();
    return;
  }
  TRACE8("no netlink socket: " << socket.error());
  TRACELET_RECORD("no netlink socket vrfName={} netNs={} errno={}", vrfInfo_->vrfName(), vrfInfo_->netNs(),
                  socket.number());
  retryTask_.schedule(retryDelay_);
  retryDelay_ = std::min(retryDelay_ * 2, kLastRetry);
}

void VrfInfoSm::scheduleInterfaceWatchUpdate() {
  TRACE8("");
  scheduleWalk();
}

bool VrfInfoSm::walkStartedNotification() {
  interfaceWatchBookmark_.clear();
  return true;
}

void VrfInfoSm::walkFinishedNotification() {
  if (std::exchange(clearing_, false)) updateVrfInfo(false);
}

Ptr<VrfInterfaceWatch> VrfInfoSm::watchFrom(const Mox::String& intfName) const {
  const auto& watches = vrfInfo_->interfaceWatchCollection();
  const auto at = watches.lowerBound(intfName);
  return at == watches.end() ? Ptr<VrfInterfaceWatch>() : Ptr<VrfInterfaceWatch>(at->second);
}

Orb::WalkRet VrfInfoSm::walk() {
  LifeGuard guard(*this);
  Orb::WalkRet ret;
  Ptr<VrfInterfaceWatch> watch = watchFrom(interfaceWatchBookmark_);
  interfaceWatchBookmark_.clear();
  while (watch) {
    const Mox::String intfName = watch->intfName();
    scheduler()->loop().dispatch("VrfInfoSm", [&] { updateInterfaceWatch(watch); });
    ++ret.processed;
    if (!guard.alive()) return ret;  // the last VLAN of the VRF went with the announcement
    const auto& watches = vrfInfo_->interfaceWatchCollection();
    const auto next = watches.upperBound(intfName);
    watch = next == watches.end() ? nullptr : next->second;
    if (watch && mustYield()) {
      interfaceWatchBookmark_ = watch->intfName();
      ret.moreWork = true;
      break;
    }
  }
  return ret;
}

void VrfInfoSm::updateInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch) {
  std::uint32_t ifIndex = 0;
  if (vrfInfo_->usable() && kniInterfaceInfo_)
    ifIndex = kniInterfaceInfo_->interface(watch->kniIntfName()).ifIndex;
  LifeGuard guard(*this);
  const Ptr<VlanL3InfoStatus> status = vlanL3InfoStatus_;
  watch->kniIntfIfIndexIs(ifIndex);
  if (!guard.alive()) return;
  TRACE8("watch=" << watch << " ifIndex=" << ifIndex);
  if (const auto info = Mox::dynamicPtrCast<VlanL3Info>(watch)) status->vlanUpdated(*info);
}

Mox::String VrfInfoSm::toStrep() const { return "<VrfInfoSm " + vrfInfo_->toStrep() + ">"; }

void VrfInfoSm::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "VrfInfoSm");
  context.attribute(indent, "vrfInfo", vrfInfo_->toStrep());
  context.attribute(indent, "vrfStatusLocal",
                    Mox::toStrep(vrfStatusLocal_->state()) + " " + vrfStatusLocal_->networkNamespace());
  context.attribute(
      indent, "kniRoot",
      kniInterfaceInfo_ ? std::to_string(kniInterfaceInfo_->interfaces()) + " interfaces" : "NULL");
  context.attribute(indent, "interfaceWatchBookmark", interfaceWatchBookmark_);
}

}  // namespace ArpSuppression
