#pragma once

#include "Orb/EventLoop.h"
#include "SoftForward/Programs.h"
#include "Suppression/DataPlaneAnswers.h"

namespace SoftForward {

// Publishes how many requests the programs have answered, and solicitations passed: every second while they answer, and once more when
// they do not any longer.
class AnswerTally {
 public:
  // Loop and programs outlive this; `shown` may be null.
  AnswerTally(Orb::EventLoop& loop, const Programs& programs,
              Mox::Ptr<ArpSuppression::DataPlaneAnswers> shown)
      : programs_(programs),
        shown_(std::move(shown)),
        timer_(loop, "SoftForward answers counted", [this] { count(); }) {}
  AnswerTally(const AnswerTally&) = delete;
  AnswerTally& operator=(const AnswerTally&) = delete;
  ~AnswerTally() { holdingIs(false); }

  // Whether the programs answer now.
  void holdingIs(bool holding);
  // The programs are loaded: who counts from now on is known before there is anything to count.
  void count();

 private:
  const Programs& programs_;
  Mox::Ptr<ArpSuppression::DataPlaneAnswers> shown_;
  Orb::Timer timer_;
};

}  // namespace SoftForward
