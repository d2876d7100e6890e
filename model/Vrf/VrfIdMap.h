#pragma once

#include <array>
#include <cstring>
#include <map>
#include <optional>
#include <string_view>
#include <vector>

#include "L3/VrfName.h"
#include "Memtab/Entity.h"
#include "Mox/Attribute.h"
#include "Mox/Notifiee.h"
#include "Mox/Strep.h"
#include "Vrf/VrfId.h"

namespace Vrf::VrfIdMap {

// A VRF name as it lies in shared memory, zero padded.
class FixedVrfName {
 public:
  FixedVrfName() = default;
  // Throws Mox::RangeError for a name that is too long.
  explicit FixedVrfName(std::string_view name) {
    L3::VrfName::check(name);
    std::memcpy(bytes_.data(), name.data(), name.size());
  }
  std::string toStrep() const { return {bytes_.data(), strnlen(bytes_.data(), bytes_.size())}; }
  static std::optional<FixedVrfName> fromStrep(std::string_view text) {
    if (text.size() > L3::VrfName::maxLength || text.find('\0') != std::string_view::npos)
      return std::nullopt;
    return FixedVrfName(text);
  }
  friend bool operator==(const FixedVrfName&, const FixedVrfName&) = default;

 private:
  std::array<char, L3::VrfName::maxLength> bytes_{};
};

// In shared memory at "vrf/vrfIdMapStatus".
class Status final : public Memtab::Entity {
 public:
  MEMTAB_COLLECTION(VrfId, FixedVrfName, vrfIdToName)
  MEMTAB_MEMBERS(vrfIdToName)
};

// The same map the other way round, within one agent.
class NameToIdMap final : public Mox::Entity {
 public:
  MOX_MAP(Mox::String, VrfId, vrfNameToId)
  MOX_MEMBERS(vrfNameToId)

  // kNoVrfId when the name has none.
  VrfId vrfId(const Mox::String& name) const { return vrfNameToIdHas(name) ? vrfNameToId(name) : kNoVrfId; }
};

// Keeps a NameToIdMap in step with the status, beginning with the ids that are there already. A name that
// several ids claim has the one that came last, and the one before when that goes.
class ReverseMapper final : public Mox::Entity {
 public:
  ReverseMapper(Mox::Ptr<const Status> status, Mox::Ptr<NameToIdMap> nameToIdMap);

 private:
  void handleVrfId(VrfId id);

  Mox::Notifiee<const Status> status_;
  Mox::Ptr<NameToIdMap> nameToIdMap_;
  Mox::Map<VrfId, Mox::String> known_;
  std::map<Mox::String, std::vector<VrfId>> idsOf_;  // in order of arrival
};

}  // namespace Vrf::VrfIdMap
