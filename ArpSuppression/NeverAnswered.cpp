#include "ArpSuppression/NeverAnswered.h"

#include <utility>

namespace ArpSuppression {

NeverAnswered::NeverAnswered(Mox::Ptr<const NeverAnswer> neverAnswer) : neverAnswer_(std::move(neverAnswer)) {
  if (!neverAnswer_) return;
  neverAnswer_.on(NeverAnswer::prefixChanged, [this](const Ip4Network& network) {
    neverAnswer_->prefixHas(network) ? ++networks_[network.length()] : --networks_[network.length()];
  });
  for (const auto& [network, in] : neverAnswer_->prefixCollection()) ++networks_[network.length()];
}

bool NeverAnswered::has(const Lanix::IpGenAddr& address) const {
  if (!neverAnswer_ || neverAnswer_->prefixs() == 0 || !address.isIpv4()) return false;
  for (unsigned length = 0; length < networks_.size(); ++length) {
    if (networks_[length] != 0 && neverAnswer_->prefixHas(Ip4Network(address.ipv4(), length))) return true;
  }
  return false;
}

}  // namespace ArpSuppression
