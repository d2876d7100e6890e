#pragma once

// One kind of thing, as many as a switch may have of it, for SwitchBench.

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Daemon.h"
#include "lab/Lab.h"

namespace Bench {

// A network in the namespace that the calling thread is in, and what is to be had of a daemon there.
struct Size {
  std::string members;         // of the configuration
  std::shared_ptr<void> keep;  // the network, which goes with this
  std::function<bool(const Daemon&)> ready;
  std::function<void(const Daemon&)>
      fill;  // once that is so, with what only a running daemon takes; may be none
  std::function<bool(const Daemon&)> full;    // what that is awaited by
  std::function<void(const Daemon&)> change;  // one of them more, or another
  std::function<bool(const Daemon&)> changed;
};

// "vlans", "ports", "vrfs", "hosts", "neighbours" or "bindings". The far ends of ports are in `outside`. Failures throw
// std::runtime_error.
Size makeSize(const std::string& what, unsigned count, const Lab::Namespace& outside);

}  // namespace Bench
