#include "KernelState/PortRoom.h"

namespace KernelState {

PortRoom::PortRoom(Ptr<const ArpSuppression::Limits> limits, Switch::ProblemReporter& problems,
                   Netlink::MacFilter& filter, std::function<void()> changed)
    : limits_(limits ? std::move(limits) : Mox::make<const ArpSuppression::Limits>()),
      problems_(problems),
      filter_(filter),
      changed_(std::move(changed)) {
  limits_.on(ArpSuppression::Limits::macTablePerPortChanged, [this] {
    if (!full_.empty()) changed_();
  });
}

void PortRoom::remove(IfIndex port) {
  const auto kept = kept_.find(port);
  if (kept == kept_.end()) return;
  if (--kept->second == 0) kept_.erase(kept);
  if (full_.contains(port)) changed_();
}

bool PortRoom::has(IfIndex port) const {
  const auto kept = kept_.find(port);
  return kept == kept_.end() || kept->second < limits_->macTablePerPort();
}

void PortRoom::refuse(IfIndex port, const Mox::String& name) {
  const auto [full, isNew] = full_.try_emplace(port, "MAC table of port " + name);
  if (!isNew) return;
  filter_.fullIs(port, true);
  problems_.problemIs(full->second,
                      "its bridge has learned as many addresses there as limits.macTablePerPort of the "
                      "configuration allows: hosts with further ones are not known to be there",
                      "find out who sends with that many; have the bridge itself learn no more "
                      "(ip link set BRIDGE type bridge fdb_max_learned NUMBER, where the kernel has it); "
                      "where they are right, raise that limit and reload",
                      Switch::ProblemReporter::Left::some, Switch::Origin::perhapsStorm);
}

void PortRoom::accept(IfIndex port) {
  const auto full = full_.extract(port);
  if (!full) return;
  filter_.fullIs(port, false);
  problems_.problemDel(full.mapped());
}

std::vector<IfIndex> PortRoom::full() const {
  std::vector<IfIndex> ports;
  for (const auto& [port, subject] : full_) ports.push_back(port);
  return ports;
}

std::vector<IfIndex> PortRoom::open() const {
  std::vector<IfIndex> ports = full();
  std::erase_if(ports, [this](IfIndex port) { return !has(port); });
  return ports;
}

}  // namespace KernelState
