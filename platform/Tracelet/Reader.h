#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "Mox/Result.h"
#include "Tracelet/RingFile.h"

namespace Tracelet {

// Makes the text of a trace ring, oldest record first:
//
//   <UTC time> <level> <source>:<line> <text>
//
// Records of one writer keep their distances in time, also when the wall clock was set meanwhile; read in the
// boot that they were written in they have the times that the clock now gives to those moments.
//
// It may read while the writer writes and after the writer died. Nothing in the file is trusted: sizes and
// references are checked against the file, and a block, a record or a descriptor that does not hold together
// is left out. What is overwritten before it was read is lost.
class Reader {
 public:
  explicit Reader(const std::string& fileName);
  // A copy of a file's bytes.
  explicit Reader(std::span<const std::byte> bytes);
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;
  ~Reader();

  // The ring of this process as it is now, in a file or in memory.
  static Reader ofThisProcess();

  // Good for a trace file. One that is refused stays so, and has no lines.
  const Mox::Result<>& readable() const { return readable_; }

  // The process that wrote last.
  std::uint32_t pid() const { return header_.pid; }

  // The next line; nothing when there is none yet. To follow the writer, call again later.
  std::optional<std::string> next();

  // Records that the writer could not keep because the place for the texts of call sites was full.
  std::uint64_t dropped() const;

 private:
  struct Line {
    std::uint64_t sequence;
    std::string text;
  };

  // Reads `to.size()` bytes at `offset`; false when the file has not that many.
  bool read(std::size_t offset, std::span<std::byte> to) const;
  bool readHeader(FileHeader& header) const;
  std::size_t fileBytes() const;
  // Takes the clocks into account. Once the header is sound.
  void compareClocks();
  void fill();
  void readBlock(int level, std::uint32_t index, std::size_t offset);
  std::optional<std::string> lineOf(int level, const RecordHeader& record,
                                    std::span<const std::byte> args) const;

  int descriptor_ = -1;
  std::vector<std::byte> bytes_;
  std::uint64_t clockSet_ = 0;  // by how much the clock was put forward since the writer began
  Mox::Result<> readable_;
  FileHeader header_{};
  std::vector<std::byte> descriptors_;
  std::vector<std::byte> block_;
  std::uint64_t last_ = 0;   // records up to this sequence have been read
  std::uint64_t until_ = 0;  // what the look under way reads to
  std::deque<Line> lines_;
};

}  // namespace Tracelet
