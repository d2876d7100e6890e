#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <optional>
#include <span>
#include <type_traits>

namespace Lanix {

// What may be copied from and to a buffer as it is.
template <class T>
concept WireType = std::is_trivially_copyable_v<T> && alignof(T) == 1 && !std::is_pointer_v<T>;

// Reads a buffer of unknown content from front to back. Nothing is read beyond its end; a read that does not
// fit takes nothing.
class ByteCursor {
 public:
  explicit ByteCursor(std::span<const std::byte> bytes) : bytes_(bytes) {}

  // Bytes that are left, bytes that were taken.
  std::size_t remaining() const { return bytes_.size() - at_; }
  std::size_t position() const { return at_; }
  std::span<const std::byte> rest() const { return bytes_.subspan(at_); }

  template <WireType T>
  std::optional<T> read() {
    auto value = peek<T>();
    if (value) at_ += sizeof(T);
    return value;
  }
  // Without taking it.
  template <WireType T>
  std::optional<T> peek() const {
    if (sizeof(T) > remaining()) return std::nullopt;
    T value;
    std::memcpy(&value, bytes_.data() + at_, sizeof(T));
    return value;
  }
  std::optional<std::span<const std::byte>> take(std::size_t size) {
    if (size > remaining()) return std::nullopt;
    const auto taken = bytes_.subspan(at_, size);
    at_ += size;
    return taken;
  }
  bool skip(std::size_t size) { return take(size).has_value(); }

 private:
  std::span<const std::byte> bytes_;
  std::size_t at_ = 0;
};

// Fills a buffer from front to back. A write that does not fit writes nothing, and nothing is written after
// it: check `good` at the end.
class ByteWriter {
 public:
  explicit ByteWriter(std::span<std::byte> bytes) : bytes_(bytes) {}

  template <WireType T>
  ByteWriter& write(const T& value) {
    return append(&value, sizeof(T));
  }
  ByteWriter& write(std::span<const std::byte> bytes) { return append(bytes.data(), bytes.size()); }

  bool good() const { return good_; }
  std::size_t position() const { return at_; }
  std::size_t remaining() const { return bytes_.size() - at_; }

 private:
  ByteWriter& append(const void* from, std::size_t size) {
    good_ = good_ && size <= remaining();
    if (good_ && size != 0) {
      std::memcpy(bytes_.data() + at_, from, size);
      at_ += size;
    }
    return *this;
  }

  std::span<std::byte> bytes_;
  std::size_t at_ = 0;
  bool good_ = true;
};

}  // namespace Lanix
