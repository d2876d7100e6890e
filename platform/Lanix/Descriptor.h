#pragma once

namespace Lanix {

// Moves a new descriptor that took the place of standard input, output or error (a daemon may have closed
// them) above them; close-on-exec. -1 with errno kept stays so.
int aboveStandard(int descriptor);

}  // namespace Lanix
