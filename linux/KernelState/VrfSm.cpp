#include "KernelState/VrfSm.h"

#include <vector>

namespace KernelState {
namespace {

constexpr unsigned kUpdateLevel = 3;
constexpr ::Vrf::VrfIdMap::VrfId kDefaultId = 0;

using ::Vrf::VrfIdMap::kNoVrfId;

}  // namespace

VrfSm::VrfSm(Ptr<const Switch::Config> config, Ptr<const NamespaceStates> states,
             Ptr<::Vrf::VrfIdMap::Status> vrfIdMap, Ptr<NamespaceVrfs> vrfs,
             Ptr<Ip::AllVrfStatusLocal> vrfStatusLocal, Switch::ProblemReporter& problems,
             const Ptr<Orb::TaskScheduler>& scheduler)
    : config_(std::move(config), [this] { updateTask_.schedule(); }),
      states_(std::move(states),
              [this](StateWatch::Notifiee& state) {
                state.on(NamespaceState::enteredChanged, [this] { publishStates(); });
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
  vrfs[L3::VrfName::kDefault] = {kDefaultId, Lanix::kDefaultNamespace};
  if (!config_) return vrfs;
  for (const auto& [name, config] : config_->vrfCollection()) {
    if (name == L3::VrfName::kDefault) continue;
    if (name.empty() || name.size() > L3::VrfName::maxLength) {
      wrong("vrfs." + name, "allowed is a name of 1 to " + std::to_string(L3::VrfName::maxLength) + " bytes");
      continue;
    }
    Vrf& vrf = vrfs[name];
    vrf.netNs = config->networkNamespace();
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
  // What goes is inactive before it loses its number and its namespace.
  std::vector<Mox::String> gone;
  for (const auto& [name, status] : vrfStatusLocal_->vrfCollection()) {
    const auto vrf = wanted.find(name);
    if (vrf == wanted.end()) gone.push_back(name);
    if (vrf == wanted.end() || vrf->second.netNs != status->networkNamespace())
      status->stateIs(Ip::VrfState::inactive);
  }
  for (const Mox::String& name : gone) vrfStatusLocal_->vrfDel(name);
  publishIds(wanted);
  publishNamespaces(wanted);
  for (const auto& [name, vrf] : wanted) vrfStatusLocal_->vrfIs(name)->networkNamespaceIs(vrf.netNs);
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

void VrfSm::publishNamespaces(const Vrfs& wanted) {
  // The VRF "default" is always that of its namespace.
  std::map<Lanix::NamespaceName, VrfOfNamespace> vrfs{
      {Lanix::kDefaultNamespace, {L3::VrfName::kDefault, kDefaultId}}};
  for (const auto& [name, vrf] : wanted) {
    if (vrf.netNs.empty()) continue;
    const auto [holder, isNew] = vrfs.emplace(vrf.netNs, VrfOfNamespace{name, vrf.id});
    if (!isNew && holder->second.name != name) {
      wrong("vrfs." + name + ".networkNamespace",
            vrf.netNs + " is that of VRF " + holder->second.name + ", whose devices are in it");
    }
  }
  std::vector<Lanix::NamespaceName> gone;
  for (const auto& [netNs, vrf] : vrfs_->vrfCollection()) {
    if (!vrfs.contains(netNs)) gone.push_back(netNs);
  }
  for (const Lanix::NamespaceName& netNs : gone) vrfs_->vrfDel(netNs);
  for (const auto& [netNs, vrf] : vrfs) vrfs_->vrfIs(netNs, vrf);
}

void VrfSm::publishStates() {
  for (const auto& [name, status] : vrfStatusLocal_->vrfCollection()) {
    const auto state = states_->state(status->networkNamespace());
    status->stateIs(state && state->entered() ? Ip::VrfState::active : Ip::VrfState::inactive);
  }
}

}  // namespace KernelState
