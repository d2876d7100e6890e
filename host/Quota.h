#pragma once

#include <sys/types.h>

#include <cstddef>
#include <string>
#include <vector>

#include "Mox/Result.h"

namespace Host {

// How many of something clients may have at a time, so that no user takes it from the others, and all of them
// together not from root.
struct Quota {
  std::size_t all;
  std::size_t ofUser;       // of one who is not root
  std::size_t keptForRoot;  // of `all`

  // Whether this user may have one more beside those that these users have. A refusal reads
  // "<number> <things>[ of this user] <rest>".
  Mox::Result<> oneMore(const std::vector<uid_t>& holders, uid_t user, const char* things,
                        const char* rest) const;
};

}  // namespace Host
