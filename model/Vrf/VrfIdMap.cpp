#include "Vrf/VrfIdMap.h"

namespace Vrf::VrfIdMap {

ReverseMapper::ReverseMapper(Mox::Ptr<const Status> status, Mox::Ptr<NameToIdMap> nameToIdMap)
    : status_(status), nameToIdMap_(std::move(nameToIdMap)) {
  if (!status) return;
  status_.on(Status::vrfIdToNameChanged, [this](VrfId id) { handleVrfId(id); });
  status->vrfIdToNameForEach([this](VrfId id, const FixedVrfName&) { handleVrfId(id); });
}

void ReverseMapper::handleVrfId(VrfId id) {
  const auto entry = status_->vrfIdToNameEntry(id);
  const Mox::String name = entry ? entry->toStrep() : Mox::String();
  if (const Mox::String* old = known_.find(id)) {
    const Mox::String oldName = *old;
    if (oldName == name) return;
    known_.take(id);
    std::vector<VrfId>& ids = idsOf_[oldName];
    std::erase(ids, id);
    if (!ids.empty()) {
      nameToIdMap_->vrfNameToIdIs(oldName, ids.back());
    } else {
      idsOf_.erase(oldName);
      nameToIdMap_->vrfNameToIdDel(oldName);
    }
  }
  if (name.empty()) return;
  known_.insert(id, name);
  idsOf_[name].push_back(id);
  nameToIdMap_->vrfNameToIdIs(name, id);
}

}  // namespace Vrf::VrfIdMap
