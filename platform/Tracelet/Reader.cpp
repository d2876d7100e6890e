#include "Tracelet/Reader.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Tracelet/Ring.h"
#include "Tracelet/Text.h"

namespace Tracelet {

namespace {

// Takes values off the front of some bytes.
class Cursor {
 public:
  explicit Cursor(std::span<const std::byte> bytes) : rest_(bytes) {}
  // False, and nothing taken, when there are not that many.
  bool take(void* to, std::size_t size) {
    if (size > rest_.size()) return false;
    std::memcpy(to, rest_.data(), size);
    rest_ = rest_.subspan(size);
    return true;
  }
  template <class T>
  bool take(T& value) {
    return take(&value, sizeof value);
  }
  bool take(std::string& text, std::size_t size) {
    if (size > rest_.size()) return false;
    text.resize(size);
    return take(static_cast<void*>(text.data()), size);
  }

 private:
  std::span<const std::byte> rest_;
};

std::string addressText(int family, const void* address) {
  char text[INET6_ADDRSTRLEN] = {};
  inet_ntop(family, address, text, sizeof text);
  return text;
}

// Appends one argument; false when its bytes do not hold it.
bool appendArgument(std::string& to, Kind kind, Cursor& args) {
  std::uint64_t word = 0;
  std::uint8_t bytes[16] = {};
  char text[64];
  switch (kind) {
    case Kind::signedNumber:
      if (!args.take(word)) return false;
      to += std::to_string(static_cast<std::int64_t>(word));
      return true;
    case Kind::unsignedNumber:
      if (!args.take(word)) return false;
      to += std::to_string(word);
      return true;
    case Kind::boolean:
      if (!args.take(word)) return false;
      to += word != 0 ? "true" : "false";
      return true;
    case Kind::character: {
      if (!args.take(word)) return false;
      const char character = static_cast<char>(word & 0xff);
      appendPrintable(to, {&character, 1});
      return true;
    }
    case Kind::real: {
      double real = 0;
      if (!args.take(real)) return false;
      std::snprintf(text, sizeof text, "%.9g", real);
      to += text;
      return true;
    }
    case Kind::mac:
      if (!args.take(bytes, 8)) return false;
      std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", bytes[0], bytes[1], bytes[2],
                    bytes[3], bytes[4], bytes[5]);
      to += text;
      return true;
    case Kind::ip4:
      if (!args.take(bytes, 8)) return false;
      to += addressText(AF_INET, bytes);
      return true;
    case Kind::ip6:
      if (!args.take(bytes, 16)) return false;
      to += addressText(AF_INET6, bytes);
      return true;
    case Kind::ip:
      if (!args.take(word) || !args.take(bytes, 16)) return false;
      if (word == 4 || word == 6) to += addressText(word == 4 ? AF_INET : AF_INET6, bytes);
      return true;
    case Kind::text: {
      std::uint32_t sizes[2];
      std::string content;
      if (!args.take(sizes) || sizes[0] > (1u << 16) || !args.take(content, roundUp8(sizes[0]))) return false;
      appendPrintable(to, std::string_view(content).substr(0, sizes[0]));
      if (sizes[1] > sizes[0]) to += "...";
      return true;
    }
  }
  return false;
}

}  // namespace

Reader::Reader(const std::string& fileName) {
  descriptor_ = ::open(fileName.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor_ < 0) {
    const int error = errno;
    readable_ = Mox::Failure{fileName + ": " + std::strerror(error), error};
  } else if (!readHeader(header_)) {
    readable_ = Mox::Failure{fileName + ": too short for a trace file"};
  } else if (const auto sound = checkHeader(header_, fileBytes()); !sound) {
    readable_ = Mox::Failure{fileName + " cannot be read: " + sound.error()};
  } else {
    compareClocks();
  }
}

Reader::Reader(std::span<const std::byte> bytes) : bytes_(bytes.begin(), bytes.end()) {
  if (!readHeader(header_)) {
    readable_ = Mox::Failure{"too short for a trace ring"};
  } else {
    readable_ = checkHeader(header_, bytes_.size());
  }
}

Reader::~Reader() {
  if (descriptor_ >= 0) ::close(descriptor_);
}

Reader Reader::ofThisProcess() { return Reader(currentRing().bytes()); }

std::size_t Reader::fileBytes() const {
  if (descriptor_ < 0) return bytes_.size();
  struct stat status {};
  return fstat(descriptor_, &status) == 0 ? static_cast<std::size_t>(status.st_size) : 0;
}

bool Reader::read(std::size_t offset, std::span<std::byte> to) const {
  if (descriptor_ < 0) {
    if (offset > bytes_.size() || to.size() > bytes_.size() - offset) return false;
    std::copy_n(bytes_.begin() + static_cast<std::ptrdiff_t>(offset), to.size(), to.begin());
    return true;
  }
  while (!to.empty()) {
    const ssize_t got = pread(descriptor_, to.data(), to.size(), static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) return false;
    offset += static_cast<std::size_t>(got);
    to = to.subspan(static_cast<std::size_t>(got));
  }
  return true;
}

bool Reader::readHeader(FileHeader& header) const {
  return read(0, std::as_writable_bytes(std::span(&header, 1)));
}

std::optional<std::string> Reader::next() {
  if (!readable_) return std::nullopt;
  if (lines_.empty()) fill();
  if (lines_.empty()) return std::nullopt;
  std::string text = std::move(lines_.front().text);
  lines_.pop_front();
  return text;
}

void Reader::compareClocks() {
  if (header_.bootName.front() == '\0' || header_.bootName != bootName()) return;
  const std::uint64_t forward = wallOffset() - header_.wallOffset;
  // Two clocks cannot be read at one moment.
  constexpr std::uint64_t kReadingNanoseconds = 10'000'000;
  if (forward + kReadingNanoseconds > 2 * kReadingNanoseconds) clockSet_ = forward;
}

std::uint64_t Reader::dropped() const {
  FileHeader now{};
  return readHeader(now) ? now.dropped : 0;
}

// Reads everything that is newer than the last look.
void Reader::fill() {
  FileHeader now{};
  if (!readHeader(now) || !checkHeader(now, fileBytes()) || !(geometryOf(now) == geometryOf(header_))) {
    return;
  }
  if (now.sequence == last_) return;
  descriptors_.resize(now.descriptorUsed);
  if (!read(kHeaderBytes, descriptors_)) return;
  // Later records wait for the next look: those of a ring that was read already would be missed.
  until_ = now.sequence;
  const Geometry geometry = geometryOf(now);
  for (int level = 0; level < kLevels; ++level) {
    const std::uint32_t blocks = geometry.ringBytes[static_cast<std::size_t>(level)] / geometry.blockBytes;
    for (std::uint32_t i = 0; i < blocks; ++i) {
      readBlock(level, i, geometry.ringAt(level) + std::size_t{i} * geometry.blockBytes);
    }
  }
  std::sort(lines_.begin(), lines_.end(),
            [](const Line& a, const Line& b) { return a.sequence < b.sequence; });
  last_ = until_;
}

void Reader::readBlock(int level, std::uint32_t index, std::size_t offset) {
  const std::uint32_t blocks = header_.ringBytes[static_cast<std::size_t>(level)] / header_.blockBytes;
  BlockHeader before{};
  BlockHeader after{};
  const auto bytesOf = [](BlockHeader& header) { return std::as_writable_bytes(std::span(&header, 1)); };
  block_.resize(header_.blockBytes);
  // The writer may have begun to use the block again while it was read; then its number differs.
  if (!read(offset, bytesOf(before)) || !read(offset, block_) || !read(offset, bytesOf(after)) ||
      before.number != after.number || before.number == 0 || (before.number - 1) % blocks != index) {
    return;
  }
  for (std::size_t at = sizeof(BlockHeader); at + sizeof(RecordHeader) <= block_.size();) {
    RecordHeader record;
    std::memcpy(&record, block_.data() + at, sizeof record);
    if (record.size < sizeof record || record.size % 8 != 0 || record.size > block_.size() - at) return;
    if (record.sequence > last_ && record.sequence <= until_) {
      const auto args =
          std::span<const std::byte>(block_).subspan(at + sizeof record, record.size - sizeof record);
      if (auto line = lineOf(level, record, args)) lines_.push_back({record.sequence, std::move(*line)});
    }
    at += record.size;
  }
}

std::optional<std::string> Reader::lineOf(int level, const RecordHeader& record,
                                          std::span<const std::byte> args) const {
  const std::size_t at = (std::size_t{record.descriptor} - 1) * 8;
  if (record.descriptor == 0 || at >= descriptors_.size()) return std::nullopt;
  Cursor cursor(std::span<const std::byte>(descriptors_).subspan(at));
  DescriptorHeader header;
  std::string kinds;
  std::string source;
  std::string format;
  if (!cursor.take(header) || !cursor.take(kinds, header.arguments) ||
      !cursor.take(source, header.sourceSize) || !cursor.take(format, header.formatSize)) {
    return std::nullopt;
  }
  const std::uint64_t time = record.time + (record.sequence > header_.before ? clockSet_ : 0);
  std::string line = timeText(time) + ' ' + std::to_string(level) + ' ';
  appendPrintable(line, source);
  line += ':' + std::to_string(header.line) + ' ';
  Cursor values(args);
  std::string_view rest = format;
  for (const char kind : kinds) {
    const std::size_t place = rest.find("{}");
    if (place == std::string_view::npos) return std::nullopt;
    appendPrintable(line, rest.substr(0, place));
    if (!appendArgument(line, static_cast<Kind>(kind), values)) return std::nullopt;
    rest.remove_prefix(place + 2);
  }
  appendPrintable(line, rest);
  return line;
}

}  // namespace Tracelet
