#pragma once

#include "Mox/Attribute.h"

// What the plug-ins still need before each does all of its work. At "switch/readiness"; each of them writes
// its own word.

namespace Switch {

class Readiness final : public Mox::Entity {
 public:
  // By plug-in, what it waits for, in an operator's words; "": for nothing, it does all of its work. One that
  // has no word here has not begun.
  MOX_MAP(Mox::String, Mox::String, awaited)
  MOX_MEMBERS(awaited)

  // Whether the plug-in does all of its work.
  bool ready(const Mox::String& plugin) const { return awaitedHas(plugin) && awaited(plugin).empty(); }
};

inline constexpr const char* kReadinessPath = "switch/readiness";
inline constexpr const char* kReadinessType = "Switch::Readiness";

}  // namespace Switch
