#pragma once

#include <string>

#include "Lanix/NamespaceName.h"

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

  // False when the namespace could not be entered: the thread is where it was, and `error` says why.
  explicit operator bool() const { return error_.empty(); }
  const std::string& error() const { return error_; }

 private:
  NamespaceName before_;
  std::string error_;
  bool switched_ = false;
};

}  // namespace Lanix
