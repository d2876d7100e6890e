#pragma once

#include <cstdint>
#include <string>

#include "Lanix/NamespaceName.h"
#include "Lanix/Seam.h"

namespace Lanix {

// The kernel's network namespaces (setns(2), ip-netns(8)); the seam that tests replace with
// Replaced<Namespaces>. Use NamespaceGuard to be in one for a while.
class Namespaces {
 public:
  virtual ~Namespaces() = default;
  static Namespaces& current();
  static Namespaces* replace(Namespaces* namespaces);

  // Moves this thread into /run/netns/`name`; -1 with errno when that cannot be. A name that is not a plain
  // file name is EINVAL.
  virtual int enter(const NamespaceName& name);
  // Moves this thread back into the namespace that it was in at its first enter.
  virtual int leave();
  // The kernel's index of a device in the namespace that this thread is in; 0 with errno when there is none.
  virtual std::uint32_t interfaceIndex(const std::string& deviceName);

 private:
  int original_ = -1;
};

}  // namespace Lanix
