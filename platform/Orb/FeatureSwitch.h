#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace Orb {

// Behaviour that an operator can switch, named within a group of switches. It belongs to the place that asks:
//
//   static Orb::FeatureSwitch proxyArpRefresh("EvpnLib.json", "EvpnMplsProxyArpRefresh", true);
//   if (proxyArpRefresh.enabled()) ...
//
// The value is looked up when it is first asked for and stands from then on, so that a place never changes
// its mind in the middle of its work. For the thread of the event loop.
class FeatureSwitch {
 public:
  // What the group says about a switch; nothing: the default holds. The host of the process provides it.
  using Source = std::function<std::optional<bool>(const std::string& group, const std::string& name)>;
  // Returns the one before; an empty function leaves every switch at its default. Every switch is looked up
  // anew: a test sets its own source and puts the old one back.
  static Source sourceIs(Source source);

  // Both names must outlive the switch.
  FeatureSwitch(const char* group, const char* name, bool defaultValue)
      : group_(group), name_(name), default_(defaultValue) {}

  bool enabled();

 private:
  const char* group_;
  const char* name_;
  const bool default_;
  bool enabled_ = false;
  std::uint32_t readFrom_ = 0;  // the count of sources then; 0: not read yet
};

}  // namespace Orb
