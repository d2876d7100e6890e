#include "Suppression/Counter.h"

namespace ArpSuppression {

void ArpSuppressionCounterStatus::increment(ArpSuppressionCounterId id, std::uint64_t by) {
  const auto index = static_cast<std::size_t>(id);
  counterIs(static_cast<std::uint32_t>(index), values_[index] += by);
}

void ArpSuppressionCounterStatus::clear() {
  values_.fill(0);
  for (std::uint32_t id = 0; id < kCounters; ++id) counterIs(id, 0);
}

}  // namespace ArpSuppression
