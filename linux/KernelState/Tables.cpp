#include "KernelState/Tables.h"

#include "Bridging/VlanId.h"

namespace KernelState {

std::optional<Lanix::IntfId> vlanInterfaceOf(std::string_view deviceName) {
  const auto id = Lanix::IntfId::fromName(deviceName);
  if (!Bridging::VlanId::valid(id.vlanNumber()) || id.kernelName() != deviceName) return std::nullopt;
  return id;
}

}  // namespace KernelState
