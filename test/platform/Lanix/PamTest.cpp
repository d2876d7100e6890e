#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "Lanix/Bytes.h"
#include "Lanix/EthDevPam.h"
#include "Lanix/NamespaceGuard.h"
#include "Lanix/RawTxPam.h"
#include "Lanix/Wire.h"
#include "Orb/EventLoop.h"
#include "test/support/FakeNamespaces.h"
#include "test/support/FakePacketSockets.h"

namespace Lanix {
namespace {

using ::testing::HasSubstr;
using ::testing::SizeIs;
using TestSupport::FakeDevice;
using TestSupport::FakePacketSockets;
using TestSupport::Frame;
using TestSupport::frameOf;

Frame frameOfType(std::uint16_t type, unsigned mark) {
  Frame frame(60, std::byte{static_cast<unsigned char>(mark)});
  ByteWriter(frame).write(EthHdr{EthAddr::broadcast(), EthAddr(), type});
  return frame;
}

Mox::Ptr<const Pkt> pktOf(const Frame& frame) { return PktManager::global().newPktWithSharedHeadData(frame); }

class RawTxPamTest : public ::testing::Test {
 protected:
  FakePacketSockets sockets_;
  FakeDevice& fabric_ = sockets_.device(7);
  Mox::Ptr<RawTxPam> pam_ = Mox::make<RawTxPam>("RawTxPam");
};

TEST_F(RawTxPamTest, RefusalsAreKept) {
  sockets_.fails(FakePacketSockets::Call::open, EPERM);
  EXPECT_THAT(pam_->enabledIs(true).error(), HasSubstr(std::strerror(EPERM)));
  EXPECT_FALSE(pam_->enabled());
  EXPECT_TRUE(pam_->enabledIs(true));
  const auto pkt = pktOf(frameOf({1}));
  sockets_.fails(FakePacketSockets::Call::send, ENOBUFS);
  EXPECT_FALSE(pam_->send(7, pkt));
  EXPECT_EQ(errno, ENOBUFS);
  sockets_.fails(FakePacketSockets::Call::send, EINTR, 3);
  EXPECT_TRUE(pam_->send(7, pkt));
}

TEST_F(RawTxPamTest, BatchesInOrderAndStopsAtTheFirstRefusal) {
  EXPECT_TRUE(pam_->enabledIs(true));
  std::vector<RawTxPam::Frame> frames;
  for (unsigned i = 0; i < 150; ++i) frames.push_back({7, pktOf(frameOf({i}))});
  EXPECT_EQ(pam_->sendBatch(frames), 150u);
  EXPECT_EQ(sockets_.sendCalls(), 3);
  for (unsigned i = 0; i < 150; ++i) EXPECT_EQ(fabric_.sent()[i], frameOf({i}));
  sockets_.device(8).fullIs(true);
  frames[100].ifIndex = 8;
  fabric_.takeSent();
  EXPECT_EQ(pam_->sendBatch(frames), 100u);
  EXPECT_EQ(errno, EAGAIN);
  EXPECT_THAT(fabric_.sent(), SizeIs(100));
}

class EthDevPamTest : public ::testing::Test {
 protected:
  EthDevPamTest() {
    namespaces_.deviceIs("red", "vlan10", 5);
    pam_ = Mox::make<EthDevPam>(loop_, "vlan10");
    pam_->ethProtocolIs(kEtherTypeArp);
    pam_->netNsIs("red");
  }
  // Turns of the loop until it has nothing more.
  void settle() {
    while (loop_.step(0)) {
    }
  }

  TestSupport::FakeNamespaces namespaces_;
  FakePacketSockets sockets_;
  FakeDevice& vlan10_ = sockets_.device(5);
  Orb::EventLoop loop_;
  Mox::Ptr<EthDevPam> pam_;
};

TEST_F(EthDevPamTest, EnablingSaysWhatIsMissingAndCanBeTriedAgain) {
  namespaces_.loses("red");
  EXPECT_THAT(pam_->enabledIs(true).error(),
              AllOf(HasSubstr("vlan10"), HasSubstr("red"), HasSubstr(std::strerror(ENOENT))));
  namespaces_.has("red");
  EXPECT_THAT(pam_->enabledIs(true).error(), HasSubstr("no such device"));
  namespaces_.deviceIs("red", "vlan10", 5);
  for (auto call :
       {FakePacketSockets::Call::open, FakePacketSockets::Call::nonBlocking, FakePacketSockets::Call::bind}) {
    sockets_.fails(call, ENOBUFS);
    EXPECT_THAT(pam_->enabledIs(true).error(), HasSubstr(std::strerror(ENOBUFS)));
    EXPECT_FALSE(pam_->enabled());
    EXPECT_EQ(sockets_.openSockets(), 0);
    EXPECT_EQ(namespaces_.inside(), kDefaultNamespace);
  }
  EXPECT_TRUE(pam_->enabledIs(true));
  EXPECT_TRUE(pam_->enabled());
  EXPECT_EQ(vlan10_.bound(), 1);
}

TEST_F(EthDevPamTest, ReportedErrorsDoNotHideWaitingFrames) {
  EXPECT_TRUE(pam_->enabledIs(true));
  vlan10_.receives(frameOfType(kEtherTypeArp, 1));
  sockets_.fails(FakePacketSockets::Call::read, ENETDOWN);
  EXPECT_TRUE(pam_->rxPkt());
  vlan10_.receives(frameOfType(kEtherTypeArp, 1));
  sockets_.fails(FakePacketSockets::Call::read, EINTR, 2);
  EXPECT_TRUE(pam_->rxPkt());
  sockets_.fails(FakePacketSockets::Call::read, EINVAL);
  EXPECT_FALSE(pam_->rxPkt());
}

TEST_F(EthDevPamTest, MayBeDroppedFromItsOwnNotification) {
  Mox::Notifiee<EthDevPam> watch(pam_);
  watch.on(EthDevPam::readableCountChanged, [&] {
    watch.notifierIs(nullptr);
    pam_ = nullptr;
  });
  EXPECT_TRUE(pam_->enabledIs(true));
  vlan10_.receives(frameOfType(kEtherTypeArp, 1));
  settle();
  EXPECT_FALSE(pam_);
  EXPECT_EQ(sockets_.openSockets(), 0);
}

TEST(NamespaceGuardTest, TheSameIsEnteredWithoutASwitchAndFailingToComeBackIsAnAssertion) {
  TestSupport::FakeNamespaces namespaces;
  namespaces.has("red");
  namespaces.has("blue");
  const NamespaceGuard outer("default");
  EXPECT_TRUE(outer);
  EXPECT_EQ(namespaces.switches(), 0);
  const NamespaceGuard red("red");
  const NamespaceGuard again("red");
  EXPECT_TRUE(again);
  EXPECT_EQ(namespaces.switches(), 1);
  EXPECT_DEATH(
      {
        const NamespaceGuard blue("blue");
        namespaces.loses("red");
      },
      "back in the network namespace before");
}

}  // namespace
}  // namespace Lanix
