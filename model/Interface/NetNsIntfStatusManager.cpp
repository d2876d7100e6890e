#include "Interface/NetNsIntfStatusManager.h"

namespace Interface {

NetNsIntfStatusManager::NetNsIntfStatusManager(Lanix::NamespaceName netNs,
                                               Mox::Ptr<const KernelNetInfo::Status> kni,
                                               Mox::Ptr<const AllIntfStatusDir> allIntfStatusDir,
                                               Mox::Ptr<const AllIntfStatusLocalDir> allIntfStatusLocalDir,
                                               Mox::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir)
    : keepsDirectory_(netNs == Lanix::kDefaultNamespace && deviceIntfStatusDir),
      kni_(kni),
      allIntfStatusDir_(std::move(allIntfStatusDir)),
      allIntfStatusLocalDir_(std::move(allIntfStatusLocalDir)),
      deviceIntfStatusDir_(std::move(deviceIntfStatusDir)) {
  if (!keepsDirectory_ || !kni) return;
  kni_.on(KernelNetInfo::Status::interfaceChanged,
          [this](const Mox::String& device) { handleDevice(device); });
  allIntfStatusDir_.on(AllIntfStatusDir::intfStatusChanged,
                       [this](const Lanix::IntfId& id) { handleIntfStatus(id); });
  allIntfStatusLocalDir_.on(AllIntfStatusLocalDir::intfStatusChanged,
                            [this](const Lanix::IntfId& id) { handleIntfStatus(id); });
  for (const auto& [device, interface] : kni->interfaceCollection())
    registerDevice(device, interface.ifIndex);
}

NetNsIntfStatusManager::~NetNsIntfStatusManager() {
  for (const auto& [device, ifIndex] : indexOf_) deviceIntfStatusDir_->intfStatusAndDeviceNameDel(ifIndex);
}

void NetNsIntfStatusManager::kernelOnlyInterfaceIs(const Mox::String& deviceName,
                                                   const Mox::String& systemName) {
  kernelOnly_[deviceName] = systemName;
  if (keepsDirectory_ && kni_) handleDevice(deviceName);
}

Mox::Ptr<const IntfStatus> NetNsIntfStatusManager::intfStatusOf(const Mox::String& deviceName) const {
  if (kernelOnly_.contains(deviceName)) return {};
  const auto intfId = Lanix::IntfId::fromName(deviceName);
  Mox::Ptr<const IntfStatus> status;
  if (allIntfStatusDir_) status = allIntfStatusDir_->intfStatus(intfId);
  if (!status && allIntfStatusLocalDir_) status = allIntfStatusLocalDir_->intfStatus(intfId);
  return status;
}

void NetNsIntfStatusManager::registerDevice(const Mox::String& deviceName, std::uint32_t ifIndex) {
  indexOf_[deviceName] = ifIndex;
  deviceIntfStatusDir_->intfStatusAndDeviceNameIs(ifIndex, {intfStatusOf(deviceName), deviceName, ifIndex});
}

void NetNsIntfStatusManager::handleDevice(const Mox::String& deviceName) {
  const std::uint32_t now = kni_->interface(deviceName).ifIndex;
  if (auto before = indexOf_.find(deviceName); before != indexOf_.end() && before->second != now) {
    const std::uint32_t old = before->second;
    indexOf_.erase(before);
    // A renamed device keeps its index, which its new name may have registered already.
    if (deviceIntfStatusDir_->intfStatusAndDeviceName(old).deviceName == deviceName) {
      deviceIntfStatusDir_->intfStatusAndDeviceNameDel(old);
    }
  }
  if (now != 0) registerDevice(deviceName, now);
}

void NetNsIntfStatusManager::handleIntfStatus(const Lanix::IntfId& intfId) {
  for (const auto& [device, ifIndex] : indexOf_) {
    if (Lanix::IntfId::fromName(device) == intfId) {
      registerDevice(device, ifIndex);
      return;
    }
  }
}

}  // namespace Interface
