#pragma once

#include <cstdint>

namespace Vrf::VrfIdMap {

// A VRF's number: 24 bits. The VRF "default" always has 0; all ones stands for none.
using VrfId = std::uint32_t;
inline constexpr VrfId kNoVrfId = 0xFFFFFF;

}  // namespace Vrf::VrfIdMap
