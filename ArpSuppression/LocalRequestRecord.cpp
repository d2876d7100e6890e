#include "ArpSuppression/LocalRequestRecord.h"

#include "ArpSuppression/Trace.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/LocalRequestRecord";
}

void LocalRequestRecord::recordLocalRequest(const RemoteBindingKey& key, double now) {
  AgeList::iterator* const found = index_.find(key);
  TRACE8("remoteBindingKey=" << key << " e=" << (found != nullptr));
  if (!found) {
    index_.insert(key, ageList_.insert(ageList_.end(), {key, now}));
    return;
  }
  (*found)->lastRequestTime = now;
  ageList_.splice(ageList_.end(), ageList_, *found);
}

bool LocalRequestRecord::entryDel(const RemoteBindingKey& key) {
  if (!index_.find(key)) return false;
  ageList_.erase(index_.take(key));
  return true;
}

void LocalRequestRecord::entryDelAll() {
  while (!ageList_.empty()) entryDel(RemoteBindingKey(ageList_.front().remoteBindingKey));
}

void LocalRequestRecord::dumpState(Orb::DumpContext& context, int indent) const {
  context.line(indent, "LocalRequestRecord #entry=" + std::to_string(entrys()));
}

}  // namespace ArpSuppression
