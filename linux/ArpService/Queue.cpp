#include "ArpService/Queue.h"

#include <utility>

namespace ArpService {
namespace {

constexpr std::size_t kKeysPerStep = 64;

}  // namespace

void Queue::add(const Key& key) {
  Record& record = records_[key];
  settled_ -= isSettled(record) ? 1 : 0;
  record.settled = false;
  if (!std::exchange(record.waiting, true)) waiting_.push_back(key);
}

void Queue::addFound(const Key& key) {
  add(key);
  records_[key].found = true;
}

void Queue::addUnsettled(const Key& key) {
  if (const auto at = records_.find(key); at == records_.end() || !isSettled(at->second)) add(key);
}

// No interface's name sorts before "!".
Key Queue::firstOf(const Lanix::IpGenAddr& address) { return {address, Lanix::IntfId::fromName("!")}; }

void Queue::addAddress(const Lanix::IpGenAddr& address) {
  for (auto at = records_.lower_bound(firstOf(address)); at != records_.end() && at->first.address == address;
       ++at)
    add(at->first);
}

Queue::Taken Queue::take() {
  const Key key = waiting_.front();
  waiting_.pop_front();
  Record& record = records_[key];
  record.waiting = false;
  record.round = round_;
  return {key, record.given, std::exchange(record.found, false)};
}

void Queue::settle(const Key& key, bool given) {
  Record& record = records_[key];
  if (record.waiting) return;
  settled_ += isSettled(record) ? 0 : 1;
  record.settled = true;
  record.given = given;
  record.round = round_;
}

void Queue::forget(const Key& key) {
  const auto at = records_.find(key);
  if (at == records_.end() || at->second.waiting) return;
  settled_ -= isSettled(at->second) ? 1 : 0;
  records_.erase(at);
  if (const auto parked = parked_.find(key.intf); parked != parked_.end()) parked->second.erase(key);
}

void Queue::unpark(const Lanix::IntfId& intf) {
  auto keys = parked_.extract(intf);
  if (keys && !keys.mapped().empty()) returning_.push_back(std::move(keys.mapped()));
}

bool Queue::unparkStep() {
  if (returning_.empty()) return false;
  std::set<Key>& keys = returning_.front();
  for (std::size_t i = 0; i < kKeysPerStep && !keys.empty(); ++i) add(keys.extract(keys.begin()).value());
  if (keys.empty()) returning_.pop_front();
  return true;
}

void Queue::unsettleAll() {
  firstRound_ = round_ + 1;
  settled_ = 0;
}

bool Queue::rescan(std::optional<Key>& bookmark, std::size_t max,
                   const std::function<bool(const Key&)>& gone) {
  auto at = bookmark ? records_.lower_bound(*bookmark) : records_.begin();
  for (; max != 0 && at != records_.end(); --max, ++at) {
    const auto& [key, record] = *at;
    const bool given = isSettled(record) && record.given;
    if ((record.round != round_ && !given) || gone(key)) add(key);
  }
  bookmark.reset();
  if (at != records_.end()) bookmark = at->first;
  return bookmark.has_value();
}

}  // namespace ArpService
