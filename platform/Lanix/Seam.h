#pragma once

#include <utility>

namespace Lanix {

// Puts a fake in the place of a kernel surface for as long as it lives; nested ones end in reverse order.
// Surface is a class with `static Surface* replace(Surface*)`.
template <class Surface>
class Replaced {
 public:
  explicit Replaced(Surface& fake) : before_(Surface::replace(&fake)) {}
  Replaced(const Replaced&) = delete;
  Replaced& operator=(const Replaced&) = delete;
  ~Replaced() { Surface::replace(before_); }

 private:
  Surface* before_;
};

}  // namespace Lanix
