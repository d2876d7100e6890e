#include "ArpSuppression/LocalBindingRoom.h"

#include <utility>

#include "ArpSuppression/Problems.h"

namespace ArpSuppression {

LocalBindingRoom::LocalBindingRoom(Orb::EventLoop& loop, Ptr<const Limits> limits,
                                   Ptr<const LocalBindingRecord> record,
                                   Ptr<ArpSuppressionCounterStatus> counters)
    : loop_(loop),
      limits_(std::move(limits)),
      record_(std::move(record)),
      counters_(std::move(counters)),
      inAll_(problems(), loop, "local bindings", [this] { return full(); }) {}

bool LocalBindingRoom::forOneMore(const Lanix::IntfId& port) {
  const bool noneInAll = full();
  if (!noneInAll && !(port && full(port))) return true;
  counters_->increment(ArpSuppressionCounterId::localBindingRefused);
  if (noneInAll) {
    inAll_.happened(
        "there are as many local hosts as limits.localBindings of the configuration allows: no further ones "
        "are learned, nor made neighbours of the switch",
        "find out where they come from; where they are right, raise that limit and reload",
        Switch::Origin::perhapsStorm);
  } else {
    ofPort(port).happened(
        "there are as many hosts as limits.localBindingsPerPort of the configuration allows: no further ones "
        "are learned, nor made neighbours of the switch",
        "find out who sends with that many addresses; where they are right, raise that limit and reload",
        Switch::Origin::perhapsStorm);
  }
  return false;
}

Switch::PassingProblem& LocalBindingRoom::ofPort(const Lanix::IntfId& port) {
  const auto found = ofPorts_.find(port);
  if (found != ofPorts_.end()) return found->second;
  std::erase_if(ofPorts_, [](const auto& entry) { return !entry.second.on(); });
  return ofPorts_
      .try_emplace(port, problems(), loop_, "local bindings of port " + port.toStrep(),
                   [this, port] { return full(port); })
      .first->second;
}

}  // namespace ArpSuppression
