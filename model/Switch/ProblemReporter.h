#pragma once

#include <map>

#include "Mox/Result.h"
#include "Switch/Event.h"
#include "Switch/Problems.h"

namespace Switch {

// A plug-in's own problems. Each is in the table from when it is reported until it is over, and stands in the
// log with one line when it begins, one when its text changes, and one when it is over, unless it comes of a
// storm that the log has already. Dropping the reporter takes its problems out of the table.
class ProblemReporter {
 public:
  // `problems` may be null: then there is only the log.
  ProblemReporter(Mox::Ptr<Problems> problems, Mox::String plugin);
  ProblemReporter(const ProblemReporter&) = delete;
  ProblemReporter& operator=(const ProblemReporter&) = delete;
  ~ProblemReporter();

  // What is left of the plug-in's work while a problem lasts.
  enum class Left : bool { nothing, some };
  // Does nothing when just that is reported already.
  void problemIs(const Mox::String& subject, const Mox::String& problem, const Mox::String& advice = {},
                 Left left = Left::some, Origin origin = Origin::itself);
  // Does nothing when there is no problem with the subject.
  void problemDel(const Mox::String& subject);
  // Reports the failure, or that there is none any more. Returns whether there is none.
  bool check(const Mox::String& subject, const Mox::Result<>& result, const Mox::String& advice = {},
             Left left = Left::some);

  bool has(const Mox::String& subject) const { return reported_.contains(subject); }
  bool empty() const { return reported_.empty(); }

 private:
  Mox::Ptr<Problems> problems_;
  Mox::String plugin_;
  std::map<Mox::String, Origin> reported_;  // by subject
};

}  // namespace Switch
