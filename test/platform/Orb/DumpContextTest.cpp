#include "Orb/DumpContext.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <string>

#include "Orb/EventLoop.h"
#include "Orb/JsonObject.h"

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

// What names from outside are made of is told without its being obeyed, nor taken for the end of a line.
TEST(DumpContext, text_of_any_bytes_stays_in_its_line_and_is_json) {
  const std::string hostile = "\"\\\n\x1b\x7f\xc2\x9b\xff\xc3\xa4\xc2\xa0";
  Orb::DumpContext context(-1);
  context.attribute(2, "name", hostile);
  EXPECT_EQ(context.text(), "  name=\"\\\\x0a\\x1b\\x7f\\xc2\\x9b\\xff\xc3\xa4\xc2\xa0\n");
  EXPECT_EQ(Orb::jsonString(hostile), R"("\"\\\u000a\u001b\u007f\u009b\ufffd)"
                                      "\xc3\xa4\xc2\xa0\"");
  EXPECT_EQ(Orb::withoutControls("[\"\x7f\xc2\x9b\xc2\xa0\xc3\xa4\x7f\"]"),
            "[\"\\u007f\\u009b\xc2\xa0\xc3\xa4\\u007f\"]");
  EXPECT_EQ(Orb::withoutControls("[\"plain\"]"), "[\"plain\"]");
}

}  // namespace
