#pragma once

#include <array>
#include <cstdint>

#include "Mox/Notifiee.h"
#include "Suppression/NeverAnswer.h"

namespace ArpSuppression {

// Whether hosts are never answered for an address. Each look-up costs one search of the networks for each
// prefix length of its family that is in use, and nothing is kept for it but how many networks have each length.
class NeverAnswered {
 public:
  // Null: there is no such address.
  explicit NeverAnswered(Mox::Ptr<const NeverAnswer> neverAnswer);

  bool has(const Lanix::IpGenAddr& address) const;

 private:
  Mox::Notifiee<const NeverAnswer> neverAnswer_;
  using ByLength = std::array<std::uint32_t, IpNetwork::kMaxLength + 1>;
  std::array<ByLength, 2> networks_{};  // of IPv4, of IPv6
};

}  // namespace ArpSuppression
