#pragma once

#include <cstddef>
#include <string_view>

#include "Mox/Error.h"

namespace L3 {

// A VRF's name as the system bounds it.
struct VrfName {
  static constexpr std::size_t maxLength = 100;  // bytes
  static constexpr const char* kDefault = "default";

  // Throws Mox::RangeError for a name that is too long.
  static void check(std::string_view name) {
    if (name.size() > maxLength) {
      throw Mox::RangeError("L3::VrfName::value::bytes > L3::VrfName::maxLength not allowed");
    }
  }
};

}  // namespace L3
