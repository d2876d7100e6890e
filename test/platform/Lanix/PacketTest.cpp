#include <gtest/gtest.h>

#include <vector>

#include "Lanix/Bytes.h"
#include "Lanix/Pkt.h"
#include "Lanix/Wire.h"
#include "test/support/FakePacketSockets.h"

namespace Lanix {
namespace {

using TestSupport::Frame;
using TestSupport::frameOf;

TEST(ByteCursor, ReadsUpToTheEndAndNotBeyond) {
  const Frame bytes = frameOf({0x81, 0x00, 0x00, 0x0a, 0x08, 0x06, 0xff});
  ByteCursor cursor(bytes);
  EXPECT_EQ(cursor.peek<Be16>().value(), kEtherTypeDot1q);
  EXPECT_EQ(cursor.read<Be16>().value(), kEtherTypeDot1q);
  const auto tag = cursor.read<Dot1qTag>();
  ASSERT_TRUE(tag);
  EXPECT_EQ(tag->vlan(), 10);
  EXPECT_EQ(tag->type, kEtherTypeArp);
  EXPECT_FALSE(cursor.read<Be16>());
  EXPECT_FALSE(cursor.skip(2));
  EXPECT_FALSE(cursor.take(SIZE_MAX));
  EXPECT_EQ(cursor.remaining(), 1u);  // what did not fit took nothing
  EXPECT_EQ(cursor.position(), 6u);
  EXPECT_TRUE(cursor.skip(1));
  EXPECT_TRUE(cursor.rest().empty());
  EXPECT_TRUE(cursor.take(0));
  EXPECT_FALSE(cursor.read<std::uint8_t>());
}

TEST(Pkt, SizesAndContent) {
  PktManager& manager = PktManager::global();
  for (const std::size_t size :
       {std::size_t{0}, std::size_t{46}, Pkt::kPooled, Pkt::kPooled + 1, Pkt::kLargest}) {
    const Frame dirt(size, std::byte{0xee});
    EXPECT_TRUE(std::ranges::equal(manager.newPktWithSharedHeadData(dirt)->headData(), dirt)) << size;
    const Mox::Ptr<Pkt> pkt = manager.newPktWithHeadData(size);  // the memory of the one before
    ASSERT_EQ(pkt->size(), size);
    EXPECT_TRUE(std::ranges::equal(pkt->headData(), Frame(size)));
  }
  EXPECT_FALSE(manager.newPktWithHeadData(Pkt::kLargest + 1));
  EXPECT_FALSE(manager.newPktWithSharedHeadData(Frame(Pkt::kLargest + 1)));
  const Mox::Ptr<Pkt> pkt = manager.newPktWithHeadData(10);
  pkt->sizeIs(20);
  EXPECT_EQ(pkt->headData().size(), 10u);
  pkt->sizeIs(4);
  EXPECT_EQ(pkt->headData().size(), 4u);
}

TEST(Pkt, MemoryIsUsedAgainAndWhatIsKeptForLaterIsBounded) {
  PktManager& manager = PktManager::global();
  std::vector<Mox::Ptr<Pkt>> many;
  for (int i = 0; i < 3000; ++i) many.push_back(manager.newPktWithHeadData(1));
  many.clear();
  const std::size_t pooled = Pkt::pooled();
  EXPECT_LE(pooled, 1024u);
  const auto pkt = manager.newPktWithHeadData(Pkt::kPooled);
  const auto shared = manager.newPktWithSharedHeadData(Frame(Pkt::kPooled));
  EXPECT_EQ(Pkt::pooled(), pooled - 2);
}

}  // namespace
}  // namespace Lanix
