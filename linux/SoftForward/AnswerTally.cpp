#include "SoftForward/AnswerTally.h"

namespace SoftForward {

namespace {

constexpr double kSeconds = 1;

}  // namespace

void AnswerTally::holdingIs(bool holding) {
  if (!shown_ || shown_->holding() == holding) return;
  shown_->holdingIs(holding);
  count();
}

void AnswerTally::count() {
  if (!shown_ || programs_.id() == 0) return;
  const Statistics counts = programs_.statistics();
  const auto& answered = counts.answered;
  // Not what could not be read, which is all zero.
  const ArpSuppression::AnswerSums before = shown_->sums();
  const bool fewer =
      before.programs == programs_.id() &&
      (answered[0] < before.remote || counts.ndPassed < before.ndPassed || answered[3] < before.ndAnswered);
  if (!fewer)
    shown_->sumsIs({programs_.id(), answered[0], answered[1], answered[2], answered[3], counts.ndPassed});
  if (shown_->holding()) {
    timer_.after(kSeconds);
  } else {
    timer_.cancel();
  }
}

}  // namespace SoftForward
