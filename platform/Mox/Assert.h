#pragma once

// The first tier of error: a broken invariant ends the process. Active in every build.
//
// MOX_ASSERT(source, text, condition) writes "<source>:<line>: assertion failed: <text>" to stderr and to the
// hook (the trace ring installs one), then aborts. `text` is the expression as operators and tests know it;
// it is given apart from the condition so that formatting or renaming a local variable does not change what
// they see. `source` is a constant of the component ("ArpSuppression/ArpSuppressionAgent"), not necessarily
// the file.

namespace Mox {

[[noreturn]] void assertionFailed(const char* source, int line, const char* text) noexcept;

// Called with the finished message before the process aborts; must neither throw nor block. Null removes it.
using AssertionHook = void (*)(const char* message);
void assertionHookIs(AssertionHook hook);

}  // namespace Mox

#define MOX_ASSERT(source, text, ...)                 \
  do {                                                \
    if (!(__VA_ARGS__)) [[unlikely]]                  \
      ::Mox::assertionFailed(source, __LINE__, text); \
  } while (false)
