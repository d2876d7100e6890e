#include "host/Quota.h"

#include <algorithm>

namespace Host {

Mox::Result<> Quota::oneMore(const std::vector<uid_t>& holders, uid_t user, const char* things,
                             const char* rest) const {
  constexpr uid_t kRoot = 0;
  const auto had = [&](uid_t by) { return static_cast<std::size_t>(std::ranges::count(holders, by)); };
  const auto refused = [&](std::size_t number, const char* whose) {
    return Mox::Failure{std::to_string(number) + " " + things + whose + " " + rest};
  };
  if (holders.size() >= all) return refused(all, "");
  if (user == kRoot) return {};
  if (had(user) >= ofUser) return refused(ofUser, " of this user");
  if (holders.size() - had(kRoot) >= all - keptForRoot) return refused(all - keptForRoot, "");
  return {};
}

}  // namespace Host
