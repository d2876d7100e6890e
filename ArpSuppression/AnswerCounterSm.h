#pragma once

#include <cstdint>
#include <map>

#include "Mox/Notifiee.h"
#include "Suppression/Counter.h"
#include "Suppression/DataPlaneAnswers.h"

namespace ArpSuppression {

using Mox::Ptr;

// Counts the requests that the data plane has answered as if the agent had: each by the reason for its answer,
// and all of them as answeredInDataPlane. Neighbour solicitations, of which the agent answers none itself, have
// counters of their own, as those that passed. What was answered before the first reading of some programs' sums is
// not counted; a sum that is less than it was before adds nothing until it is more.
class AnswerCounterSm final : public Mox::Entity {
 public:
  // Without `dataPlaneAnswers` there is nothing to count.
  AnswerCounterSm(Ptr<const DataPlaneAnswers> dataPlaneAnswers,
                  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus);

 private:
  void handleSums();

  Mox::Notifiee<const DataPlaneAnswers> dataPlaneAnswers_;
  Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus_;
  std::map<std::uint64_t, AnswerSums> counted_;  // by their `programs`
};

}  // namespace ArpSuppression
