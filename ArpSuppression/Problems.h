#pragma once

#include "Switch/ProblemReporter.h"

namespace ArpSuppression {

// What is wrong with the work of the agent in this process, for "switch/problems". Without an agent there is
// only the log.
Switch::ProblemReporter& problems();
// The agent's, from here on; null when it ends, which takes its problems out of the table.
void problemsAre(Mox::Ptr<Switch::Problems> problems);

}  // namespace ArpSuppression
