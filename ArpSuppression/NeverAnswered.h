#pragma once

#include <array>
#include <cstdint>

#include "Mox/Notifiee.h"
#include "Suppression/NeverAnswer.h"

namespace ArpSuppression {

// Whether hosts are never answered for an address. Each look-up costs one search of the networks for each
// prefix length that is in use, and nothing is kept for it but how many networks have each length.
class NeverAnswered {
 public:
  // Null: there is no such address.
  explicit NeverAnswered(Mox::Ptr<const NeverAnswer> neverAnswer);

  bool has(const Lanix::IpGenAddr& address) const;

 private:
  Mox::Notifiee<const NeverAnswer> neverAnswer_;
  std::array<std::uint32_t, Ip4Network::kMaxLength + 1> networks_{};  // by prefix length
};

}  // namespace ArpSuppression
