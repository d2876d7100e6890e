#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "Mox/Pooled.h"
#include "Mox/Ptr.h"

namespace Lanix {

class PktManager;

// Two digits a byte, for traces.
std::string hex(std::span<const std::byte> bytes);

// A packet buffer, made by a PktManager. It belongs to one thread. Up to 2 MiB wait for later packets.
class Pkt final : public Mox::Referenced, public Mox::Pooled<Pkt, 1024> {
 public:
  // Buffers up to this size lie in the packet itself, whose memory is pooled.
  static constexpr std::size_t kPooled = 2048;
  static constexpr std::size_t kLargest = 65536;

  std::span<std::byte> headData() { return {data(), size_}; }
  std::span<const std::byte> headData() const { return {const_cast<Pkt*>(this)->data(), size_}; }
  std::size_t size() const { return size_; }
  // Cuts the packet's end off; a larger size than it has changes nothing.
  void sizeIs(std::size_t size) {
    if (size < size_) size_ = size;
  }

  std::string toStrep() const { return hex(headData()); }

 private:
  friend class PktManager;
  explicit Pkt(std::size_t size);
  ~Pkt() override = default;

  std::byte* data() { return large_ ? large_.get() : pooled_.data(); }

  std::unique_ptr<std::byte[]> large_;
  std::size_t size_;
  std::array<std::byte, kPooled> pooled_;  // left as it is: what is used of it is written first
};

// Makes packets. Those that are dropped leave their memory to the next ones, so that in a steady state
// nothing is allocated for packets up to Pkt::kPooled bytes.
class PktManager {
 public:
  static PktManager& global();

  // A packet of zeros; null when `size` is above Pkt::kLargest.
  Mox::Ptr<Pkt> newPktWithHeadData(std::size_t size);
  // A copy of `bytes` that nobody changes any more; null when they are more than Pkt::kLargest.
  Mox::Ptr<const Pkt> newPktWithSharedHeadData(std::span<const std::byte> bytes);

 private:
  friend class EthDevPam;
  PktManager() = default;
  // A packet of unknown content, for whoever overwrites all that it keeps of it.
  Mox::Ptr<Pkt> newUnsetPkt(std::size_t size);
};

}  // namespace Lanix
