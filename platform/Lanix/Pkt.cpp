#include "Lanix/Pkt.h"

#include <algorithm>
#include <cstring>

namespace Lanix {

std::string hex(std::span<const std::byte> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const std::byte byte : bytes) {
    text += kDigits[std::to_integer<unsigned>(byte) >> 4];
    text += kDigits[std::to_integer<unsigned>(byte) & 15];
  }
  return text;
}

Pkt::Pkt(std::size_t size) : large_(size > kPooled ? new std::byte[size] : nullptr), size_(size) {}

PktManager& PktManager::global() {
  static PktManager manager;
  return manager;
}

Mox::Ptr<Pkt> PktManager::newUnsetPkt(std::size_t size) {
  if (size > Pkt::kLargest) return {};
  return Mox::Ptr<Pkt>::adopt(new Pkt(size));
}

Mox::Ptr<Pkt> PktManager::newPktWithHeadData(std::size_t size) {
  Mox::Ptr<Pkt> pkt = newUnsetPkt(size);
  if (pkt) std::fill_n(pkt->data(), size, std::byte{0});
  return pkt;
}

Mox::Ptr<const Pkt> PktManager::newPktWithSharedHeadData(std::span<const std::byte> bytes) {
  Mox::Ptr<Pkt> pkt = newUnsetPkt(bytes.size());
  if (pkt && !bytes.empty()) std::memcpy(pkt->data(), bytes.data(), bytes.size());
  return pkt;
}

}  // namespace Lanix
