#include "Tracelet/Ring.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <cstring>
#include <ctime>
#include <new>

namespace Tracelet {

namespace {

constexpr std::uint32_t kLeastBlock = 1024;
constexpr std::uint32_t kLeastBlocks = 4;
constexpr std::uint32_t kMostRingBytes = 64u << 20;
constexpr std::uint32_t kMostDescriptorBytes = 1u << 20;

template <class T>
void storeLast(std::byte* at, T value) {
  std::atomic_ref<T>(*std::launder(static_cast<T*>(static_cast<void*>(at))))
      .store(value, std::memory_order_release);
}

std::uint64_t nanoseconds(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000'000u + static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace

std::uint64_t wallOffset() { return nanoseconds(CLOCK_REALTIME) - nanoseconds(CLOCK_MONOTONIC); }

std::array<char, 40> bootName() {
  std::array<char, 40> name{};
  const int file = ::open("/proc/sys/kernel/random/boot_id", O_RDONLY | O_CLOEXEC);
  if (file < 0) return name;
  if (::read(file, name.data(), name.size()) <= 0) name = {};
  ::close(file);
  return name;
}

Geometry Geometry::of(const std::array<std::uint32_t, kLevels>& levelKiB, std::uint32_t maxRecordBytes) {
  Geometry geometry;
  geometry.blockBytes = std::max(kLeastBlock, std::bit_ceil(std::min(maxRecordBytes, 4096u) * 2));
  geometry.descriptorBytes = 64 << 10;
  for (int level = 0; level < kLevels; ++level) {
    const std::uint32_t wanted = std::min(levelKiB[static_cast<std::size_t>(level)], kMostRingBytes >> 10)
                                 << 10;
    const std::uint32_t blocks = std::max(wanted / geometry.blockBytes, kLeastBlocks);
    geometry.ringBytes[static_cast<std::size_t>(level)] = blocks * geometry.blockBytes;
  }
  return geometry;
}

std::size_t Geometry::fileBytes() const { return ringAt(kLevels); }

std::size_t Geometry::ringAt(int level) const {
  std::size_t at = std::size_t{kHeaderBytes} + descriptorBytes;
  for (int i = 0; i < level; ++i) at += ringBytes[static_cast<std::size_t>(i)];
  return at;
}

Mox::Result<> checkHeader(const FileHeader& header, std::size_t fileBytes) {
  if (header.magic != kMagic) return Mox::Failure{"it does not begin like a trace file"};
  if (header.order != kByteOrder) return Mox::Failure{"it was written on a machine of the other byte order"};
  if (header.blockBytes < kLeastBlock || header.blockBytes > (1u << 16) || header.blockBytes % 8 != 0) {
    return Mox::Failure{"its block size " + std::to_string(header.blockBytes) +
                        " is not one of a trace file"};
  }
  if (header.descriptorBytes > kMostDescriptorBytes || header.descriptorBytes % 8 != 0 ||
      header.descriptorUsed > header.descriptorBytes || header.descriptorUsed % 8 != 0) {
    return Mox::Failure{"its descriptor area is out of bounds"};
  }
  for (const std::uint32_t bytes : header.ringBytes) {
    if (bytes == 0 || bytes > kMostRingBytes || bytes % header.blockBytes != 0) {
      return Mox::Failure{"a ring of " + std::to_string(bytes) + " bytes is not one of a trace file"};
    }
  }
  if (header.sequence > kCountLimit) return Mox::Failure{"its record count is impossible"};
  const std::size_t wanted = geometryOf(header).fileBytes();
  if (fileBytes < wanted) {
    return Mox::Failure{"it has " + std::to_string(fileBytes) + " bytes of " + std::to_string(wanted)};
  }
  return {};
}

Geometry geometryOf(const FileHeader& header) {
  return {header.blockBytes, header.descriptorBytes, header.ringBytes};
}

Ring::Ring(int descriptor, const Geometry& geometry, std::uint32_t maxRecordBytes, bool goOn, bool lockMemory)
    : descriptor_(descriptor),
      geometry_(geometry),
      maxRecordBytes_(maxRecordBytes),
      wallOffset_(Tracelet::wallOffset()) {
  static std::uint32_t rings = 0;
  id_ = ++rings;
  mappingBytes_ = geometry.fileBytes();
  const int flags = descriptor < 0 ? MAP_PRIVATE | MAP_ANONYMOUS : MAP_SHARED;
  void* mapping = mmap(nullptr, mappingBytes_, PROT_READ | PROT_WRITE, flags, descriptor, 0);
  if (mapping == MAP_FAILED) return;
  mapping_ = static_cast<std::byte*>(mapping);
  if (lockMemory) mlock(mapping_, mappingBytes_);  // without the right to: no worse than not asked for
  for (int i = 0; i < kLevels; ++i) {
    const auto index = static_cast<std::size_t>(i);
    levels_[index] = {mapping_ + geometry_.ringAt(i), geometry_.ringBytes[index] / geometry_.blockBytes,
                      nullptr, 0, 0};
  }
  if (goOn) {
    this->goOn();
  } else {
    FileHeader header{};
    header.magic = kMagic;
    header.order = kByteOrder;
    header.blockBytes = geometry.blockBytes;
    header.descriptorBytes = geometry.descriptorBytes;
    header.ringBytes = geometry.ringBytes;
    std::memcpy(mapping_, &header, sizeof header);
  }
  const auto pid = static_cast<std::uint32_t>(getpid());
  const auto boot = bootName();
  std::memcpy(mapping_ + offsetof(FileHeader, pid), &pid, sizeof pid);
  std::memcpy(mapping_ + offsetof(FileHeader, wallOffset), &wallOffset_, sizeof wallOffset_);
  std::memcpy(mapping_ + offsetof(FileHeader, before), &sequence_, sizeof sequence_);
  std::memcpy(mapping_ + offsetof(FileHeader, bootName), boot.data(), sizeof boot);
  for (Level& level : levels_) nextBlock(level);
}

Ring::~Ring() {
  if (mapping_) munmap(mapping_, mappingBytes_);
  if (descriptor_ >= 0) ::close(descriptor_);
}

// The header has been checked; of the rest only the block numbers count.
void Ring::goOn() {
  FileHeader header;
  std::memcpy(&header, mapping_, sizeof header);
  sequence_ = header.sequence;
  descriptorUsed_ = header.descriptorUsed;
  dropped_ = header.dropped;
  for (Level& level : levels_) {
    for (std::uint32_t i = 0; i < level.blocks; ++i) {
      BlockHeader block;
      std::memcpy(&block, level.ring + std::size_t{i} * geometry_.blockBytes, sizeof block);
      const bool inPlace = block.number != 0 && (block.number - 1) % level.blocks == i;
      if (inPlace && block.number < kCountLimit) level.number = std::max(level.number, block.number);
    }
  }
}

void Ring::nextBlock(Level& level) {
  ++level.number;
  level.block = level.ring + (level.number - 1) % level.blocks * geometry_.blockBytes;
  level.at = sizeof(BlockHeader);
  storeLast(level.block, std::uint64_t{0});
  std::atomic_thread_fence(std::memory_order_seq_cst);  // a reader must see 0 before any of the block changes
  storeLast(level.block + level.at, std::uint32_t{0});
  storeLast(level.block, level.number);
}

std::uint32_t Ring::describe(const CallSite& site, const Kind* kinds, std::uint16_t arguments) {
  DescriptorHeader header{};
  header.line = site.line;
  header.arguments = arguments;
  header.sourceSize = static_cast<std::uint16_t>(std::min<std::size_t>(site.source.size(), 256));
  header.formatSize = static_cast<std::uint16_t>(std::min<std::size_t>(site.format.size(), 2048));
  const std::size_t size = roundUp8(sizeof header + arguments + header.sourceSize + header.formatSize);
  header.size = static_cast<std::uint32_t>(size);
  std::string bytes(size, '\0');
  char* at = bytes.data();
  std::memcpy(at, &header, sizeof header);
  at += sizeof header;
  if (arguments != 0) std::memcpy(at, kinds, arguments);
  at += arguments;
  std::memcpy(at, site.source.data(), header.sourceSize);
  std::memcpy(at + header.sourceSize, site.format.data(), header.formatSize);

  std::byte* const area = mapping_ + kHeaderBytes;
  for (std::size_t offset = 0; offset + sizeof header <= descriptorUsed_;) {
    DescriptorHeader other;
    std::memcpy(&other, area + offset, sizeof other);
    if (other.size < sizeof other || other.size % 8 != 0 || other.size > descriptorUsed_ - offset) break;
    if (other.size == size && std::memcmp(area + offset, bytes.data(), size) == 0) {
      return static_cast<std::uint32_t>(offset / 8 + 1);
    }
    offset += other.size;
  }
  if (size > geometry_.descriptorBytes - descriptorUsed_) return 0;
  const std::uint32_t offset = descriptorUsed_;
  std::memcpy(area + offset, bytes.data(), size);
  descriptorUsed_ += header.size;
  storeLast(mapping_ + offsetof(FileHeader, descriptorUsed), descriptorUsed_);
  return offset / 8 + 1;
}

OpenRecord Ring::open(CallSite& site, const Kind* kinds, std::uint16_t arguments, std::uint32_t size) {
  if (site.ring != id_) [[unlikely]] {
    site.descriptor = describe(site, kinds, arguments);
    site.ring = id_;
  }
  if (site.descriptor == 0) [[unlikely]] {
    ++dropped_;
    std::memcpy(mapping_ + offsetof(FileHeader, dropped), &dropped_, sizeof dropped_);
    return {};
  }
  Level& level = levels_[static_cast<std::size_t>(site.level)];
  if (size > geometry_.blockBytes - level.at) [[unlikely]]
    nextBlock(level);
  std::byte* const at = level.block + level.at;
  level.at += size;
  if (level.at < geometry_.blockBytes) storeLast(at + size, std::uint32_t{0});
  const RecordHeader header{0, site.descriptor, ++sequence_, nanoseconds(CLOCK_MONOTONIC) + wallOffset_};
  std::memcpy(at, &header, sizeof header);
  return {at, size};
}

void Ring::close(const OpenRecord& record) {
  storeLast(record.at + offsetof(RecordHeader, size), record.size);
  storeLast(mapping_ + offsetof(FileHeader, sequence), sequence_);
}

}  // namespace Tracelet
