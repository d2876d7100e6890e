#include "ArpSuppression/ArpSuppression.h"

#include <algorithm>
#include <cctype>
#include <vector>

#include "ArpSuppression/Trace.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/ArpSuppression";

Mox::String lowerCase(Mox::String text) {
  std::transform(text.begin(), text.end(), text.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return text;
}

}  // namespace

Tracelet::Handle& traceHandle() {
  static Tracelet::Handle handle("ArpSuppression");
  return handle;
}

// --- TrappedMessage, MessageTrap -------------------------------------------------------------------------

TrappedMessage::TrappedMessage(Bridging::VlanId vlanId, MessageType type, IntfStatusAndDeviceName srcIntf,
                               Lanix::IpGenAddr senderIpAddress, Lanix::EthAddr senderMacAddress,
                               Lanix::IpGenAddr targetIpAddress, Ptr<const Lanix::Pkt> message)
    : vlanId_(vlanId),
      type_(type),
      srcIntf_(std::move(srcIntf)),
      senderIpAddress_(senderIpAddress),
      senderMacAddress_(senderMacAddress),
      targetIpAddress_(targetIpAddress),
      message_(std::move(message)) {}

Mox::String TrappedMessage::toStrep() const {
  return "<" + Mox::toStrep(type_) + " vlanId=" + vlanId_.toStrep() + " if=" + srcIntf_.toStrep() + "(" +
         std::to_string(srcIntf_.ifIndex) + ") sIp=" + senderIpAddress_.toStrep() +
         " sMac=" + senderMacAddress_.toStrep() + " tIp=" + targetIpAddress_.toStrep() + ">";
}

void TrappedMessage::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "TrappedMessage " + toStrep());
}

namespace {

// Freed messages, for the next ones: no more than could be queued and in progress.
struct MessagePool {
  static constexpr std::size_t kMost = 1024;
  std::vector<void*> free;
  ~MessagePool() {
    for (void* memory : free) ::operator delete(memory);
  }
};

MessagePool& messagePool() {
  static MessagePool pool;
  return pool;
}

}  // namespace

void* TrappedMessage::operator new(std::size_t size) {
  MessagePool& pool = messagePool();
  if (pool.free.empty()) return ::operator new(size);
  void* memory = pool.free.back();
  pool.free.pop_back();
  return memory;
}

void TrappedMessage::operator delete(void* object, std::size_t) {
  MessagePool& pool = messagePool();
  if (pool.free.size() < MessagePool::kMost) {
    pool.free.push_back(object);
  } else {
    ::operator delete(object);
  }
}

void MessageTrap::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "MessageTrap");
}

// --- MessageQueue ----------------------------------------------------------------------------------------

bool MessageQueue::enqueueMessage(const Ptr<const TrappedMessage>& message) {
  TRACE8("req=" << message);
  bool dropped = false;
  if (queueLimitCurrent() <= messages()) {
    const Ptr<const TrappedMessage> oldest = messageDeq();
    TRACE8("dropping oldReq=" << oldest);
    dropped = true;
  }
  messageEnq(message);
  return dropped;
}

void MessageQueue::append(Index index, const Ptr<const TrappedMessage>& message) {
  message_.push_back({index, message});
  // A keyed insertion may reuse an index that was given out before; those behind it may be queued still.
  if (index >= nextIndex_) nextIndex_ = index + 1;
  notify(messageChanged, index);
}

void MessageQueue::messageEnq(const Ptr<const TrappedMessage>& message) { append(nextIndex_, message); }

Ptr<const TrappedMessage> MessageQueue::messageDeq() {
  if (message_.empty()) return {};
  const MoxMessage head = message_.front();
  message_.pop_front();
  notify(messageChanged, head.index);
  return head.message;
}

Ptr<const TrappedMessage> MessageQueue::messageFront() const {
  return message_.empty() ? Ptr<const TrappedMessage>() : message_.front().message;
}

Ptr<const TrappedMessage> MessageQueue::messageBack() const {
  return message_.empty() ? Ptr<const TrappedMessage>() : message_.back().message;
}

std::deque<MessageQueue::MoxMessage>::const_iterator MessageQueue::find(Index index) const {
  return std::find_if(message_.begin(), message_.end(),
                      [&](const MoxMessage& m) { return m.index == index; });
}

void MessageQueue::messageIs(Index index, const Ptr<const TrappedMessage>& message) {
  const auto at = find(index);
  if (at == message_.end()) {
    append(index, message);
    return;
  }
  MoxMessage& member = message_[static_cast<std::size_t>(at - message_.begin())];
  if (member.message == message) return;
  member.message = message;
  notify(messageChanged, index);
}

bool MessageQueue::messageDel(Index index) {
  const auto at = find(index);
  if (at == message_.end()) return false;
  message_.erase(at);
  notify(messageChanged, index);
  return true;
}

void MessageQueue::messageDelAll() {
  std::deque<MoxMessage> gone;
  gone.swap(message_);
  for (const MoxMessage& member : gone) notify(messageChanged, member.index);
}

bool MessageQueue::messageHas(Index index) const {
  // The newest is what a watcher of additions asks for.
  if (!message_.empty() && message_.back().index == index) return true;
  return find(index) != message_.end();
}

void MessageQueue::updateQueueLimit(std::uint32_t messagesProcessed) {
  const std::uint32_t doubled = messagesProcessed * 2;
  const std::uint32_t newLimit =
      doubled < queueLimitMin() ? queueLimitMin() : std::min(doubled, queueLimitMax());
  TRACE8("messagesProcessed=" << messagesProcessed << " newLimit=" << newLimit);
  queueLimitCurrentIs(newLimit);
}

void MessageQueue::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "MessageQueue #messages=" + std::to_string(messages()));
}

// --- VRFs and watches ------------------------------------------------------------------------------------

void VrfInfo::interfaceWatchIs(VrfInterfaceWatch* watch) {
  if (!watch) throw Mox::NullError("VrfInfo::interfaceWatch: null watch");
  interfaceWatchIs(watch->intfName(), watch);
}

bool VrfInfo::usable() const {
  if (netNs().empty()) {
    TRACE8("no netNs");
    return false;
  }
  if (netlinkSocket() == 0) {
    TRACE8("no netlinkSocket");
    return false;
  }
  return true;
}

Mox::String VrfInfo::toStrep() const {
  return "<vrfName=" + vrfName_ + " vrfId=" + std::to_string(vrfId()) + ">";
}

void VrfInfo::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "VrfInfo " + vrfName_ + " usable=" + Mox::toStrep(usable()) +
                           " #user=" + std::to_string(users()) +
                           " #interfaceWatch=" + std::to_string(interfaceWatchs()) + ":");
  context.line(indent + 2, "netNs " + netNs());
  for (const auto& [name, watch] : interfaceWatchCollection()) {
    context.line(indent + 2, watch->toStrep() + " kniIntfIfIndex=" + std::to_string(watch->kniIntfIfIndex()));
  }
}

VrfInterfaceWatch::VrfInterfaceWatch(Ptr<VrfInfo> vrfInfo, Mox::String intfName)
    : VrfUser(std::move(vrfInfo)), intfName_(std::move(intfName)), kniIntfName_(lowerCase(intfName_)) {}

bool VrfInterfaceWatch::usable() const {
  if (!vrfInfo()->usable()) return false;
  if (kniIntfIfIndex() == 0) {
    TRACELET_TRACE(traceHandle(), 8, kSource, "intfName=" << intfName_ << " no kniIntfIfIndex");
    return false;
  }
  return true;
}

Mox::String VrfInterfaceWatch::toStrep() const {
  return "<vrfName=" + vrfInfo()->vrfName() + " intfName=" + intfName_ + " usable=" + Mox::toStrep(usable()) +
         ">";
}

VlanL3Info::VlanL3Info(Bridging::VlanId vlanId, Ptr<VrfInfo> vrfInfo)
    : VrfInterfaceWatch(std::move(vrfInfo), constructIntfNameFromVlanId(vlanId)),
      vlanId_(vlanId),
      vlanIntfId_(Lanix::IntfId::fromName(intfName())) {}

Mox::String VlanL3Info::constructIntfNameFromVlanId(Bridging::VlanId vlanId) {
  return "Vlan" + vlanId.toStrep();
}

Mox::String VlanL3Info::toStrep() const {
  return "<vrfName=" + vrfInfo()->vrfName() + " vlanId=" + vlanId_.toStrep() + ">";
}

// --- VlanL3InfoStatus ------------------------------------------------------------------------------------

void VlanL3InfoStatus::vlanUpdated(const VlanL3Info& vlanL3Info) { vlanUpdated(vlanL3Info.vlanId()); }

void VlanL3InfoStatus::vlanUpdated(Bridging::VlanId vlanId) {
  updatedVlanId_ = {};  // a watcher may announce the same VLAN again from inside
  updatedVlanIdIs(vlanId);
  updatedVlanId_ = {};
}

Ptr<VlanL3Info> VlanL3InfoStatus::usableVlanL3InfoNonConst(Bridging::VlanId vlanId) const {
  Ptr<VlanL3Info> info = vlanL3Info(vlanId);
  if (info && !info->usable()) {
    TRACE8("not usable vlanL3Info=" << info);
    return {};
  }
  return info;
}

void VlanL3InfoStatus::addVrfUser(const Ptr<VrfUser>& user) {
  const Ptr<VrfInfo> vrfInfo = user->vrfInfo();
  MOX_ASSERT(kSource, "__null != vrfInfo", vrfInfo != nullptr);
  vrfInfo->userIs(user.get(), true);
}

void VlanL3InfoStatus::delVrfUser(const Ptr<VrfUser>& user) {
  const Ptr<VrfInfo> vrfInfo = user->vrfInfo();
  MOX_ASSERT(kSource, "__null != vrfInfo", vrfInfo != nullptr);
  vrfInfo->userDel(user.get());
  // A VRF of the same name may have been made since this one left.
  if (vrfInfo->users() == 0 && this->vrfInfo(vrfInfo->vrfName()) == vrfInfo) vrfInfoDel(vrfInfo->vrfName());
}

void VlanL3InfoStatus::addVrfInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch) {
  MOX_ASSERT(kSource, "nullptr == vrfInterfaceWatch( watch->intfName() )",
             vrfInterfaceWatch(watch->intfName()) == nullptr);
  addVrfUser(watch);
  const Ptr<VrfInfo> vrfInfo = watch->vrfInfo();
  MOX_ASSERT(kSource, "__null != vrfInfo", vrfInfo != nullptr);
  // Registered here before the VRF's watchers hear of it: they resolve the index at once, and that may come
  // back here.
  vrfInterfaceWatchIs(watch->intfName(), watch);
  vrfInfo->interfaceWatchIs(watch.get());
}

void VlanL3InfoStatus::delVrfInterfaceWatch(const Ptr<VrfInterfaceWatch>& watch) {
  MOX_ASSERT(kSource, "watch == vrfInterfaceWatch( watch->intfName() )",
             watch == vrfInterfaceWatch(watch->intfName()));
  const Ptr<VrfInfo> vrfInfo = watch->vrfInfo();
  MOX_ASSERT(kSource, "__null != vrfInfo", vrfInfo != nullptr);
  vrfInfo->interfaceWatchDel(watch->intfName());
  delVrfUser(watch);
  vrfInterfaceWatchDel(watch->intfName());
}

Ptr<VrfInterfaceWatch> VlanL3InfoStatus::findOrCreateVrfInterfaceWatch(const Mox::String& vrfName,
                                                                       const Mox::String& intfName) {
  if (Ptr<VrfInterfaceWatch> watch = vrfInterfaceWatch(intfName)) {
    MOX_ASSERT(kSource, "watch->vrfInfo()->vrfName() == vrfName", watch->vrfInfo()->vrfName() == vrfName);
    return watch;
  }
  auto watch = Mox::make<VrfInterfaceWatch>(vrfInfoIs(vrfName), intfName);
  addVrfInterfaceWatch(watch);
  return watch;
}

void VlanL3InfoStatus::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "VlanL3InfoStatus");
  context.attribute(indent, "initialArpSuppressionStatusSync", initialArpSuppressionStatusSync());
  context.line(indent, "VlanL3Info #" + std::to_string(vlanL3Infos()));
  for (const auto& [vlanId, info] : vlanL3InfoCollection()) {
    Mox::String text =
        info->toStrep() + " kniIntfIfIndex=" + std::to_string(info->kniIntfIfIndex()) + " ipAddress=[";
    for (const auto& [address, active] : info->ipAddressCollection()) text += " " + address.toStrep();
    context.line(indent + 2, text + " ]");
  }
  context.line(indent, "VrfInfo #" + std::to_string(vrfInfos()));
  for (const auto& [name, vrfInfo] : vrfInfoCollection()) context.child(indent + 2, vrfInfo, "VrfInfo");
}

void EnabledVlans::dumpState(Orb::DumpContext& context, int indent) const {
  Mox::String text = "EnabledVlans #" + std::to_string(vlanIds()) + ":";
  for (const auto& [vlanId, present] : vlanIdCollection()) text += " " + vlanId.toStrep();
  context.line(indent, text);
}

}  // namespace ArpSuppression
