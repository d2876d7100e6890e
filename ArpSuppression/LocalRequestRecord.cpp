#include "ArpSuppression/LocalRequestRecord.h"

#include <algorithm>

#include "ArpSuppression/Trace.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/LocalRequestRecord";

constexpr auto kLater = [](const LocalRequestRecordEntry& a, const LocalRequestRecordEntry& b) {
  return a.lastRequestTime > b.lastRequestTime;
};

}  // namespace

bool LocalRequestRecord::recordLocalRequest(const RemoteBindingKey& key, double now, std::size_t limit) {
  double* const found = lastRequestTime_.find(key);
  TRACE8("remoteBindingKey=" << key << " e=" << (found != nullptr));
  if (found) {
    *found = now;
    return true;
  }
  if (entrys() >= limit) return false;
  lastRequestTime_.insert(key, now);
  line_.push_back({key, now});  // nothing in line is later: it is a heap as it stands
  return true;
}

void LocalRequestRecord::entryRequeue() {
  std::pop_heap(line_.begin(), line_.end(), kLater);
  line_.back().lastRequestTime = lastRequestTime(line_.back().remoteBindingKey);
  std::push_heap(line_.begin(), line_.end(), kLater);
}

bool LocalRequestRecord::entryDel(const RemoteBindingKey& key) {
  if (!lastRequestTime_.find(key)) return false;
  lastRequestTime_.take(key);
  if (line_.front().remoteBindingKey == key) {
    std::pop_heap(line_.begin(), line_.end(), kLater);
    line_.pop_back();
  } else {
    std::erase_if(line_, [&](const auto& entry) { return entry.remoteBindingKey == key; });
    std::make_heap(line_.begin(), line_.end(), kLater);
  }
  return true;
}

void LocalRequestRecord::entryDelAll() {
  Mox::HashMap<RemoteBindingKey, double>().swap(lastRequestTime_);
  line_.clear();
}

void LocalRequestRecord::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "LocalRequestRecord #entry=" + std::to_string(entrys()));
}

}  // namespace ArpSuppression
