#pragma once

#include <string>

#include "Lanix/NamespaceName.h"
#include "Mox/Result.h"

namespace Lanix {

// Is in a network namespace for as long as it lives, and then in the one before: sockets opened in its scope
// belong to that namespace for good. "default", and the namespace that the thread is in already, are entered
// without a switch. Failing to come back is an assertion, because everything afterwards would act in the
// wrong namespace. Guards may be nested; they belong to the thread of the event loop.
class NamespaceGuard {
 public:
  explicit NamespaceGuard(const NamespaceName& name);
  NamespaceGuard(const NamespaceGuard&) = delete;
  NamespaceGuard& operator=(const NamespaceGuard&) = delete;
  ~NamespaceGuard();

  // Whether the namespace was entered; otherwise the thread is where it was.
  const Mox::Result<>& entered() const { return entered_; }
  explicit operator bool() const { return static_cast<bool>(entered_); }
  const std::string& error() const { return entered_.error(); }

 private:
  NamespaceName before_;
  Mox::Result<> entered_;
  bool switched_ = false;
};

}  // namespace Lanix
