#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "Mox/Result.h"
#include "Tracelet/Record.h"
#include "Tracelet/RingFile.h"

namespace Tracelet {

// Sizes of a trace file, fixed when it is made.
struct Geometry {
  std::uint32_t blockBytes = 0;
  std::uint32_t descriptorBytes = 0;
  std::array<std::uint32_t, kLevels> ringBytes{};

  // Rounded and bounded to what a file can have.
  static Geometry of(const std::array<std::uint32_t, kLevels>& levelKiB, std::uint32_t maxRecordBytes);
  std::size_t fileBytes() const;
  // Offset of a level's ring in the file.
  std::size_t ringAt(int level) const;
  bool operator==(const Geometry&) const = default;
};

// The writing end of one ring set, in a mapping that it owns. It keeps its positions in the process and never
// reads them back from the mapping.
class Ring {
 public:
  // Maps the file from its start, or memory of no file with descriptor -1, which it takes over. Goes on after
  // what the file holds, if `goOn`; starts it empty otherwise. `good()` tells whether the mapping was made.
  Ring(int descriptor, const Geometry& geometry, std::uint32_t maxRecordBytes, bool goOn, bool lockMemory);
  Ring(const Ring&) = delete;
  Ring& operator=(const Ring&) = delete;
  ~Ring();

  bool good() const { return mapping_ != nullptr; }
  std::uint32_t maxRecordBytes() const { return maxRecordBytes_; }
  std::span<const std::byte> bytes() const { return {mapping_, mappingBytes_}; }

  OpenRecord open(CallSite& site, const Kind* kinds, std::uint16_t arguments, std::uint32_t size);
  void close(const OpenRecord& record);

 private:
  struct Level {
    std::byte* ring;
    std::uint32_t blocks;
    std::byte* block;      // the current one
    std::uint64_t number;  // of the current block
    std::uint32_t at;      // offset of the next record in the block
  };

  void goOn();
  void nextBlock(Level& level);
  // 0 when the area is full.
  std::uint32_t describe(const CallSite& site, const Kind* kinds, std::uint16_t arguments);

  int descriptor_;
  Geometry geometry_;
  std::uint32_t maxRecordBytes_;
  std::uint32_t id_;  // tells a call site whether its descriptor is one of this ring
  std::uint64_t wallOffset_;
  std::byte* mapping_ = nullptr;
  std::size_t mappingBytes_ = 0;
  std::array<Level, kLevels> levels_{};
  std::uint32_t descriptorUsed_ = 0;
  std::uint64_t sequence_ = 0;
  std::uint64_t dropped_ = 0;
};

// Good if a file of `fileBytes` bytes that begins like this is a trace file.
Mox::Result<> checkHeader(const FileHeader& header, std::size_t fileBytes);
Geometry geometryOf(const FileHeader& header);

// How far the wall clock is ahead of CLOCK_MONOTONIC now, in nanoseconds (modulo 2^64).
std::uint64_t wallOffset();
// The name of the machine's present boot; zeros when the system does not tell.
std::array<char, 40> bootName();

// The ring of the process; made in memory at first use.
Ring& currentRing();

}  // namespace Tracelet
