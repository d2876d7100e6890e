#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <string>

#include "Tracelet/Trace.h"

namespace {

// Standard error while it lives: a pipe, as of a shell, or a stream socket, as of the journal.
class StandardError {
 public:
  explicit StandardError(bool isSocket) : before_(dup(STDERR_FILENO)) {
    std::array<int, 2> ends{};
    EXPECT_EQ(isSocket ? socketpair(AF_UNIX, SOCK_STREAM, 0, ends.data()) : pipe(ends.data()), 0);
    read_ = ends[0];
    fcntl(read_, F_SETFL, O_NONBLOCK);
    dup2(ends[1], STDERR_FILENO);
    close(ends[1]);
    Tracelet::waitsIs(false);
  }
  StandardError(const StandardError&) = delete;
  StandardError& operator=(const StandardError&) = delete;
  ~StandardError() {
    Tracelet::waitsIs(true);
    dup2(before_, STDERR_FILENO);
    close(before_);
    close(read_);
  }
  std::string takeAll() const {
    std::string all;
    std::array<char, 65536> bytes;
    for (ssize_t size = 0; (size = read(read_, bytes.data(), bytes.size())) > 0;)
      all.append(bytes.data(), static_cast<std::size_t>(size));
    return all;
  }

 private:
  const int before_;
  int read_ = -1;
};

TEST(Lines, ThatNobodyReadsAreLostAndCounted) {
  constexpr std::size_t kLines = 100000;
  for (const bool isSocket : {false, true}) {
    SCOPED_TRACE(isSocket ? "socket" : "pipe");
    const StandardError standardError(isSocket);
    const std::string line(99, 'x');
    for (std::size_t i = 0; i < kLines; ++i) Tracelet::writeLine(line);
    const std::string before = standardError.takeAll();
    ASSERT_EQ(before.size() % 100, 0u) << "whole lines only";
    ASSERT_GT(before.size(), 0u);
    Tracelet::writeLine("taken again");
    EXPECT_EQ(standardError.takeAll(), "log: " + std::to_string(kLines - before.size() / 100) +
                                           " lines were lost: who reads them was too slow\ntaken again\n");
    Tracelet::writeLine("and the next");
    EXPECT_EQ(standardError.takeAll(), "and the next\n");
  }
}

}  // namespace
