#pragma once

#include <bpf/bpf.h>
#include <gtest/gtest.h>
#include <linux/bpf.h>

#include <ctime>
#include <utility>

#include "SoftForward/Programs.h"
#include "SoftForward/Shared.h"
#include "lab/Lab.h"

namespace SoftForward {

inline constexpr std::uint16_t kVlan = 10;
inline constexpr std::uint32_t kLoopback = 1;  // the device on which the kernel runs a tc program for a test
inline constexpr std::uint32_t kMark = SOFT_FORWARD_MARK | kVlan;

inline constexpr std::uint64_t kForever = ~std::uint64_t{0};
inline std::uint64_t now() {
  timespec time{};
  clock_gettime(CLOCK_MONOTONIC, &time);
  return static_cast<std::uint64_t>(time.tv_sec) * 1'000'000'000U + static_cast<std::uint64_t>(time.tv_nsec);
}

inline const Lab::Arp kRequest{1, {2, 0, 0, 0, 0, 1}, {10, 0, 0, 1}, {}, {10, 0, 0, 2}};

inline Lab::Frame changed(Lab::Frame frame, std::size_t offset, std::uint8_t value) {
  frame.at(offset) = std::byte{value};
  return frame;
}

inline Lab::Frame resized(Lab::Frame frame, std::size_t size) {
  frame.resize(size, std::byte{0x5A});
  return frame;
}

// Runs loaded programs on frames, in a namespace of its own.
class ProgramsRig : public testing::Test {
 protected:
  struct Outcome {
    int result;
    Lab::Frame frame;
    std::uint32_t mark;
  };

  void SetUp() override {
    ASSERT_TRUE(programs_.load());
    programs_.trustedUntilIs(kForever);
  }

  // Runs it on the frame; the context is changed to what it is afterwards.
  template <class Context>
  std::pair<int, Lab::Frame> testRun(Program program, const Lab::Frame& frame, Context& context) {
    Lab::Frame result(frame.size() + 64);
    const Context in = context;
    bpf_test_run_opts options{};
    options.sz = sizeof options;
    options.data_in = frame.data();
    options.data_size_in = static_cast<__u32>(frame.size());
    options.data_out = result.data();
    options.data_size_out = static_cast<__u32>(result.size());
    options.ctx_in = &in;
    options.ctx_size_in = sizeof in;
    options.ctx_out = &context;
    options.ctx_size_out = sizeof context;
    EXPECT_EQ(bpf_prog_test_run_opts(programs_.loaded(program).descriptor, &options), 0);
    result.resize(options.data_size_out);
    return {static_cast<int>(options.retval), result};
  }
  Outcome run(Program program, const Lab::Frame& frame, std::uint32_t mark = 0, std::uint32_t ingress = 0) {
    __sk_buff context{};
    context.mark = mark;
    context.ingress_ifindex = ingress;
    const auto [result, after] = testRun(program, frame, context);
    return {result, after, context.mark};
  }

  void trapsOnLoopback() {
    Lab::upIs("lo");
    ASSERT_TRUE(programs_.trapPeerIs(kLoopback));
    ASSERT_TRUE(programs_.portIs(kLoopback, kVlan, PortRole::access));
    ASSERT_TRUE(programs_.activeVlanIs(kVlan, true));
  }

  Lab::Namespace namespace_;
  Lab::Entered entered_{namespace_};
  Programs programs_;
};

}  // namespace SoftForward
