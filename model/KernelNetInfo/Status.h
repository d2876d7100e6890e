#pragma once

#include <cstdint>
#include <tuple>

#include "Mox/Attribute.h"
#include "Mox/Strep.h"

namespace KernelNetInfo {

struct KernelInterface {
  std::uint32_t ifIndex = 0;

  static constexpr auto moxFields() { return std::tuple(Mox::Field("ifIndex", &KernelInterface::ifIndex)); }
  friend bool operator==(const KernelInterface&, const KernelInterface&) = default;
};

// The kernel interfaces of one network namespace by device name, at "kni/ns/<namespace>/status". A device
// that is deleted and made again is reported as two changes.
class Status final : public Mox::Entity {
 public:
  MOX_MAP(Mox::String, KernelInterface, interface)
  MOX_MEMBERS(interface)
};

}  // namespace KernelNetInfo
