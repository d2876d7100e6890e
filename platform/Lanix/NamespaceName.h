#pragma once

#include "Mox/Strep.h"

namespace Lanix {

// The name of a kernel network namespace, as under /run/netns; "" is none.
using NamespaceName = Mox::String;

// The namespace that the process was started in.
inline constexpr const char* kDefaultNamespace = "default";

}  // namespace Lanix
