#pragma once

#include "Orb/EventLoop.h"
#include "Switch/ProblemReporter.h"

namespace Switch {

// A problem that is noticed by what happens now and then: over when that has not happened for a minute.
class PassingProblem {
 public:
  static constexpr double kOverSeconds = 60;

  // Both outlive it.
  PassingProblem(ProblemReporter& problems, Orb::EventLoop& loop, Mox::String subject)
      : problems_(problems),
        subject_(std::move(subject)),
        over_(loop, "passing problem", [this] { problems_.problemDel(subject_); }) {}
  PassingProblem(const PassingProblem&) = delete;
  PassingProblem& operator=(const PassingProblem&) = delete;
  ~PassingProblem() { problems_.problemDel(subject_); }

  // A text without numbers that change: each new text is a line in the log.
  void happened(const Mox::String& problem, const Mox::String& advice = {}) {
    problems_.problemIs(subject_, problem, advice);
    over_.after(kOverSeconds);
  }

 private:
  ProblemReporter& problems_;
  const Mox::String subject_;
  Orb::Timer over_;
};

}  // namespace Switch
