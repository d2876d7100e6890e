#pragma once

#include <functional>
#include <limits>

#include "Orb/EventLoop.h"
#include "Switch/ProblemReporter.h"

namespace Switch {

// A problem that is noticed by what happens now and then: over when that has not happened for a minute and
// nothing else says that it lasts.
class PassingProblem {
 public:
  static constexpr double kOverSeconds = 60;
  // It may happen with every frame, and costs little when it happened within this time already.
  static constexpr double kNoticeSeconds = 1;

  // `lasts`, where there is one, is asked each minute in which it did not happen. All outlive the problem.
  PassingProblem(ProblemReporter& problems, Orb::EventLoop& loop, Mox::String subject,
                 std::function<bool()> lasts = {})
      : problems_(problems),
        loop_(loop),
        subject_(std::move(subject)),
        lasts_(std::move(lasts)),
        over_(loop, "passing problem", [this] { handleMinute(); }) {}
  PassingProblem(const PassingProblem&) = delete;
  PassingProblem& operator=(const PassingProblem&) = delete;
  ~PassingProblem() { problems_.problemDel(subject_); }

  bool on() const { return problems_.has(subject_); }

  // A text without numbers that change: each new text is a line in the log.
  void happened(const Mox::String& problem, const Mox::String& advice = {}, Origin origin = Origin::itself) {
    happened([&] { problems_.problemIs(subject_, problem, advice, ProblemReporter::Left::some, origin); });
  }
  // `report` makes the texts, and hands them to the reporter, only when it is time to.
  template <class Report>
  requires std::is_invocable_v<Report>
  void happened(const Report& report) {
    if (loop_.now() < noticed_ + kNoticeSeconds) return;
    noticed_ = loop_.now();
    report();
    over_.after(kOverSeconds);
  }

 private:
  void handleMinute() {
    if (lasts_ && lasts_()) return over_.after(kOverSeconds);
    problems_.problemDel(subject_);
  }

  ProblemReporter& problems_;
  Orb::EventLoop& loop_;
  const Mox::String subject_;
  const std::function<bool()> lasts_;
  double noticed_ = -std::numeric_limits<double>::infinity();
  Orb::Timer over_;
};

}  // namespace Switch
