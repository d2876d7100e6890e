#include "Switch/ProblemReporter.h"

#include <ctime>

namespace Switch {

ProblemReporter::ProblemReporter(Mox::Ptr<Problems> problems, Mox::String plugin)
    : problems_(problems ? std::move(problems) : Mox::make<Problems>()), plugin_(std::move(plugin)) {}

ProblemReporter::~ProblemReporter() {
  for (const auto& [subject, origin] : reported_) problems_->problemDel(plugin_ + " " + subject);
}

void ProblemReporter::problemIs(const Mox::String& subject, const Mox::String& problem,
                                const Mox::String& advice, Left left, Origin origin) {
  const bool added = reported_.emplace(subject, origin).second;
  const Mox::Ptr<Problem> entry = problems_->problemIs(plugin_ + " " + subject);
  if (!added && entry->problem() == problem && entry->advice() == advice) return;
  entry->pluginIs(plugin_);
  entry->subjectIs(subject);
  entry->problemIs(problem);
  entry->adviceIs(advice);
  entry->stopsIs(left == Left::nothing);
  if (added) entry->sinceIs(static_cast<std::uint64_t>(std::time(nullptr)));
  problemEvent(EventKind::problem,
               {plugin_, subject, problem, advice,
                left == Left::nothing ? Tracelet::Priority::error : Tracelet::Priority::warning, origin});
}

void ProblemReporter::problemDel(const Mox::String& subject) {
  const auto reported = reported_.extract(subject);
  if (!reported) return;
  problems_->problemDel(plugin_ + " " + subject);
  problemEvent(EventKind::problemOver,
               {plugin_, subject, {}, {}, Tracelet::Priority::notice, reported.mapped()});
}

bool ProblemReporter::check(const Mox::String& subject, const Mox::Result<>& result,
                            const Mox::String& advice, Left left) {
  if (result) {
    problemDel(subject);
    return true;
  }
  problemIs(subject, result.error(), advice, left);
  return false;
}

}  // namespace Switch
