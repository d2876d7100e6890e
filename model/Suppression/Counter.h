#pragma once

#include <array>
#include <cstdint>

#include "Memtab/Entity.h"

namespace ArpSuppression {

// The counters in the order of their ids, from 0. The reserved ones stay zero.
#define ARP_SUPPRESSION_COUNTERS(X)     \
  X(arpInputNoVlanL3Info)               \
  X(kernelInstallSuccess)               \
  X(kernelInstallFailed)                \
  X(arpInputNewLocal)                   \
  X(arpInputNewRemote)                  \
  X(arpInputUpdatedLocal)               \
  X(arpInputUpdatedRemote)              \
  X(arpInputDeleted)                    \
  X(replyRemote)                        \
  X(replyMultihomedDf)                  \
  X(replyMultihomedNonDf)               \
  X(noReplyUnknownSourcePort)           \
  X(noReplySamePort)                    \
  X(floodedToRemoteTeps)                \
  X(reserved14)                         \
  X(noReplyTargetLocal)                 \
  X(noReplyFabricNotUsable)             \
  X(replySendFailed)                    \
  X(floodDroppedOldest)                 \
  X(staticBindingEvent)                 \
  X(reserved20)                         \
  X(reserved21)                         \
  X(staticBindingBridgeMac)             \
  X(staticBindingVirtualRouterMac)      \
  X(staticBindingNoVlanL3Info)          \
  X(targetIsMine)                       \
  X(reserved26)                         \
  X(discoveryBadMac)                    \
  X(discoveryBadIp)                     \
  X(discoveryBridgeMac)                 \
  X(discoveryVirtualRouterMac)          \
  X(discoveryLocalMultihomed)           \
  X(discoveryNoVlanL3Info)              \
  X(discoveryLocalMacHasRemoteBindings) \
  X(localBindingCreated)                \
  X(localBindingAlreadyPresent)         \
  X(localBindingDeleted)                \
  X(vgwReplyMalformed)                  \
  X(vgwReplyNotReply)                   \
  X(vgwReplyExtraData)                  \
  X(vgwReplyNotVirtualMac)              \
  X(vgwReplyAccepted)                   \
  X(trapReadFailed)                     \
  X(trapMalformed)                      \
  X(trapVlanNotEnabled)                 \
  X(trapNotRequestOrReply)              \
  X(trapExtraData)                      \
  X(trappedRequest)                     \
  X(trappedReply)                       \
  X(reinjected)                         \
  X(reinjectWriteFailed)                \
  X(reinjectNoImetLabel)                \
  X(trapDropped)                        \
  X(answeredInDataPlane)                \
  X(addressConflict)                    \
  X(ndAnswered)                         \
  X(ndPassed)                           \
  X(reserved57)                         \
  X(reserved58)                         \
  X(reserved59)                         \
  X(localBindingRefused)                \
  X(requestRecordRefused)               \
  X(remoteBindingRefused)

enum class ArpSuppressionCounterId : std::uint32_t {
#define X(name) name,
  ARP_SUPPRESSION_COUNTERS(X)
#undef X
};

inline constexpr auto kCounterNames = std::to_array<const char*>({
#define X(name) #name,
    ARP_SUPPRESSION_COUNTERS(X)
#undef X
});
inline constexpr std::uint32_t kCounters = static_cast<std::uint32_t>(kCounterNames.size());
static_assert(kCounters == 63);

// In shared memory at "arpSuppression/counter": one entry an id. The writer begins at zero.
class ArpSuppressionCounterStatus final : public Memtab::Entity {
 public:
  MEMTAB_COLLECTION(std::uint32_t, std::uint64_t, counter)
  MEMTAB_MEMBERS(counter)

  // For the writer.
  void increment(ArpSuppressionCounterId id, std::uint64_t by = 1);
  std::uint64_t value(ArpSuppressionCounterId id) const { return values_[static_cast<std::size_t>(id)]; }
  // Creates the entries, all zero.
  void clear();

 private:
  std::array<std::uint64_t, kCounters> values_{};  // what the writer counted; the table shows it to others
};

}  // namespace ArpSuppression
