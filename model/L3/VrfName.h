#pragma once

#include <cstddef>
#include <string_view>

#include "Mox/Error.h"

namespace L3 {

// A VRF's name as the system bounds it.
struct VrfName {
  static constexpr std::size_t maxLength = 100;  // bytes
  static constexpr const char* kDefault = "default";
  static constexpr const char* kTooLong = "L3::VrfName::value::bytes > L3::VrfName::maxLength not allowed";

  static constexpr bool valid(std::string_view name) { return name.size() <= maxLength; }
  // Throws Mox::RangeError for a name that is too long.
  static void check(std::string_view name) {
    if (!valid(name)) throw Mox::RangeError(kTooLong);
  }
};

}  // namespace L3
