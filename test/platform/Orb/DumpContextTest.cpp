#include "Orb/DumpContext.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>

#include "Orb/EventLoop.h"

namespace {

TEST(DumpContext, broken_full_and_missing_descriptors_are_harmless) {
  const Orb::EventLoop loop;  // a process that dumps has one; it is what ignores SIGPIPE
  std::array<int, 2> ends{};
  ASSERT_EQ(pipe2(ends.data(), O_CLOEXEC | O_NONBLOCK), 0);
  ASSERT_EQ(fcntl(ends[1], F_SETPIPE_SZ, 4096), 4096);
  { Orb::DumpContext(ends[1]).line(0, std::string(100000, 'x')); }
  std::string taken(200000, '\0');
  EXPECT_EQ(read(ends[0], taken.data(), taken.size()), 4096);
  EXPECT_EQ(taken.substr(0, 4096), std::string(4096, 'x'));
  close(ends[0]);
  { Orb::DumpContext(ends[1]).line(0, "nobody reads"); }
  close(ends[1]);
  { Orb::DumpContext(ends[1]).line(0, "closed"); }
  { Orb::DumpContext(-1).line(0, "none"); }
}

}  // namespace
