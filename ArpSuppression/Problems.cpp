#include "ArpSuppression/Problems.h"

#include <memory>

namespace ArpSuppression {

namespace {
std::unique_ptr<Switch::ProblemReporter>& reporter() {
  static auto reporter = std::make_unique<Switch::ProblemReporter>(nullptr, "ArpSuppression");
  return reporter;
}
}  // namespace

Switch::ProblemReporter& problems() { return *reporter(); }

void problemsAre(Mox::Ptr<Switch::Problems> problems) {
  reporter() = std::make_unique<Switch::ProblemReporter>(std::move(problems), "ArpSuppression");
}

}  // namespace ArpSuppression
