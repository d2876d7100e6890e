#pragma once

#include <cstdint>

#include "Lanix/IntfId.h"
#include "Mox/Attribute.h"
#include "Mox/Strep.h"

namespace Interface {

// One interface of the system. Its identity is what matters: who holds a pointer to it knows the interface.
class IntfStatus final : public Mox::Entity {
 public:
  explicit IntfStatus(Lanix::IntfId intfId) : intfId_(intfId) {}
  const Lanix::IntfId& intfId() const { return intfId_; }
  MOX_MEMBERS()

 private:
  Lanix::IntfId intfId_;
};

// Every interface, at "interface/status/all".
class AllIntfStatusDir final : public Mox::Entity {
 public:
  MOX_CHILDREN(Lanix::IntfId, IntfStatus, intfStatus)
  MOX_MEMBERS(intfStatus)
};

// Those of this switch itself, at "interface/status/local".
class AllIntfStatusLocalDir final : public Mox::Entity {
 public:
  MOX_CHILDREN(Lanix::IntfId, IntfStatus, intfStatus)
  MOX_MEMBERS(intfStatus)
};

// The interfaces of the default network namespace by kernel index.
class DeviceIntfStatusDir final : public Mox::Entity {
 public:
  struct IntfStatusAndDeviceName {
    Mox::Ptr<const IntfStatus>
        intfStatus;  // null: the kernel has the device, the system has no interface of its name
    Mox::String deviceName;
    std::uint32_t ifIndex = 0;

    friend bool operator==(const IntfStatusAndDeviceName&, const IntfStatusAndDeviceName&) = default;
    // The interface's id, or the device's name when there is no interface.
    Mox::String toStrep() const { return intfStatus ? intfStatus->intfId().toStrep() : deviceName; }
  };

  explicit DeviceIntfStatusDir(Mox::String name) : name_(std::move(name)) {}
  const Mox::String& name() const { return name_; }

  MOX_MAP(std::uint32_t, IntfStatusAndDeviceName, intfStatusAndDeviceName)

 private:
  Mox::String name_;
};

}  // namespace Interface
