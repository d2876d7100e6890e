#pragma once

#include "Mox/Error.h"

namespace Lanix {

// A packet access that could not be enabled; the text names the device, the namespace and the reason.
struct PamError : Mox::Error {
  using Error::Error;
};

}  // namespace Lanix
