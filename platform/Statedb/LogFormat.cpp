#include "Statedb/LogFormat.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <type_traits>

namespace Statedb::LogFormat {

namespace {

constexpr std::string_view kMagic = "statelog";
constexpr std::uint32_t kVersion = 1;
constexpr std::uint32_t kPolynomial = 0x82f63b78;

// Of eight bytes at a time: table k has what a byte does that k more follow.
constexpr auto kTables = [] {
  std::array<std::array<std::uint32_t, 256>, 8> tables{};
  for (std::uint32_t byte = 0; byte < 256; ++byte) {
    std::uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = crc >> 1 ^ (crc & 1 ? kPolynomial : 0);
    tables[0][byte] = crc;
  }
  for (std::size_t k = 1; k < 8; ++k) {
    for (std::size_t byte = 0; byte < 256; ++byte) {
      const std::uint32_t before = tables[k - 1][byte];
      tables[k][byte] = before >> 8 ^ tables[0][before & 0xff];
    }
  }
  return tables;
}();

template <class Number>
Number number(std::string_view bytes, std::size_t at) {
  Number value{};
  for (std::size_t i = 0; i < sizeof value; ++i)
    value = static_cast<Number>(value | Number{static_cast<unsigned char>(bytes[at + i])} << (8 * i));
  return value;
}

template <class Number>
void put(char* to, Number value) {
  for (std::size_t i = 0; i < sizeof value; ++i) to[i] = static_cast<char>(value >> (8 * i) & 0xff);
}

template <class Number>
void append(std::string& to, Number value) {
  std::array<char, sizeof value> bytes;
  put(bytes.data(), value);
  to.append(bytes.data(), bytes.size());
}

void appendVarint(std::string& to, std::size_t value) {
  for (; value >= 0x80; value >>= 7) to += static_cast<char>(value | 0x80);
  to += static_cast<char>(value);
}

bool takeVarint(std::string_view& from, std::size_t& value) {
  value = 0;
  for (unsigned shift = 0; shift < 28 && !from.empty(); shift += 7) {
    const auto byte = static_cast<unsigned char>(from.front());
    from.remove_prefix(1);
    value |= std::size_t{byte & 0x7fu} << shift;
    if (byte < 0x80) return true;
  }
  return false;
}

std::uint32_t headCrc(std::uint64_t id, std::uint64_t place, std::uint32_t size) {
  std::array<char, 20> bytes;
  put(bytes.data(), id);
  put(bytes.data() + 8, place);
  put(bytes.data() + 16, size);
  return crc32c(0, {bytes.data(), bytes.size()});
}

}  // namespace

std::uint32_t crc32c(std::uint32_t before, std::string_view bytes) {
  std::uint32_t crc = ~before;
  for (; bytes.size() >= 8; bytes.remove_prefix(8)) {
    const std::uint32_t low = crc ^ number<std::uint32_t>(bytes, 0);
    const auto high = number<std::uint32_t>(bytes, 4);
    crc = kTables[7][low & 0xff] ^ kTables[6][low >> 8 & 0xff] ^ kTables[5][low >> 16 & 0xff] ^
          kTables[4][low >> 24] ^ kTables[3][high & 0xff] ^ kTables[2][high >> 8 & 0xff] ^
          kTables[1][high >> 16 & 0xff] ^ kTables[0][high >> 24];
  }
  for (const char byte : bytes) crc = crc >> 8 ^ kTables[0][(crc ^ static_cast<unsigned char>(byte)) & 0xff];
  return ~crc;
}

std::string header(std::string_view path, std::uint64_t id) {
  std::string bytes(kMagic);
  append(bytes, kVersion);
  append(bytes, static_cast<std::uint32_t>(path.size()));
  append(bytes, id);
  bytes += path;
  append(bytes, crc32c(0, bytes));
  return bytes;
}

std::optional<std::size_t> headerSize(std::string_view start) {
  if (start.size() < kHeaderStart || !start.starts_with(kMagic)) return std::nullopt;
  const auto path = number<std::uint32_t>(start, 12);
  if (number<std::uint32_t>(start, 8) != kVersion || path > kMaxPath) return std::nullopt;
  return kHeaderStart + path + 4;
}

std::optional<std::uint64_t> headerId(std::string_view given, std::string_view path) {
  if (headerSize(given) != given.size()) return std::nullopt;
  const auto id = number<std::uint64_t>(given, 16);
  if (given != header(path, id)) return std::nullopt;
  return id;
}

BatchHead batchHead(std::uint64_t id, std::uint64_t place, std::string_view operations) {
  const auto size = static_cast<std::uint32_t>(operations.size());
  const std::uint32_t crc = headCrc(id, place, size);
  BatchHead head;
  put(head.data(), size);
  put(head.data() + 4, crc);
  put(head.data() + 8, crc32c(crc, operations));
  return head;
}

std::optional<std::size_t> batchSize(const BatchHead& head, std::uint64_t id, std::uint64_t place) {
  const std::string_view bytes(head.data(), head.size());
  const auto size = number<std::uint32_t>(bytes, 0);
  if (size == 0 || size > kMaxBatch || number<std::uint32_t>(bytes, 4) != headCrc(id, place, size))
    return std::nullopt;
  return size;
}

bool batchSound(const BatchHead& head, std::string_view operations) {
  const std::string_view bytes(head.data(), head.size());
  return crc32c(number<std::uint32_t>(bytes, 4), operations) == number<std::uint32_t>(bytes, 8);
}

void append(std::string& operations, std::string_view key, std::optional<std::string_view> value) {
  appendVarint(operations, key.size());
  appendVarint(operations, value ? value->size() + 1 : 0);
  operations += key;
  if (value) operations += *value;
}

bool take(std::string_view& operations, Journal::Operation& operation) {
  std::string_view rest = operations;
  std::size_t key = 0, value = 0;
  if (!takeVarint(rest, key) || !takeVarint(rest, value) || key > kMaxKey || value > kMaxValue + 1)
    return false;
  const std::size_t length = value == 0 ? 0 : value - 1;
  if (rest.size() < key + length) return false;
  operation.key = rest.substr(0, key);
  operation.value.reset();
  if (value != 0) operation.value = rest.substr(key, length);
  operations = rest.substr(key + length);
  return true;
}

}  // namespace Statedb::LogFormat
