// Against the kernel; needs root.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "Lanix/Bytes.h"
#include "Lanix/EthDevPam.h"
#include "Lanix/NamespaceGuard.h"
#include "Lanix/Namespaces.h"
#include "Lanix/Neighbour.h"
#include "Lanix/NetlinkSocket.h"
#include "Lanix/PacketSockets.h"
#include "Lanix/RawTxPam.h"
#include "Lanix/Wire.h"
#include "Orb/EventLoop.h"
#include "lab/Lab.h"

namespace Lanix {
namespace {

using ::testing::HasSubstr;

ino_t currentNamespace() {
  struct stat status {};
  return stat("/proc/thread-self/ns/net", &status) == 0 ? status.st_ino : 0;
}

class KernelTest : public ::testing::Test {
 protected:
  Lab::Namespace namespace_{"lanix"};
  std::string netNs_ = namespace_.name();
};

TEST_F(KernelTest, GuardComesBackAlsoWhenItsScopeThrows) {
  const ino_t home = currentNamespace();
  try {
    const NamespaceGuard guard(netNs_);
    ASSERT_TRUE(guard) << guard.error();
    EXPECT_NE(currentNamespace(), home);
    const NamespaceGuard inner(kDefaultNamespace);
    EXPECT_EQ(currentNamespace(), home);
    throw std::runtime_error("inside");
  } catch (const std::runtime_error&) {
  }
  EXPECT_EQ(currentNamespace(), home);
}

TEST_F(KernelTest, OnlyPlainNamesOfNamespacesAreEntered) {
  const ino_t home = currentNamespace();
  const std::string file = "/run/netns/" + netNs_ + "-file", pipe = "/run/netns/" + netNs_ + "-pipe";
  std::ofstream(file) << "not a namespace";
  ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
  const std::vector<std::string> names = {
      "", ".", "..", "../netns/" + netNs_, netNs_ + "-missing", netNs_ + "-file", netNs_ + "-pipe"};
  for (const std::string& name : names) {
    const NamespaceGuard guard(name);
    EXPECT_FALSE(guard) << name;
    EXPECT_THAT(guard.error(), HasSubstr("\"" + name + "\""));
    EXPECT_EQ(currentNamespace(), home);
  }
  std::filesystem::remove(file);
  std::filesystem::remove(pipe);
}

TEST_F(KernelTest, FramesCrossAPairOfDevices) {
  const Lab::Namespace home;
  const Lab::Entered entered(home);
  Namespaces namespaces;  // whose default one this is
  const Replaced<Namespaces> replaced(namespaces);
  Lab::vethIs("here", "there", namespace_);

  Orb::EventLoop loop;
  auto rx = Mox::make<EthDevPam>(loop, "there");
  rx->ethProtocolIs(kEtherTypeArp);
  EXPECT_EQ(rx->enabledIs(true).number(), ENODEV);  // it is in the other namespace
  rx->netNsIs(netNs_);
  ASSERT_TRUE(rx->enabledIs(true));
  auto tx = Mox::make<RawTxPam>("RawTxPam");
  ASSERT_TRUE(tx->enabledIs(true));
  const std::uint32_t ifIndex = Namespaces::current().interfaceIndex("here");
  ASSERT_NE(ifIndex, 0u);

  std::vector<RawTxPam::Frame> frames;
  for (unsigned mark = 0; mark < 100; ++mark) {
    const auto pkt = PktManager::global().newPktWithHeadData(60);
    const std::uint16_t type = mark % 2 == 0 ? kEtherTypeArp : kEtherTypeIpv4;
    ByteWriter(pkt->headData()).write(EthHdr{EthAddr::broadcast(), EthAddr(), type}).write(Be32(mark));
    frames.push_back({ifIndex, pkt});
  }
  EXPECT_TRUE(tx->send(ifIndex, frames[0].pkt)) << std::strerror(errno);
  EXPECT_EQ(tx->sendBatch(std::span(frames).subspan(1)), 99u);
  EXPECT_FALSE(tx->send(0x7fffffff, frames[0].pkt));
  EXPECT_EQ(errno, ENXIO);

  std::vector<std::uint32_t> marks;
  const double deadline = loop.clock().now() + 10;
  while (marks.size() < 50 && loop.clock().now() < deadline) {
    loop.step(0.1);
    while (const auto pkt = rx->rxPkt()) {
      ByteCursor cursor(pkt->headData());
      ASSERT_EQ(cursor.read<EthHdr>()->type, kEtherTypeArp);
      marks.push_back(*cursor.read<Be32>());
    }
  }
  ASSERT_EQ(marks.size(), 50u);
  for (std::size_t i = 0; i < marks.size(); ++i) EXPECT_EQ(marks[i], 2 * i);
  EXPECT_GE(rx->readableCount(), 1u);
}

TEST_F(KernelTest, SocketsReceiveBatchesAndTellOfLossesAndErrors) {
  PacketSockets& sockets = PacketSockets::current();
  const NamespaceGuard guard(netNs_);
  ASSERT_TRUE(guard);
  Lab::upIs("lo");
  const int socket = sockets.open(SOCK_RAW, 0);
  ASSERT_GT(socket, 2);
  EXPECT_EQ(fcntl(socket, F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
  ASSERT_EQ(sockets.bind(socket, Namespaces::current().interfaceIndex("lo"), kEtherTypeTrap), 0);
  EXPECT_EQ(sockets.receiveBufferIs(socket, 1 << 20), 0);
  std::byte buffers[4][100];
  std::vector<PacketSockets::InFrame> in;
  for (auto& buffer : buffers) in.push_back({buffer});
  EXPECT_EQ(sockets.receiveBatch(socket, in), -1);
  EXPECT_EQ(errno, EAGAIN);
  std::byte frame[64] = {};
  ByteWriter(frame).write(EthHdr{EthAddr::broadcast(), EthAddr(), kEtherTypeTrap});
  ASSERT_EQ(sockets.write(socket, frame), 64);
  ASSERT_EQ(sockets.write(socket, std::span(frame).first(20)), 20);
  ASSERT_EQ(sockets.receiveBatch(socket, in), 2);
  EXPECT_EQ(in[0].size, 64u);
  EXPECT_EQ(in[1].size, 20u);

  EXPECT_EQ(sockets.takeDropped(socket), 0u);
  ASSERT_EQ(sockets.receiveBufferIs(socket, 0), 0);
  for (int i = 0; i < 100; ++i) ASSERT_EQ(sockets.write(socket, frame), 64);
  int received = 0;
  for (int count = 0; (count = sockets.receiveBatch(socket, in)) > 0;) received += count;
  EXPECT_LT(received, 100);
  EXPECT_EQ(sockets.takeDropped(socket), static_cast<unsigned>(100 - received));
  EXPECT_EQ(sockets.takeDropped(socket), 0u);
  EXPECT_EQ(sockets.unsent(socket), 0);

  Lab::upIs("lo", false);
  Lab::upIs("lo");
  EXPECT_EQ(sockets.takeError(socket), ENETDOWN);
  EXPECT_EQ(sockets.takeError(socket), 0);
  EXPECT_EQ(sockets.write(socket, frame), 64);
  // More than what a process without rights may have.
  EXPECT_EQ(sockets.receiveBufferIs(socket, 2 << 20), 0);
  int size = 0;
  socklen_t length = sizeof size;
  EXPECT_EQ(getsockopt(socket, SOL_SOCKET, SO_RCVBUF, &size, &length), 0);
  EXPECT_EQ(size, 4 << 20);
  sockets.close(socket);
}

TEST_F(KernelTest, EachRequestOfABatchIsAnsweredWithinTheSend) {
  const auto opened = openNetlinkSocket(netNs_);
  ASSERT_TRUE(opened) << opened.error();
  const std::uint32_t socket = *opened;
  constexpr std::uint32_t kLoopback = 1, kNoDevice = 4711;
  for (int round = 0; round < 4; ++round) {
    NetlinkBatch batch(socket);
    for (std::uint32_t i = 0; !batch.full(); ++i) {
      Arp::ipNeighAdd(batch, i % 3 == 0 ? kNoDevice : kLoopback, IpAddr(0x0a000000 + i),
                      EthAddr({2, 0, 0, 0, 0, 1}), Arp::kNudReachable, 110);
    }
    const auto results = batch.send();
    ASSERT_EQ(results.size(), NetlinkBatch::kMost);
    for (std::size_t i = 0; i < results.size(); ++i)
      EXPECT_EQ(results[i].number(), i % 3 == 0 ? ENODEV : 0) << i << " " << results[i].error();
    EXPECT_EQ(batch.size(), 0u);
  }
  closeNetlinkSocket(socket);
}

// A daemon that was started without its standard descriptors.
TEST_F(KernelTest, SocketsKeepClearOfTheStandardDescriptors) {
  EXPECT_EXIT(
      {
        for (int standard : {0, 1, 2}) ::close(standard);
        const int packet = PacketSockets::current().open(SOCK_RAW, 0);
        const std::uint32_t netlink = *openNetlinkSocket(kDefaultNamespace);
        const bool standardFree = fcntl(0, F_GETFD) < 0 && fcntl(1, F_GETFD) < 0;
        const bool closesOnExec = fcntl(static_cast<int>(netlink), F_GETFD) == FD_CLOEXEC;
        _exit(packet > 2 && netlink > 2 && standardFree && closesOnExec ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace Lanix
