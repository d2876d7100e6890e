#pragma once

#include <cstdint>
#include <map>

#include "Interface/Directory.h"
#include "KernelNetInfo/Status.h"
#include "Lanix/NamespaceName.h"
#include "Mox/Notifiee.h"

namespace Interface {

// Ties the kernel devices of one network namespace to the system's interfaces. The manager of the default
// namespace keeps the DeviceIntfStatusDir: for each kernel index the device's name and, when there is one of
// that name, the interface. Those of other namespaces register nothing there: kernel indices repeat from
// namespace to namespace.
class NetNsIntfStatusManager final : public Mox::Entity {
 public:
  NetNsIntfStatusManager(Lanix::NamespaceName netNs, Mox::Ptr<const KernelNetInfo::Status> kni,
                         Mox::Ptr<const AllIntfStatusDir> allIntfStatusDir,
                         Mox::Ptr<const AllIntfStatusLocalDir> allIntfStatusLocalDir,
                         Mox::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir);
  ~NetNsIntfStatusManager() override;

  // A device that only the kernel has, and how the system calls it. It gets an entry like any other, without
  // an interface.
  void kernelOnlyInterfaceIs(const Mox::String& deviceName, const Mox::String& systemName);

 private:
  void handleDevice(const Mox::String& deviceName);
  void handleIntfStatus(const Lanix::IntfId& intfId);
  void registerDevice(const Mox::String& deviceName, std::uint32_t ifIndex);
  Mox::Ptr<const IntfStatus> intfStatusOf(const Mox::String& deviceName) const;

  const bool keepsDirectory_;
  Mox::Notifiee<const KernelNetInfo::Status> kni_;
  Mox::Notifiee<const AllIntfStatusDir> allIntfStatusDir_;
  Mox::Notifiee<const AllIntfStatusLocalDir> allIntfStatusLocalDir_;
  Mox::Ptr<DeviceIntfStatusDir> deviceIntfStatusDir_;
  std::map<Mox::String, std::uint32_t> indexOf_;  // device name → the index it is registered under
  std::map<Mox::String, Mox::String> kernelOnly_;
};

// The managers of all namespaces that an agent serves.
class NetNsIntfStatusManagerRoot final : public Mox::Entity {
 public:
  MOX_CHILDREN(Lanix::NamespaceName, NetNsIntfStatusManager, netNsIntfStatusManager)
};

}  // namespace Interface
