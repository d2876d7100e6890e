// Which neighbour solicitations an access port answers itself, and with what: each frame is run through the
// program by the kernel, without a network.

#include <gtest/gtest.h>

#include <functional>

#include "AnswersRig.h"
#include "lab/Nd.h"

namespace SoftForward {
namespace {

constexpr Lab::Mac kHost{2, 0, 0, 0, 0, 1};

class NdAnswerProgramTest : public AnswersRig {
 protected:
  void SetUp() override {
    AnswersRig::SetUp();
    answerIs(kTarget, kOwner);
  }
  void answerIs(const Lab::Ip6& target, const Lanix::EthAddr& mac, std::uint32_t owner = kElsewhere,
                bool router = false, std::uint16_t vlan = kVlan) {
    placed({vlan, Lanix::Ip6Addr(target), mac, Kind::nd, owner, router});
  }
  // It goes on as it came, and nobody is shown it.
  void expectPassed(const Lab::Frame& frame, std::uint64_t counted) {
    const std::uint64_t before = programs_.statistics().ndPassed;
    const Outcome outcome = ask(frame);
    EXPECT_EQ(outcome.result, TC_ACT_UNSPEC);
    EXPECT_EQ(Lab::hex(outcome.frame), Lab::hex(frame));
    EXPECT_EQ(outcome.mark, 7U);
    EXPECT_EQ(programs_.statistics().trapped, 0U);
    EXPECT_EQ(programs_.statistics().ndPassed - before, counted);
  }

  inline static const Lab::Ip6 kHostIp = Lab::ip6("2001:db8::1"), kTarget = Lab::ip6("2001:db8::ab:cdef");
  const Lab::Frame request_ = Lab::solicitation(kHost, kHostIp, kTarget);
};

TEST_F(NdAnswerProgramTest, IsAnsweredInEveryByte) {
  const Lab::Ip6 linkLocal = Lab::ip6("fe80::2");
  answerIs(linkLocal, kOwner);
  const Lab::Frame flow = changed(changed(request_, Lab::Nd::kVersion, 0x6A), Lab::Nd::kVersion + 3, 0x77);
  const Lab::Frame reserved = Lab::summed(changed(request_, Lab::Nd::kFlags, 0xFF));
  for (const bool router : {false, true}) {
    answerIs(kTarget, kOwner, 0, router);
    const Lab::Frame wanted = Lab::advertisement(kOwner.bytes(), kTarget, kHost, kHostIp, router);
    for (const Lab::Frame& frame : {request_, flow, reserved}) {
      const Outcome outcome = ask(frame);
      EXPECT_EQ(outcome.result, TC_ACT_REDIRECT);
      EXPECT_EQ(outcome.mark, 7U);
      EXPECT_EQ(Lab::hex(outcome.frame), Lab::hex(wanted));
    }
  }
  EXPECT_EQ(Lab::hex(run(Program::accessIngress, Lab::solicitation(kHost, kHostIp, linkLocal)).frame),
            Lab::hex(Lab::advertisement(kOwner.bytes(), linkLocal, kHost, kHostIp, false)));
  // Sums of all kinds, those that fold twice too.
  for (int last = 0; last < 256; ++last) {
    Lab::Ip6 from = kHostIp;
    from[7] = from[9] = 0xFF;
    from[15] = static_cast<std::uint8_t>(last);
    const Outcome outcome = run(Program::accessIngress, Lab::solicitation(kHost, from, kTarget));
    ASSERT_EQ(Lab::hex(outcome.frame),
              Lab::hex(Lab::advertisement(kOwner.bytes(), kTarget, kHost, from, true)));
  }
  const Statistics statistics = programs_.statistics();
  EXPECT_EQ(statistics.answered, (std::array<std::uint64_t, 4>{0, 0, 0, 263}));
  EXPECT_EQ(statistics.ndPassed, 0U);
  ASSERT_EQ(programs_.portStatistics().size(), 1U);
  EXPECT_EQ(programs_.portStatistics()[0].answered, 263U);
}

// A field that is not as it should be, with a checksum that is right unless that is what is wrong.
TEST_F(NdAnswerProgramTest, WhatIsMalformedPasses) {
  using namespace Lab::Nd;
  const auto with = [this](std::size_t at, std::uint8_t value) {
    return Lab::summed(changed(request_, at, value));
  };
  const auto longer = [this](std::initializer_list<std::uint8_t> more) {
    Lab::Frame frame = request_;
    for (const std::uint8_t byte : more) frame.push_back(std::byte{byte});
    frame[kLength + 1] = static_cast<std::byte>(frame.size() - kType);
    return Lab::summed(frame);
  };
  const auto shorter = [this](std::size_t size) {
    Lab::Frame frame = resized(request_, size);
    frame[kLength + 1] = static_cast<std::byte>(size - kType);
    return Lab::summed(frame);
  };
  // The header of an extension, with ICMPv6 behind it.
  const auto extended = [this](std::uint8_t header) {
    Lab::Frame frame = changed(request_, kNextHeader, header);
    const std::byte extension[] = {std::byte{58}, {}, std::byte{1}, std::byte{4}, {}, {}, {}, {}};
    frame.insert(frame.begin() + kType, std::begin(extension), std::end(extension));
    frame[kLength + 1] = static_cast<std::byte>(frame.size() - kType);
    return frame;
  };
  const struct {
    const char* what;
    Lab::Frame frame;
    bool counted = true;  // as a solicitation that passed
  } kCases[] = {
      {"a wrong checksum",
       changed(request_, kChecksum, std::to_integer<std::uint8_t>(request_[kChecksum]) ^ 1)},
      {"no checksum", changed(changed(request_, kChecksum, 0), kChecksum + 1, 0)},
      {"hop limit 254", with(kHopLimit, 254)},
      {"code 1", with(kCode, 1)},
      {"an advertisement", with(kType, 136), false},
      {"a router solicitation", with(kType, 133), false},
      {"version 4", with(kVersion, 0x40)},
      {"a length of one less", with(kLength + 1, 31)},
      {"a length of one more", with(kLength + 1, 33)},
      {"a length of 0, as of a jumbogram", with(kLength + 1, 0)},
      {"a length far beyond", with(kLength, 1)},
      {"a byte behind", resized(request_, 87)},
      {"padded", resized(request_, 128)},
      {"a byte short", resized(request_, 85)},
      {"cut in the target", resized(request_, 70)},
      {"cut behind the type", resized(request_, 56)},
      {"cut before the code", resized(request_, 55), false},
      {"no option", shorter(78)},
      {"a truncated option", shorter(84)},
      {"an option of length 0", with(kOptionLength, 0)},
      {"an option of length 2", with(kOptionLength, 2)},
      {"an option of length 2 that is there",
       [&] {
         Lab::Frame frame = longer({0, 0, 0, 0, 0, 0, 0, 0});
         return Lab::summed(changed(frame, kOptionLength, 2));
       }()},
      {"two options", longer({1, 1, 2, 0, 0, 0, 0, 1})},
      {"a nonce as well", longer({14, 1, 1, 2, 3, 4, 5, 6})},
      {"a target's option", with(kOption, 2)},
      {"another address in the option", with(kOptionAddress + 5, 9)},
      {"another source than in the option", changed(request_, 11, 9)},
      {"a group as source",
       [&] { return Lab::summed(changed(changed(request_, 6, 3), kOptionAddress, 3)); }()},
      {"nobody as source", Lab::solicitation({}, kHostIp, kTarget)},
      {"the switch itself", Lab::solicitation(kOwnAddress.bytes(), kHostIp, kTarget)},
      {"its shared address", Lab::solicitation(kSharedAddress.bytes(), kHostIp, kTarget)},
      {"duplicate address detection", Lab::duplicateDetection(kHost, kTarget)},
      {"the same with an option", Lab::solicitation(kHost, {}, kTarget)},
      {"from the loopback address", Lab::solicitation(kHost, Lab::ip6("::1"), kTarget)},
      {"from a group", Lab::solicitation(kHost, Lab::ip6("ff02::1"), kTarget)},
      {"from the target", Lab::solicitation(kHost, kTarget, kTarget)},
      {"for a group", Lab::solicitation(kHost, kHostIp, Lab::ip6("ff02::ab:cdef"))},
      {"to another group by IPv6", with(kDestinationIp + 15, 0xEE)},
      {"to another group by both", changed(with(kDestinationIp + 15, 0xEE), 5, 0xEE)},
      {"to another group by Ethernet", changed(request_, 5, 0xEE)},
      {"to all nodes", with(kDestinationIp + 12, 0)},
      {"to a group of the site", with(kDestinationIp + 1, 5)},
      {"a probe of reachability", changed(request_, 0, 0x02), false},
      {"another target", Lab::solicitation(kHost, kHostIp, Lab::ip6("2001:db8::cd:ab12"))},
      {"another target of the same group",
       Lab::solicitation(kHost, kHostIp, Lab::ip6("2001:db8::1:ab:cdef"))},
      {"hop-by-hop options", extended(0), false},
      {"destination options", extended(60), false},
      {"a fragment", extended(44), false},
      {"a tag in the frame", Lab::tagged(request_, kVlan), false},
      {"another ethertype", changed(request_, 13, 0xDE), false},
  };
  answerIs(Lab::ip6("ff02::ab:cdef"), kOwner);
  ASSERT_TRUE(answered(request_));
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    expectPassed(test.frame, test.counted ? 1 : 0);
  }
  EXPECT_TRUE(answered(request_));
}

TEST_F(NdAnswerProgramTest, WhereNothingIsAnswered) {
  const auto hold = [this](bool holds) { vlanAnswers(holds); };
  const struct {
    const char* what;
    std::function<void()> before, after;
    bool counted = true;
  } kCases[] = {
      {"no answer", [&] { answerIs(kTarget, {}); }, [&] { answerIs(kTarget, kOwner); }},
      {"an answer of another VLAN",
       [&] {
         answerIs(kTarget, {});
         answerIs(kTarget, kOwner, 0, false, kVlan + 1);
       },
       [&] { answerIs(kTarget, kOwner); }},
      {"the owner's own port", [&] { answerIs(kTarget, kOwner, kLoopback); },
       [&] { answerIs(kTarget, kOwner); }},
      {"a port without answers", [&] { portIs(false); }, [&] { portIs(true); }},
      {"a bridge's port that sends the VLAN with a tag", [&] { trunkIs(only(kVlan), true); },
       [&] { noTrunk(); }},
      {"a bridge's port without answers", [&] { trunkIs(only(kVlan + 1), false); }, [&] { noTrunk(); }},
      {"answers that do not hold", [&] { hold(false); }, [&] { hold(true); }, false},
      {"nobody is to be answered", [&] { refreshIs(0); }, [&] { refreshIs(kHour); }, false},
      {"suppression that is not active", [&] { ASSERT_TRUE(programs_.activeVlanIs(kVlan, false)); },
       [&] { ASSERT_TRUE(programs_.activeVlanIs(kVlan, true)); }, false},
      {"no sign of the agent", [&] { programs_.trustedUntilIs(0); },
       [&] { programs_.trustedUntilIs(kForever); }, false},
      {"a tunnel port", [&] { ASSERT_TRUE(programs_.portIs(kLoopback, kVlan, PortRole::tunnel)); },
       [&] { portIs(true); }, false},
  };
  for (const auto& test : kCases) {
    SCOPED_TRACE(test.what);
    test.before();
    expectPassed(request_, test.counted ? 1 : 0);
    test.after();
    EXPECT_TRUE(answered(request_));
  }
  trunkIs(only(kVlan), false);
  EXPECT_TRUE(answered(request_)) << "on a bridge's port";
}

// Answers of the two families do not meet, though their addresses begin alike.
TEST_F(NdAnswerProgramTest, FamiliesAreApart) {
  const Lab::Ip6 alike = Lab::ip6("a00:2::");
  const auto place = [this](const Lanix::IpGenAddr& address) {
    const PlacedAnswer answer{kVlan, address, kOwner, address.isIpv4() ? Kind::remote : Kind::nd, 0};
    AnswersRefused refused;
    ASSERT_TRUE(programs_.answersAre({&answer, 1}, refused));
  };
  place(Lanix::IpAddr({10, 0, 0, 2}));
  expectPassed(Lab::solicitation(kHost, kHostIp, alike), 1);
  place(Lanix::Ip6Addr(alike));
  EXPECT_TRUE(answered(Lab::solicitation(kHost, kHostIp, alike)));
}

}  // namespace
}  // namespace SoftForward
