#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "Tracelet/Text.h"

// What the fuzz targets share: taking a libFuzzer input apart, saying what must hold, damaging a sound file.

namespace Fuzz {

// Ends the run as a finding, with what was expected and what there was instead.
inline void check(bool holds, std::string_view expected, std::string_view found = {}) {
  if (holds) return;
  const std::string line = "expected: " + std::string(expected) + "; found: " + std::string(found) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
  std::abort();
}

// Text that people are shown: nothing in it that a terminal obeys, and UTF-8. `newlines`: it may be several lines.
inline void checkPrintable(std::string_view text, bool newlines = false) {
  const std::string printable = newlines ? Tracelet::printableLines(text) : Tracelet::printable(text);
  check(printable == text, "printable text", printable);
}

// The input from its start to its end; an end that comes too early reads as zeros.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size) : rest_(data, size) {}

  bool empty() const { return rest_.empty(); }
  // In the byte order of the machine.
  template <class Number>
  Number number() {
    Number number{};
    const std::size_t size = std::min(sizeof number, rest_.size());
    if (size != 0) std::memcpy(&number, rest_.data(), size);
    rest_ = rest_.subspan(size);
    return number;
  }
  // At most that many.
  std::span<const std::byte> bytes(std::size_t count) {
    const auto taken = std::as_bytes(rest_.first(std::min(count, rest_.size())));
    rest_ = rest_.subspan(taken.size());
    return taken;
  }
  // The same as an input of its own.
  Input part(std::size_t count) {
    const Input part(rest_.data(), std::min(count, rest_.size()));
    rest_ = rest_.subspan(part.rest_.size());
    return part;
  }
  std::span<const std::byte> rest() { return bytes(rest_.size()); }
  std::string text() {
    const auto bytes = rest();
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
  }

 private:
  std::span<const std::uint8_t> rest_;
};

// Overwrites at most `count` places: of each a u32 offset (modulo the size), a u8 width (modulo 8, plus 1)
// and as many bytes of the new value.
inline void damage(std::span<std::byte> bytes, Input& input, std::size_t count) {
  for (; count != 0 && !input.empty() && !bytes.empty(); --count) {
    const std::size_t offset = input.number<std::uint32_t>() % bytes.size();
    const auto value = input.bytes(input.number<std::uint8_t>() % 8 + 1);
    std::copy_n(value.begin(), std::min(value.size(), bytes.size() - offset),
                bytes.begin() + static_cast<std::ptrdiff_t>(offset));
  }
}

// A folder in memory that goes with the process.
class Folder {
 public:
  Folder() {
    char name[] = "/dev/shm/fuzz-XXXXXX";
    if (!mkdtemp(name)) check(false, "a folder in /dev/shm", std::strerror(errno));
    path_ = name;
  }
  Folder(const Folder&) = delete;
  Folder& operator=(const Folder&) = delete;
  ~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

inline std::vector<std::byte> contentOf(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(in), {}};
  const auto bytes = std::as_bytes(std::span(text));
  return {bytes.begin(), bytes.end()};
}
inline void contentIs(const std::string& file, std::span<const std::byte> bytes) {
  const int descriptor = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  check(write(descriptor, bytes.data(), bytes.size()) == std::ssize(bytes), file, std::strerror(errno));
  close(descriptor);
}

}  // namespace Fuzz
