#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

// The trace file, as writer and reader share it. Numbers are in the machine's byte order (`order` tells).
//
//   offset                 size              what
//   0                      4096              FileHeader, the rest zero
//   4096                   descriptorBytes   descriptors of call sites, appended, never changed
//   4096+descriptorBytes   ringBytes[0]      the ring of level 0, a whole number of blocks
//   ...                    ringBytes[1..5]   those of the levels 1 to 5
//
// A descriptor, at a multiple of 8, its id being its offset in the area divided by 8, plus 1:
//
//   DescriptorHeader | kinds[arguments] | source | format | zeros to the next multiple of 8
//
// A block begins with BlockHeader; records follow each other at multiples of 8 until the first whose `size`
// is zero, or the end of the block. A record never straddles two blocks. The blocks of a ring are used in
// turn, the number of a block being larger by one than that of the block before it; a block is emptied as a
// whole when it is used again, so every block that survives a crash starts with a record.
//
//   RecordHeader | arguments in the order and with the kinds of the descriptor
//
// A record is complete when its `size` is not zero: the writer stores that last, after it has zeroed the
// `size` that follows. Sequence numbers order the records of all levels.
//
// Times advance with CLOCK_MONOTONIC, whatever becomes of the wall clock meanwhile: they are its reading plus
// `wallOffset`, what the wall clock was ahead of it when the writer began. A reader in the same boot puts
// right what a clock that was set since has made of them.

namespace Tracelet {

inline constexpr int kLevels = 6;
inline constexpr std::uint32_t kHeaderBytes = 4096;
inline constexpr std::uint32_t kByteOrder = 0x01020304;
inline constexpr std::array<char, 8> kMagic = {'T', 'r', 'a', 'c', 'e', 'l', 't', '1'};
// Larger counts than any real ones; a file that has them is damaged.
inline constexpr std::uint64_t kCountLimit = std::uint64_t{1} << 62;

// What an argument is, and how many bytes it takes in a record.
enum class Kind : std::uint8_t {
  signedNumber = 'i',    // 8
  unsignedNumber = 'u',  // 8
  boolean = 'b',         // 8
  character = 'c',       // 8
  real = 'd',            // 8
  mac = 'm',             // 8: 6 bytes, 2 of zeros
  ip4 = '4',             // 8: 4 bytes in network order, 4 of zeros
  ip6 = '6',             // 16
  ip = 'a',              // 24: family (0, 4 or 6), 7 of zeros, 16 of address
  text = 's',            // 8 + length, to a multiple of 8: u32 length, u32 whole length, bytes
};

struct FileHeader {
  std::array<char, 8> magic;
  std::uint32_t order;
  std::uint32_t blockBytes;
  std::uint32_t descriptorBytes;
  std::uint32_t pid;  // of the last writer
  std::array<std::uint32_t, kLevels> ringBytes;
  std::uint64_t sequence;        // of the last record
  std::uint64_t dropped;         // records that found no room for their descriptor
  std::uint32_t descriptorUsed;  // bytes
  std::uint32_t padding;
  std::uint64_t wallOffset;       // nanoseconds, of the last writer
  std::uint64_t before;           // the sequence when it began: earlier records are of other writers
  std::array<char, 40> bootName;  // the boot that it ran in; zeros: not known
};
static_assert(sizeof(FileHeader) == 128);

struct DescriptorHeader {
  std::uint32_t size;  // of the whole descriptor, a multiple of 8
  std::uint32_t line;
  std::uint16_t arguments;
  std::uint16_t sourceSize;
  std::uint16_t formatSize;
  std::uint16_t padding;
};
static_assert(sizeof(DescriptorHeader) == 16);

struct BlockHeader {
  std::uint64_t number;  // from 1; 0 while it is not in use
};

struct RecordHeader {
  std::uint32_t size;        // of the whole record, a multiple of 8; 0: none yet
  std::uint32_t descriptor;  // id
  std::uint64_t sequence;    // from 1
  std::uint64_t time;        // nanoseconds since 1970, UTC, as the writer began with it
};
static_assert(sizeof(RecordHeader) == 24);

constexpr std::size_t roundUp8(std::size_t size) { return (size + 7) & ~std::size_t{7}; }

}  // namespace Tracelet
