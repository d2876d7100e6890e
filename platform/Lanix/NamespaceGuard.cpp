#include "Lanix/NamespaceGuard.h"

#include <cerrno>
#include <cstring>

#include "Lanix/Namespaces.h"
#include "Mox/Assert.h"

namespace Lanix {

namespace {

// Where the innermost guard is.
NamespaceName& inside() {
  static NamespaceName inside = kDefaultNamespace;
  return inside;
}

int switchTo(const NamespaceName& name) {
  Namespaces& namespaces = Namespaces::current();
  return name == kDefaultNamespace ? namespaces.leave() : namespaces.enter(name);
}

}  // namespace

NamespaceGuard::NamespaceGuard(const NamespaceName& name) : before_(inside()) {
  if (name == before_) return;
  if (switchTo(name) != 0) {
    const int error = errno;
    entered_ =
        Mox::Failure{"network namespace \"" + name + "\" cannot be entered: " + std::strerror(error), error};
    return;
  }
  inside() = name;
  switched_ = true;
}

NamespaceGuard::~NamespaceGuard() {
  if (!switched_) return;
  const bool back = switchTo(before_) == 0;
  MOX_ASSERT("Lanix/NamespaceGuard", "back in the network namespace before", back);
  inside() = before_;
}

}  // namespace Lanix
