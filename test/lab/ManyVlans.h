#pragma once

#include <string>

#include "lab/Lab.h"

namespace Lab {

// A switch of many VLANs, in the namespace that the calling thread is in: VLAN 7 is the bridge "vlan7", with
// the access port "Ethernet7" and the tunnel port "core7", whose other ends are in `outside`. The devices go
// with the object, at once: left to the kernel, it would take them one by one with the namespace, and keep all
// others waiting.
class ManyVlans {
 public:
  ManyVlans(unsigned vlans, const Namespace& outside);
  ~ManyVlans();
  ManyVlans(const ManyVlans&) = delete;
  ManyVlans& operator=(const ManyVlans&) = delete;

  // Members of the daemon's configuration, as text: "\"vlans\": {...}".
  std::string configuration() const;

 private:
  const unsigned vlans_;
};

}  // namespace Lab
