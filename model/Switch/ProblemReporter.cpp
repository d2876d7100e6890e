#include "Switch/ProblemReporter.h"

#include <ctime>

#include "Switch/Event.h"
#include "Tracelet/Trace.h"

namespace Switch {

ProblemReporter::ProblemReporter(Mox::Ptr<Problems> problems, Mox::String plugin)
    : problems_(problems ? std::move(problems) : Mox::make<Problems>()), plugin_(std::move(plugin)) {}

ProblemReporter::~ProblemReporter() {
  for (const Mox::String& subject : reported_) problems_->problemDel(plugin_ + " " + subject);
}

void ProblemReporter::problemIs(const Mox::String& subject, const Mox::String& problem,
                                const Mox::String& advice, Left left) {
  const bool added = reported_.insert(subject).second;
  const Mox::Ptr<Problem> entry = problems_->problemIs(plugin_ + " " + subject);
  if (!added && entry->problem() == problem && entry->advice() == advice) return;
  entry->pluginIs(plugin_);
  entry->subjectIs(subject);
  entry->problemIs(problem);
  entry->adviceIs(advice);
  entry->stopsIs(left == Left::nothing);
  if (added) entry->sinceIs(static_cast<std::uint64_t>(std::time(nullptr)));
  Tracelet::writeLine(plugin_ + ": " + subject + ": " + problem + (advice.empty() ? "" : "; " + advice),
                      left == Left::nothing ? Tracelet::Priority::error : Tracelet::Priority::warning);
  problemEvent(EventKind::problem, plugin_, subject, problem);
}

void ProblemReporter::problemDel(const Mox::String& subject) {
  if (reported_.erase(subject) == 0) return;
  problems_->problemDel(plugin_ + " " + subject);
  Tracelet::writeLine(plugin_ + ": " + subject + ": good again");
  problemEvent(EventKind::problemOver, plugin_, subject);
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
