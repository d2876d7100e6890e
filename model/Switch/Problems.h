#pragma once

#include <cstdint>

#include "Mox/Attribute.h"
#include "Mox/Strep.h"

// What is wrong with this switch now, as its plug-ins and the host report it. At "switch/problems".

namespace Switch {

// One thing that does not work. Gone as soon as it works again.
class Problem final : public Mox::Entity {
 public:
  // "<plug-in> <subject>".
  explicit Problem(Mox::String key) : key_(std::move(key)) {}
  const Mox::String& key() const { return key_; }

  MOX_ATTRIBUTE(Mox::String, plugin)
  // What it is about, in the operator's words: "VLAN 10", "device arpsnoop". One problem a subject.
  MOX_ATTRIBUTE(Mox::String, subject)
  // What is wrong and what follows from it, and what an operator can do about it ("" when nothing). One line
  // each.
  MOX_ATTRIBUTE(Mox::String, problem)
  MOX_ATTRIBUTE(Mox::String, advice)
  // Seconds since 1970.
  MOX_ATTRIBUTE(std::uint64_t, since, 0)
  // While it lasts the plug-in does not do its work at all.
  MOX_ATTRIBUTE(bool, stops, false)
  MOX_MEMBERS(plugin, subject, problem, advice, since, stops)

 private:
  Mox::String key_;
};

class Problems final : public Mox::Entity {
 public:
  MOX_CHILDREN(Mox::String, Problem, problem)
  MOX_MEMBERS(problem)
};

inline constexpr const char* kProblemsPath = "switch/problems";
inline constexpr const char* kProblemsType = "Switch::Problems";

}  // namespace Switch
