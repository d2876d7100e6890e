#include "Orb/FeatureSwitch.h"

#include <utility>

namespace Orb {

namespace {

FeatureSwitch::Source source_;
std::uint32_t sources_ = 1;

}  // namespace

FeatureSwitch::Source FeatureSwitch::sourceIs(Source source) {
  ++sources_;
  return std::exchange(source_, std::move(source));
}

bool FeatureSwitch::enabled() {
  if (readFrom_ != sources_) {
    enabled_ = source_ ? source_(group_, name_).value_or(default_) : default_;
    readFrom_ = sources_;
  }
  return enabled_;
}

}  // namespace Orb
