#include "Statedb/LogFile.h"

#include <sys/random.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <utility>

namespace Statedb {

namespace {

Mox::Failure failed(int error) { return {std::strerror(error), error}; }

// As many bytes as there are, at most `size`.
Mox::Result<std::size_t> readAt(int descriptor, std::uint64_t at, char* to, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    const ssize_t count = pread(descriptor, to + done, size - done, static_cast<off_t>(at + done));
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return failed(errno);
    if (count == 0) break;
    done += static_cast<std::size_t>(count);
  }
  return done;
}

Mox::Result<> writeAt(int descriptor, std::uint64_t at, std::string_view first, std::string_view second) {
  while (!first.empty() || !second.empty()) {
    const std::array<iovec, 2> parts{iovec{const_cast<char*>(first.data()), first.size()},
                                     iovec{const_cast<char*>(second.data()), second.size()}};
    const ssize_t count = pwritev(descriptor, parts.data(), parts.size(), static_cast<off_t>(at));
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) return failed(count < 0 ? errno : ENOSPC);
    const auto done = static_cast<std::size_t>(count);
    at += done;
    const std::size_t ofFirst = std::min(done, first.size());
    first.remove_prefix(ofFirst);
    second.remove_prefix(done - ofFirst);
  }
  return {};
}

}  // namespace

LogFile& LogFile::operator=(LogFile&& other) noexcept {
  if (this == &other) return *this;
  if (descriptor_ >= 0) close(descriptor_);
  descriptor_ = std::exchange(other.descriptor_, -1);
  id_ = other.id_;
  end_ = other.end_;
  cut_ = other.cut_;
  batch_.clear();  // nobody moves a file that is being read
  left_ = {};
  problem_ = std::move(other.problem_);
  torn_ = other.torn_;
  return *this;
}

LogFile::~LogFile() {
  if (descriptor_ >= 0) close(descriptor_);
}

Mox::Result<LogFile> LogFile::create(int descriptor, std::string_view path) {
  LogFile file(descriptor);
  if (getrandom(&file.id_, sizeof file.id_, GRND_NONBLOCK) != sizeof file.id_)
    file.id_ = static_cast<std::uint64_t>(std::time(nullptr)) << 32 | static_cast<std::uint64_t>(getpid());
  const std::string header = LogFormat::header(path, file.id_);
  if (auto written = writeAt(descriptor, 0, header, {}); !written) return written.failure();
  file.end_ = header.size();
  file.cut_ = true;
  return file;
}

Mox::Result<LogFile> LogFile::open(int descriptor, std::string_view path) {
  LogFile file(descriptor);
  std::string header(LogFormat::kHeaderStart, '\0');
  const auto start = readAt(descriptor, 0, header.data(), header.size());
  if (!start) return start.failure();
  const auto size = *start == header.size() ? LogFormat::headerSize(header) : std::nullopt;
  if (!size) return Mox::Failure{"it has no valid header"};
  header.resize(*size);
  const auto whole = readAt(descriptor, 0, header.data(), header.size());
  if (!whole) return whole.failure();
  const auto id = *whole == header.size() ? LogFormat::headerId(header, path) : std::nullopt;
  if (!id) return Mox::Failure{"its header is not that of this path"};
  file.id_ = *id;
  file.end_ = header.size();
  return file;
}

Journal::Step LogFile::damaged(std::string problem) {
  problem_ = std::move(problem);
  left_ = {};
  return Journal::Step::damaged;
}

Journal::Step LogFile::nextBatch() {
  LogFormat::BatchHead head{};
  const auto headRead = readAt(descriptor_, end_, head.data(), head.size());
  if (!headRead) return damaged(headRead.error());
  torn_ = *headRead;
  if (*headRead < head.size()) return Journal::Step::end;
  const auto size = LogFormat::batchSize(head, id_, end_);
  if (!size) return damaged("the length of the batch at byte " + std::to_string(end_) + " is not sound");
  batch_.resize(*size);
  const auto bodyRead = readAt(descriptor_, end_ + head.size(), batch_.data(), *size);
  if (!bodyRead) return damaged(bodyRead.error());
  torn_ += *bodyRead;
  if (*bodyRead < *size) return Journal::Step::end;
  if (!LogFormat::batchSound(head, batch_))
    return damaged("the checksum of the batch at byte " + std::to_string(end_) + " is wrong");
  torn_ = 0;
  end_ += head.size() + *size;
  left_ = batch_;
  return Journal::Step::operation;
}

Journal::Step LogFile::next(Journal::Operation& operation) {
  if (left_.empty()) {
    const Journal::Step step = nextBatch();
    if (step != Journal::Step::operation) {
      std::string().swap(batch_);
      return step;
    }
  }
  if (LogFormat::take(left_, operation)) return Journal::Step::operation;
  return damaged("an operation before byte " + std::to_string(end_) + " is not sound");
}

// What is behind the end is part of a batch that was not written whole.
void LogFile::cut() { cut_ = ftruncate(descriptor_, static_cast<off_t>(end_)) == 0; }

bool LogFile::giveBack(std::uint64_t most) {
  end_ -= std::min(end_, most);
  return ftruncate(descriptor_, static_cast<off_t>(end_)) == 0 && end_ != 0;
}

Mox::Result<> LogFile::append(std::string_view operations) {
  if (!cut_) cut();
  if (!cut_) return failed(errno);
  const LogFormat::BatchHead head = LogFormat::batchHead(id_, end_, operations);
  if (auto written = writeAt(descriptor_, end_, {head.data(), head.size()}, operations); !written) {
    cut();
    return written;
  }
  end_ += head.size() + operations.size();
  return {};
}

}  // namespace Statedb
