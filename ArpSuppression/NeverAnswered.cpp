#include "ArpSuppression/NeverAnswered.h"

#include <utility>

namespace ArpSuppression {

NeverAnswered::NeverAnswered(Mox::Ptr<const NeverAnswer> neverAnswer) : neverAnswer_(std::move(neverAnswer)) {
  if (!neverAnswer_) return;
  const auto networks = [this](const IpNetwork& network) -> std::uint32_t& {
    return networks_[network.address().isIpv6()][network.length()];
  };
  neverAnswer_.on(NeverAnswer::prefixChanged, [this, networks](const IpNetwork& network) {
    neverAnswer_->prefixHas(network) ? ++networks(network) : --networks(network);
  });
  for (const auto& [network, in] : neverAnswer_->prefixCollection()) ++networks(network);
}

bool NeverAnswered::has(const Lanix::IpGenAddr& address) const {
  if (!neverAnswer_ || neverAnswer_->prefixs() == 0 || !address) return false;
  const ByLength& networks = networks_[address.isIpv6()];
  for (unsigned length = 0; length < networks.size(); ++length) {
    if (networks[length] != 0 && neverAnswer_->prefixHas(IpNetwork(address, length))) return true;
  }
  return false;
}

}  // namespace ArpSuppression
