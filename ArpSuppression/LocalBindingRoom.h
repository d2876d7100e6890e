#pragma once

#include <map>

#include "ArpSuppression/LocalBinding.h"
#include "Suppression/Counter.h"
#include "Suppression/Limits.h"
#include "Switch/PassingProblem.h"

namespace ArpSuppression {

// Whether there is room for one more local binding, in all and on its port. What there is none for is counted,
// and is a problem for as long as there is none.
class LocalBindingRoom {
 public:
  LocalBindingRoom(Orb::EventLoop& loop, Ptr<const Limits> limits, Ptr<const LocalBindingRecord> record,
                   Ptr<ArpSuppressionCounterStatus> counters);

  // The empty port is one that is not known: only the limit in all holds then.
  bool forOneMore(const Lanix::IntfId& port);

 private:
  bool full() const { return record_->bindings() >= limits_->localBindings(); }
  bool full(const Lanix::IntfId& port) const {
    return record_->bindingsOfPort(port) >= limits_->localBindingsPerPort();
  }
  Switch::PassingProblem& ofPort(const Lanix::IntfId& port);

  Orb::EventLoop& loop_;
  Ptr<const Limits> limits_;
  Ptr<const LocalBindingRecord> record_;
  Ptr<ArpSuppressionCounterStatus> counters_;
  Switch::PassingProblem inAll_;
  std::map<Lanix::IntfId, Switch::PassingProblem> ofPorts_;  // that are or were full
};

}  // namespace ArpSuppression
