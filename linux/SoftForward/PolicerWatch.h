#pragma once

#include <map>
#include <string>

#include "SoftForward/Datapath.h"
#include "Switch/ProblemReporter.h"

namespace SoftForward {

// Reports each port whose policer refuses frames, from the first until there was none for a while.
class PolicerWatch {
 public:
  // All outlive this.
  PolicerWatch(const Programs& programs, const Datapath& datapath, Switch::ProblemReporter& problems)
      : programs_(programs), datapath_(datapath), problems_(problems) {}

  // To be called every second or so; costs nothing while no port's policer refuses any. `now` in seconds.
  void look(double now);

 private:
  struct Port {
    std::uint64_t policed = 0;  // until now
    double last = 0;            // when some were seen
    std::string subject;        // that is reported; "": none
  };

  const Programs& programs_;
  const Datapath& datapath_;
  Switch::ProblemReporter& problems_;
  std::uint64_t inAll_ = 0;
  std::map<Netlink::IfIndex, Port> ports_;  // that refused any since the first one that still does
};

}  // namespace SoftForward
