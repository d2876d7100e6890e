#include "ArpSuppression/AnswerCounterSm.h"

#include <optional>
#include <utility>

namespace ArpSuppression {

AnswerCounterSm::AnswerCounterSm(Ptr<const DataPlaneAnswers> dataPlaneAnswers,
                                 Ptr<ArpSuppressionCounterStatus> arpSuppressionCounterStatus)
    : arpSuppressionCounterStatus_(std::move(arpSuppressionCounterStatus)) {
  dataPlaneAnswers_.on(DataPlaneAnswers::sumsChanged, [this] { handleSums(); });
  dataPlaneAnswers_.notifierIs(std::move(dataPlaneAnswers));
  if (dataPlaneAnswers_) handleSums();
}

void AnswerCounterSm::handleSums() {
  using Id = ArpSuppressionCounterId;
  constexpr struct {
    std::uint64_t AnswerSums::*sum;
    Id id;
    std::optional<Id> both;  // of ARP requests
  } kSums[] = {{&AnswerSums::remote, Id::replyRemote, Id::answeredInDataPlane},
               {&AnswerSums::multihomedDf, Id::replyMultihomedDf, Id::answeredInDataPlane},
               {&AnswerSums::multihomedNonDf, Id::replyMultihomedNonDf, Id::answeredInDataPlane},
               {&AnswerSums::ndAnswered, Id::ndAnswered, {}},
               {&AnswerSums::ndPassed, Id::ndPassed, {}}};
  const AnswerSums& now = dataPlaneAnswers_->sums();
  if (now.programs == 0) return;
  const auto [at, isNew] = counted_.try_emplace(now.programs, now);
  if (isNew) return;
  for (const auto& [sum, id, both] : kSums) {
    std::uint64_t& counted = at->second.*sum;
    if (now.*sum <= counted) continue;
    const std::uint64_t more = now.*sum - std::exchange(counted, now.*sum);
    arpSuppressionCounterStatus_->increment(id, more);
    if (both) arpSuppressionCounterStatus_->increment(*both, more);
  }
}

}  // namespace ArpSuppression
