#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Statedb/Store.h"

// The file of one path in a LogStore. Numbers are little-endian.
//
//   header   8 bytes "statelog"
//            u32 version, 1
//            u32 length of the path
//            u64 id, random, of this file
//            the path
//            u32 CRC-32C of all before
//   batches, each of them applied as a whole or not at all
//            u32 length of the operations
//            u32 CRC-32C of id, place of the batch in the file, and that length
//            u32 CRC-32C of the operations, continued from the one before
//            operations, each
//              varint length of the key
//              varint 0: the key and all below it is erased; else length of the value and 1
//              the key, the value
//
// A varint has seven bits a byte, the lowest first; all bytes but its last have the top bit set.
//
// A batch that another file, or another place of the same, had is not taken for one of this place. A file that
// ends inside a batch whose length is known to be sound, or inside the first three words of one, was cut by
// the end of its writer; any other disagreement is damage.

namespace Statedb::LogFormat {

constexpr std::size_t kMaxKey = 4096;
constexpr std::size_t kMaxValue = std::size_t{16} << 20;
// Of the operations of a batch: what is written is closed behind kBatch, and one operation may come then.
constexpr std::size_t kBatch = std::size_t{256} << 10;
constexpr std::size_t kMaxBatch = kBatch + kMaxValue + kMaxKey + 16;
constexpr std::size_t kMaxPath = 4096;
constexpr std::size_t kHeaderStart = 24;  // up to the path
constexpr std::size_t kBatchHead = 12;

// Castagnoli's polynomial, reflected (RFC 3720, appendix B.4), of `crc`'s bytes and these.
std::uint32_t crc32c(std::uint32_t crc, std::string_view bytes);

std::string header(std::string_view path, std::uint64_t id);
// From the first kHeaderStart bytes: how long the header is; none when it is no header.
std::optional<std::size_t> headerSize(std::string_view start);
// From the whole header: the file's id; none when it is not one of this path.
std::optional<std::uint64_t> headerId(std::string_view header, std::string_view path);

using BatchHead = std::array<char, kBatchHead>;
BatchHead batchHead(std::uint64_t id, std::uint64_t place, std::string_view operations);
// The length of the operations; none when the head is not sound.
std::optional<std::size_t> batchSize(const BatchHead& head, std::uint64_t id, std::uint64_t place);
bool batchSound(const BatchHead& head, std::string_view operations);

void append(std::string& operations, std::string_view key, std::optional<std::string_view> value);
// Takes the first operation off; false, and nothing taken, when it is not sound.
bool take(std::string_view& operations, Journal::Operation& operation);

}  // namespace Statedb::LogFormat
