#pragma once

#include <array>
#include <cstddef>
#include <memory>
#include <span>
#include <string>

#include "Mox/Ptr.h"

namespace Lanix {

class PktManager;

// Two digits a byte, for traces.
std::string hex(std::span<const std::byte> bytes);

// A packet buffer, made by a PktManager. It belongs to one thread.
class Pkt final : public Mox::Referenced {
 public:
  // Buffers up to this size come from the pool.
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

  static void* operator new(std::size_t size);
  static void operator delete(void* memory);

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

  // Packets' worth of memory that wait for their next use.
  std::size_t pooled() const;

 private:
  friend class EthDevPam;
  PktManager() = default;
  // A packet of unknown content, for whoever overwrites all that it keeps of it.
  Mox::Ptr<Pkt> newUnsetPkt(std::size_t size);
};

}  // namespace Lanix
