#include "ArpService/Queue.h"

#include <utility>

namespace ArpService {
namespace {

constexpr std::size_t kKeysPerStep = 64;

}  // namespace

Queue::Record& Queue::record(const Key& key) {
  Record* const known = records_.find(key);
  return known ? *known : records_.insert(key, {});
}

void Queue::add(const Key& key) {
  Record& added = record(key);
  settled_ -= isSettled(added) ? 1 : 0;
  added.settled = false;
  if (!std::exchange(added.waiting, true)) waiting_.push_back(key);
}

void Queue::addFound(const Key& key) {
  add(key);
  record(key).found = true;
}

void Queue::addUnsettled(const Key& key) {
  if (const Record* const known = records_.find(key); !known || !isSettled(*known)) add(key);
}

// No interface's name sorts before "!".
Key Queue::firstOf(const Lanix::IpGenAddr& address) { return {address, Lanix::IntfId::fromName("!")}; }

void Queue::addAddress(const Lanix::IpGenAddr& address) {
  for (auto at = records_.lowerBound(firstOf(address)); at != records_.end() && at->key.address == address;
       ++at)
    add(at->key);
}

Queue::Taken Queue::take() {
  const Key key = waiting_.front();
  waiting_.pop_front();
  Record& taken = record(key);
  taken.waiting = false;
  taken.round = round_;
  return {key, taken.given, std::exchange(taken.found, false)};
}

void Queue::settle(const Key& key, bool given) {
  Record& settled = record(key);
  if (settled.waiting) return;
  settled_ += isSettled(settled) ? 0 : 1;
  settled.settled = true;
  settled.given = given;
  settled.round = round_;
}

void Queue::forget(const Key& key) {
  const Record* const known = records_.find(key);
  if (!known || known->waiting) return;
  settled_ -= isSettled(*known) ? 1 : 0;
  records_.take(key);
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
  auto at = bookmark ? records_.lowerBound(*bookmark) : records_.begin();
  for (; max != 0 && at != records_.end(); --max, ++at) {
    const auto& [key, record] = *at;
    const bool given = isSettled(record) && record.given;
    if ((record.round != round_ && !given) || gone(key)) add(key);
  }
  bookmark.reset();
  if (at != records_.end()) bookmark = at->key;
  return bookmark.has_value();
}

}  // namespace ArpService
