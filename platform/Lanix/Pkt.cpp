#include "Lanix/Pkt.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "Mox/Assert.h"

namespace Lanix {

namespace {

// Memory that is kept for later packets: 2 MiB at most.
constexpr std::size_t kMostPooled = 1024;

// Never destroyed: packets may outlive every static object.
std::vector<void*>& pool() {
  static auto* pool = [] {
    auto* made = new std::vector<void*>;
    made->reserve(kMostPooled);
    return made;
  }();
  return *pool;
}

}  // namespace

std::string hex(std::span<const std::byte> bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const std::byte byte : bytes) {
    text += kDigits[std::to_integer<unsigned>(byte) >> 4];
    text += kDigits[std::to_integer<unsigned>(byte) & 15];
  }
  return text;
}

void* Pkt::operator new(std::size_t size) {
  MOX_ASSERT("Lanix/Pkt", "size == sizeof(Pkt)", size == sizeof(Pkt));
  if (pool().empty()) return ::operator new(size);
  void* memory = pool().back();
  pool().pop_back();
  return memory;
}

void Pkt::operator delete(void* memory) {
  if (pool().size() < kMostPooled) {
    pool().push_back(memory);
  } else {
    ::operator delete(memory);
  }
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

std::size_t PktManager::pooled() const { return pool().size(); }

}  // namespace Lanix
