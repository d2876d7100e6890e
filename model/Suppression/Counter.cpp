#include "Suppression/Counter.h"

namespace ArpSuppression {

void ArpSuppressionCounterStatus::increment(ArpSuppressionCounterId id) {
  const auto index = static_cast<std::size_t>(id);
  counterIs(static_cast<std::uint32_t>(index), ++values_[index]);
}

void ArpSuppressionCounterStatus::clear() {
  values_.fill(0);
  for (std::uint32_t id = 0; id < kCounters; ++id) counterIs(id, 0);
}

}  // namespace ArpSuppression
