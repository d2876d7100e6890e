#include "Orb/DumpContext.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <array>
#include <string>

#include "Orb/EventLoop.h"

namespace {

struct Part : Mox::Referenced {
  void dumpState(Orb::DumpContext& context, int indent) const {
    context.line(indent, "Part");
    context.attribute(indent, "ready", ready);
    context.attribute(indent, "name", name);
    context.child(indent + 2, next, "Part");
  }
  bool ready = false;
  std::string name = "a";
  Mox::Ptr<Part> next;
};

TEST(DumpContext, dumps_children_indented_each_object_once_and_null_by_name) {
  const auto first = Mox::make<Part>();
  const auto second = Mox::make<Part>();
  first->next = second;
  second->ready = true;
  const int file = memfd_create("dump", MFD_CLOEXEC);
  std::string text;
  {
    Orb::DumpContext context(file);
    context.child(0, first, "Part");
    context.child(0, second.get(), "Part");
    context.raw(4, "x\n\ny");
    context.attribute(0, "count", 7);
    context.child(0, first, "Whole");
    EXPECT_EQ(lseek(file, 0, SEEK_END), 0);  // written at the end only
    text = context.text();
  }
  EXPECT_EQ(text,
            "Part\nready=false\nname=a\n"
            "  Part\n  ready=true\n  name=a\n    NULL\n"
            "Part dumped at line 4\n"
            "    x\n    \n    y\n"
            "count=7\n"
            "Whole dumped at line 1\n");
  std::string written(text.size() + 1, '\0');
  written.resize(static_cast<std::size_t>(pread(file, written.data(), written.size(), 0)));
  EXPECT_EQ(written, text);
  close(file);
}

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
