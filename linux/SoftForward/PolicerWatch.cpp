#include "SoftForward/PolicerWatch.h"

#include <utility>

namespace SoftForward {
namespace {

constexpr double kQuietSeconds = 5;

}  // namespace

void PolicerWatch::look(double now) {
  const std::uint64_t inAll = programs_.policedInAll();
  if (std::exchange(inAll_, inAll) != inAll) {
    std::map<Netlink::IfIndex, std::uint64_t> policed;
    for (const PortStatistics& port : programs_.portStatistics()) policed[port.ifIndex] += port.policed;
    for (const auto& [ifIndex, frames] : policed) {
      Port& port = ports_[ifIndex];
      if (frames == std::exchange(port.policed, frames)) continue;
      port.last = now;
      const std::string name = datapath_.deviceName(ifIndex);
      if (!port.subject.empty() || name.empty()) continue;
      port.subject = "port " + name;
      problems_.problemIs(port.subject,
                          "policer active: requests and replies beyond its rate are flooded as without "
                          "suppression",
                          "find who sends them, or raise the port's policer (softForward.ports." + name + ")",
                          Switch::ProblemReporter::Left::some, Switch::Origin::storm);
    }
  }
  for (auto& [ifIndex, port] : ports_) {
    if (port.subject.empty() || now < port.last + kQuietSeconds) continue;
    problems_.problemDel(std::exchange(port.subject, {}));
  }
}

}  // namespace SoftForward
