#pragma once

#include <optional>
#include <string>

namespace SoftForward {

// Empty: done. Otherwise one line for people: the device or map, what was being done to it, and why it
// failed.
using Failure = std::optional<std::string>;

}  // namespace SoftForward
