#include "ArpSuppression/VrfUseTracker.h"

#include "ArpSuppression/Trace.h"
#include "Mox/Assert.h"

namespace ArpSuppression {

namespace {
constexpr char kSource[] = "ArpSuppression/VrfUseTracker";
}

void VrfUseTracker::referenceVrf(const Ptr<VrfInfo>& vrfInfo) {
  const bool alreadyPresent = vrfUserHas(vrfInfo.get());
  const std::uint32_t count = vrfReferenceCount(vrfInfo.get());
  TRACE8("vrfInfo=" << vrfInfo << " alreadyPresent=" << alreadyPresent << " vrfReferenceCount=" << count);
  if (alreadyPresent) {
    MOX_ASSERT(kSource, "vrfReferenceCountHas( vrfInfo )", vrfReferenceCountHas(vrfInfo.get()));
    vrfReferenceCountIs(vrfInfo.get(), count + 1);
    return;
  }
  const auto user = Mox::make<VrfUser>(vrfInfo);
  vrfUserIs(vrfInfo.get(), user);
  if (vrfInfo) vlanL3InfoStatus_->addVrfUser(user);
  vrfReferenceCountIs(vrfInfo.get(), 1);
}

void VrfUseTracker::releaseVrf(const Ptr<VrfInfo>& vrfInfo) {
  const std::uint32_t referenceCount = vrfReferenceCount(vrfInfo.get());
  TRACE8("vrfInfo=" << vrfInfo << " vrfReferenceCount=" << referenceCount);
  MOX_ASSERT(kSource, "0 != referenceCount", referenceCount != 0);
  MOX_ASSERT(kSource, "vrfUserHas( vrfInfo )", vrfUserHas(vrfInfo.get()));
  if (referenceCount != 1) {
    vrfReferenceCountIs(vrfInfo.get(), referenceCount - 1);
    return;
  }
  vrfReferenceCountDel(vrfInfo.get());
  const Ptr<VrfUser> user = vrfUser(vrfInfo.get());
  vrfUserDel(vrfInfo.get());
  if (vrfInfo) vlanL3InfoStatus_->delVrfUser(user);
}

void VrfUseTracker::dumpVrfReferences(Orb::DumpContext& context, int indent) const {
  context.line(indent, "vrfReferenceCount #" + std::to_string(vrfReferenceCounts()));
  for (const auto& [vrfInfo, user] : vrfUserCollection()) {
    context.line(indent + 2,
                 (vrfInfo ? vrfInfo->toStrep() : "NULL") + " " + std::to_string(vrfReferenceCount(vrfInfo)));
  }
}

}  // namespace ArpSuppression
