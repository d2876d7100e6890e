#include "Mox/Assert.h"

#include <cstdio>
#include <cstdlib>

namespace Mox {

namespace {
AssertionHook hook_ = nullptr;
}

void assertionHookIs(AssertionHook hook) { hook_ = hook; }

void assertionFailed(const char* source, int line, const char* text) noexcept {
  char message[512];
  std::snprintf(message, sizeof message, "%s:%d: assertion failed: %s", source, line, text);
  std::fprintf(stderr, "%s\n", message);
  if (AssertionHook hook = hook_) {
    hook_ = nullptr;  // an assertion inside the hook must not come back here
    hook(message);
  }
  std::abort();
}

}  // namespace Mox
