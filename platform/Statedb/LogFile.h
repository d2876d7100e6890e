#pragma once

#include <cstdint>
#include <string>

#include "Mox/Result.h"
#include "Statedb/LogFormat.h"

namespace Statedb {

// An open file of Statedb/LogFormat.h. Reads and writes with pread and pwrite only: a file that others cut
// while it is used makes an error and not a signal.
class LogFile {
 public:
  // Takes the descriptor, of an empty file, and writes the header.
  static Mox::Result<LogFile> create(int descriptor, std::string_view path);
  // Takes the descriptor and reads the header.
  static Mox::Result<LogFile> open(int descriptor, std::string_view path);
  LogFile(LogFile&& other) noexcept { *this = std::move(other); }
  LogFile& operator=(LogFile&& other) noexcept;
  ~LogFile();

  // The next operation of an opened file; its views end with the next call. `damaged` has its reason in problem().
  // At the end, `torn()` bytes of a batch that is not whole are left, and the next batch takes their place.
  Journal::Step next(Journal::Operation& operation);
  const std::string& problem() const { return problem_; }
  std::uint64_t torn() const { return torn_; }

  // Adds a batch, of 1 to kMaxBatch bytes. Refused, with the file as it was before, when it cannot be written whole.
  Mox::Result<> append(std::string_view operations);

  // Of a file that has no name any more: gives back at most so many bytes, as freeing all of a long one at once
  // takes milliseconds. Returns whether there is more.
  bool giveBack(std::uint64_t most);

  // Behind the last whole batch.
  std::uint64_t size() const { return end_; }

 private:
  explicit LogFile(int descriptor) : descriptor_(descriptor) {}
  Journal::Step nextBatch();
  Journal::Step damaged(std::string problem);
  void cut();

  int descriptor_ = -1;
  std::uint64_t id_ = 0;
  std::uint64_t end_ = 0;
  bool cut_ = false;  // nothing is behind the end
  std::string batch_;
  std::string_view left_;  // of the batch
  std::string problem_;
  std::uint64_t torn_ = 0;
};

}  // namespace Statedb
