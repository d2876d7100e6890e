#include "ArpSuppression/AnswerCounterSm.h"

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
  constexpr std::pair<std::uint64_t AnswerSums::*, Id> kSums[] = {
      {&AnswerSums::remote, Id::replyRemote},
      {&AnswerSums::multihomedDf, Id::replyMultihomedDf},
      {&AnswerSums::multihomedNonDf, Id::replyMultihomedNonDf}};
  const AnswerSums& now = dataPlaneAnswers_->sums();
  if (now.programs == 0) return;
  const auto [at, isNew] = counted_.try_emplace(now.programs, now);
  if (isNew) return;
  for (const auto& [sum, id] : kSums) {
    std::uint64_t& counted = at->second.*sum;
    if (now.*sum <= counted) continue;
    const std::uint64_t more = now.*sum - std::exchange(counted, now.*sum);
    arpSuppressionCounterStatus_->increment(id, more);
    arpSuppressionCounterStatus_->increment(Id::answeredInDataPlane, more);
  }
}

}  // namespace ArpSuppression
