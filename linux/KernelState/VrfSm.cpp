#include "KernelState/VrfSm.h"

#include <vector>

namespace KernelState {
namespace {

constexpr unsigned kUpdateLevel = 3;
constexpr ::Vrf::VrfIdMap::VrfId kDefaultId = 0;

using ::Vrf::VrfIdMap::kNoVrfId;

}  // namespace

VrfSm::VrfSm(Ptr<const Switch::Config> config, Ptr<const NamespaceStates> states,
             Ptr<::Vrf::VrfIdMap::Status> vrfIdMap, Ptr<VrfPlaces> vrfs,
             Ptr<Ip::AllVrfStatusLocal> vrfStatusLocal, Switch::ProblemReporter& problems,
             const Ptr<Orb::TaskScheduler>& scheduler)
    : config_(std::move(config), [this] { updateTask_.schedule(); }),
      states_(std::move(states),
              [this](StateWatch::Notifiee& state) {
                state.on(NamespaceState::enteredChanged, [this] { publishStates(); });
                if (state->name() != Lanix::kDefaultNamespace) return;
                state.on(NamespaceState::deviceChanged, [this](const Mox::String& name) {
                  if (vrfs_->deviceVrfHas(name)) updateTask_.schedule();
                });
              }),
      vrfIdMap_(std::move(vrfIdMap)),
      vrfs_(std::move(vrfs)),
      vrfStatusLocal_(std::move(vrfStatusLocal)),
      problems_(problems),
      updateTask_(scheduler, "KernelState VRFs", kUpdateLevel, [this] { update(); }) {
  vrfStatusLocal_->vrfDelAll();  // an earlier agent of this process
  update();
}

VrfSm::Vrfs VrfSm::configured() {
  Vrfs vrfs;
  std::map<::Vrf::VrfIdMap::VrfId, Mox::String> holders{{kDefaultId, L3::VrfName::kDefault}};
  vrfs[L3::VrfName::kDefault] = {kDefaultId, Lanix::kDefaultNamespace, {}};
  if (!config_) return vrfs;
  for (const auto& [name, config] : config_->vrfCollection()) {
    if (name == L3::VrfName::kDefault) continue;
    if (name.empty() || name.size() > L3::VrfName::maxLength) {
      wrong("vrfs." + name, "allowed is a name of 1 to " + std::to_string(L3::VrfName::maxLength) + " bytes");
      continue;
    }
    Vrf& vrf = vrfs[name];
    vrf.netNs = config->networkNamespace();
    vrf.device = config->device();
    if (config->id() >= kNoVrfId) {
      wrong("vrfs." + name + ".id", std::to_string(config->id()),
            "allowed is 1 to " + std::to_string(kNoVrfId - 1));
    } else if (const auto [holder, isNew] = holders.emplace(config->id(), name); !isNew) {
      wrong("vrfs." + name + ".id", std::to_string(config->id()) + " is the id of VRF " + holder->second,
            "allowed is one that no other VRF has");
    } else {
      vrf.id = config->id();
    }
  }
  return vrfs;
}

void VrfSm::wrong(const Mox::String& where, const Mox::String& problem, const Mox::String& allowed) {
  wrong_.insert(where);
  problems_.problemIs(where, problem, allowed);
}

void VrfSm::update() {
  const std::set<Mox::String> before = std::exchange(wrong_, {});
  const Vrfs wanted = configured();
  // What goes is inactive before it loses its number and its place.
  std::vector<Mox::String> gone;
  std::set<Mox::String> moving;
  for (const auto& [name, status] : vrfStatusLocal_->vrfCollection()) {
    const auto vrf = wanted.find(name);
    if (vrf == wanted.end()) gone.push_back(name);
    if (vrf != wanted.end() && vrf->second.netNs == status->networkNamespace()) continue;
    if (vrf != wanted.end() && status->state() == Ip::VrfState::active) moving.insert(name);
    status->stateIs(Ip::VrfState::inactive);
  }
  moving_ = std::move(moving);
  if (!moving_.empty()) updateTask_.schedule();
  for (const Mox::String& name : gone) vrfStatusLocal_->vrfDel(name);
  publishIds(wanted);
  publishPlaces(wanted);
  for (const auto& [name, vrf] : wanted) {
    const auto status = vrfStatusLocal_->vrfIs(name);
    if (!moving_.contains(name)) status->networkNamespaceIs(vrf.netNs);
  }
  publishStates();
  for (const Mox::String& where : before) {
    if (!wrong_.contains(where)) problems_.problemDel(where);
  }
}

void VrfSm::publishIds(const Vrfs& wanted) {
  std::map<::Vrf::VrfIdMap::VrfId, Mox::String> ids;
  for (const auto& [name, vrf] : wanted) {
    if (vrf.id != kNoVrfId) ids[vrf.id] = name;
  }
  if (vrfIdMap_) {
    for (const auto& [id, name] : ids_) {
      if (!ids.contains(id)) vrfIdMap_->vrfIdToNameDel(id);
    }
    for (const auto& [id, name] : ids) vrfIdMap_->vrfIdToNameIs(id, ::Vrf::VrfIdMap::FixedVrfName(name));
  }
  ids_ = std::move(ids);
}

void VrfSm::publishPlaces(const Vrfs& wanted) {
  // The VRF "default" is always that of its namespace.
  std::map<Lanix::NamespaceName, VrfIdentity> namespaces{
      {Lanix::kDefaultNamespace, {L3::VrfName::kDefault, kDefaultId}}};
  std::map<Mox::String, VrfIdentity> devices;
  devices_.clear();
  for (const auto& [name, vrf] : wanted) {
    const bool isDevice = !vrf.device.empty();
    const Mox::String& place = isDevice ? vrf.device : vrf.netNs;
    if (place.empty()) continue;
    if (isDevice) devices_[name] = place;
    const auto [holder, isNew] = (isDevice ? devices : namespaces).emplace(place, VrfIdentity{name, vrf.id});
    if (!isNew && holder->second.name != name) {
      wrong("vrfs." + name + (isDevice ? ".device" : ".networkNamespace"),
            place + " is that of VRF " + holder->second.name + ", whose interfaces are " +
                (isDevice ? "below" : "in") + " it");
    }
  }
  std::vector<Mox::String> gone;
  for (const auto& [netNs, vrf] : vrfs_->vrfCollection()) {
    if (!namespaces.contains(netNs)) gone.push_back(netNs);
  }
  for (const Lanix::NamespaceName& netNs : std::exchange(gone, {})) vrfs_->vrfDel(netNs);
  for (const auto& [device, vrf] : vrfs_->deviceVrfCollection()) {
    if (!devices.contains(device)) gone.push_back(device);
  }
  for (const Mox::String& device : gone) vrfs_->deviceVrfDel(device);
  for (const auto& [netNs, vrf] : namespaces) vrfs_->vrfIs(netNs, vrf);
  for (const auto& [device, vrf] : devices) vrfs_->deviceVrfIs(device, vrf);
}

void VrfSm::publishStates() {
  for (const auto& [name, status] : vrfStatusLocal_->vrfCollection())
    status->stateIs(isThere(*status) ? Ip::VrfState::active : Ip::VrfState::inactive);
}

bool VrfSm::isThere(const Ip::VrfStatusLocal& vrf) {
  const auto state = states_->state(vrf.networkNamespace());
  if (moving_.contains(vrf.vrfName()) || !state || !state->entered()) return false;
  const auto device = devices_.find(vrf.vrfName());
  if (device == devices_.end()) return true;
  const IfIndex ifIndex = state->device(device->second);
  if (ifIndex == 0) return false;
  if (state->link(ifIndex).isVrf) return true;
  if (vrfs_->deviceVrf(device->second).name != vrf.vrfName()) return false;
  wrong("vrfs." + vrf.vrfName() + ".device",
        device->second + " is no VRF device, so that the VRF has no interfaces",
        "allowed is a device of kind \"vrf\"; give this one another name");
  return false;
}

}  // namespace KernelState
