#include "ArpSuppression/VlanL3Info.h"

#include <algorithm>
#include <cctype>

#include "ArpSuppression/Trace.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {

constexpr char kSource[] = "ArpSuppression/ArpSuppression";

Mox::String lowerCase(Mox::String text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

// --- VRFs and watches ------------------------------------------------------------------------------------

void VrfInfo::interfaceWatchIs(VrfInterfaceWatch* watch) {
  if (!watch) throw Mox::NullError("VrfInfo::interfaceWatch: null watch");
  interfaceWatchIs(watch->intfName(), watch);
}

bool VrfInfo::usable() const {
  if (netNs().empty()) {
    TRACE8("no netNs");
    return false;
  }
  if (netlinkSocket() == 0) {
    TRACE8("no netlinkSocket");
    return false;
  }
  return true;
}

Mox::String VrfInfo::toStrep() const {
  return "<vrfName=" + vrfName_ + " vrfId=" + std::to_string(vrfId()) + ">";
}

void VrfInfo::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "VrfInfo " + vrfName_ + " usable=" + Mox::toStrep(usable()) +
                           " #user=" + std::to_string(users()) +
                           " #interfaceWatch=" + std::to_string(interfaceWatchs()) + ":");
  context.line(indent + 2, "netNs " + netNs());
  for (const auto& [name, watch] : interfaceWatchCollection()) {
    context.line(indent + 2, watch->toStrep() + " kniIntfIfIndex=" + std::to_string(watch->kniIntfIfIndex()));
  }
}

VrfInterfaceWatch::VrfInterfaceWatch(Ptr<VrfInfo> vrfInfo, Mox::String intfName)
    : VrfUser(std::move(vrfInfo)), intfName_(std::move(intfName)), kniIntfName_(lowerCase(intfName_)) {}

bool VrfInterfaceWatch::usable() const {
  if (!vrfInfo()->usable()) return false;
  if (kniIntfIfIndex() == 0) {
    TRACELET_TRACE(traceHandle(), 8, kSource, "intfName=" << intfName_ << " no kniIntfIfIndex");
    return false;
  }
  return true;
}

Mox::String VrfInterfaceWatch::toStrep() const {
  return "<vrfName=" + vrfInfo()->vrfName() + " intfName=" + intfName_ + " usable=" + Mox::toStrep(usable()) +
         ">";
}

VlanL3Info::VlanL3Info(Bridging::VlanId vlanId, Ptr<VrfInfo> vrfInfo)
    : VrfInterfaceWatch(std::move(vrfInfo), constructIntfNameFromVlanId(vlanId)),
      vlanId_(vlanId),
      vlanIntfId_(Lanix::IntfId::fromName(intfName())) {}

Mox::String VlanL3Info::constructIntfNameFromVlanId(Bridging::VlanId vlanId) {
  return "Vlan" + vlanId.toStrep();
}

Mox::String VlanL3Info::toStrep() const {
  return "<vrfName=" + vrfInfo()->vrfName() + " vlanId=" + vlanId_.toStrep() + ">";
}

// --- VlanL3InfoStatus ------------------------------------------------------------------------------------

void VlanL3InfoStatus::vlanUpdated(const VlanL3Info& vlanL3Info) { vlanUpdated(vlanL3Info.vlanId()); }

void VlanL3InfoStatus::vlanUpdated(Bridging::VlanId vlanId) {
  updatedVlanId_ = {};  // a watcher may announce the same VLAN again from inside
  updatedVlanIdIs(vlanId);
  updatedVlanId_ = {};
}

Ptr<VlanL3Info> VlanL3InfoStatus::usableVlanL3InfoNonConst(Bridging::VlanId vlanId) const {
  Ptr<VlanL3Info> info = vlanL3Info(vlanId);
  if (info && !info->usable()) {
    TRACE8("not usable vlanL3Info=" << info);
    return {};
  }
  return info;
}

void VlanL3InfoStatus::addVrfUser(const Ptr<VrfUser>& user) {
  const Ptr<VrfInfo> vrfInfo = user->vrfInfo();
  MOX_ASSERT(kSource, "__null != vrfInfo", vrfInfo != nullptr);
  vrfInfo->userIs(user.get(), true);
}

void VlanL3InfoStatus::delVrfUser(const Ptr<VrfUser>& user) {
  const Ptr<VrfInfo> vrfInfo = user->vrfInfo();
  MOX_ASSERT(kSource, "__null != vrfInfo", vrfInfo != nullptr);
  vrfInfo->userDel(user.get());
  // A VRF of the same name may have been made since this one left.
  if (vrfInfo->users() == 0 && this->vrfInfo(vrfInfo->vrfName()) == vrfInfo) vrfInfoDel(vrfInfo->vrfName());
}

void VlanL3InfoStatus::addVrfInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch) {
  MOX_ASSERT(kSource, "nullptr == vrfInterfaceWatch( watch->intfName() )",
             vrfInterfaceWatch(watch->intfName()) == nullptr);
  addVrfUser(watch);
  const Ptr<VrfInfo> vrfInfo = watch->vrfInfo();
  MOX_ASSERT(kSource, "__null != vrfInfo", vrfInfo != nullptr);
  // Registered here before the VRF's watchers hear of it: they resolve the index at once, and that may come
  // back here.
  vrfInterfaceWatchIs(watch->intfName(), watch);
  vrfInfo->interfaceWatchIs(watch.get());
}

void VlanL3InfoStatus::delVrfInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch) {
  MOX_ASSERT(kSource, "watch == vrfInterfaceWatch( watch->intfName() )",
             watch == vrfInterfaceWatch(watch->intfName()));
  const Ptr<VrfInfo> vrfInfo = watch->vrfInfo();
  MOX_ASSERT(kSource, "__null != vrfInfo", vrfInfo != nullptr);
  vrfInfo->interfaceWatchDel(watch->intfName());
  delVrfUser(watch);
  vrfInterfaceWatchDel(watch->intfName());
}

Ptr<VrfInterfaceWatch> VlanL3InfoStatus::findOrCreateVrfInterfaceWatch(const Mox::String& vrfName,
                                                                       const Mox::String& intfName) {
  if (Ptr<VrfInterfaceWatch> watch = vrfInterfaceWatch(intfName)) {
    MOX_ASSERT(kSource, "watch->vrfInfo()->vrfName() == vrfName", watch->vrfInfo()->vrfName() == vrfName);
    return watch;
  }
  auto watch = Mox::make<VrfInterfaceWatch>(vrfInfoIs(vrfName), intfName);
  addVrfInterfaceWatch(watch);
  return watch;
}

void VlanL3InfoStatus::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "VlanL3InfoStatus");
  context.attribute(indent, "initialArpSuppressionStatusSync", initialArpSuppressionStatusSync());
  context.line(indent, "VlanL3Info #" + std::to_string(vlanL3Infos()));
  for (const auto& [vlanId, info] : vlanL3InfoCollection()) {
    Mox::String text =
        info->toStrep() + " kniIntfIfIndex=" + std::to_string(info->kniIntfIfIndex()) + " ipAddress=[";
    for (const auto& [address, active] : info->ipAddressCollection()) text += " " + address.toStrep();
    context.line(indent + 2, text + " ]");
  }
  context.line(indent, "VrfInfo #" + std::to_string(vrfInfos()));
  for (const auto& [name, vrfInfo] : vrfInfoCollection()) context.child(indent + 2, vrfInfo, "VrfInfo");
}

}  // namespace ArpSuppression
