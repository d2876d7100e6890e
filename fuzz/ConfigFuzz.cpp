#include "fuzz/Input.h"
#include "host/Config.h"

// Any text is a configuration or is refused with lines for a person that name the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const Host::ConfigReading reading = Host::parseConfig(Fuzz::Input(data, size).text(), "some.json");
  const Host::Config& config = reading.config;
  if (reading.good()) {
    Fuzz::check(config.runDirectory.starts_with('/'), "an absolute run directory", config.runDirectory);
    for (const auto& [name, vrf] : config.vrfs)
      Fuzz::check(vrf.id >= 1 && vrf.id <= 16777214, "a VRF id in range", name);
    for (const auto& [vlanId, vlan] : config.vlans)
      Fuzz::check(vlanId >= 1 && vlanId <= 4094, "a VLAN id in range", std::to_string(vlanId));
  }
  for (const std::string& problem : reading.problems) {
    Fuzz::check(problem.starts_with("some.json: "), "a problem that names the file", problem);
    Fuzz::checkPrintable(problem);
  }
  return 0;
}
