#include "fuzz/Input.h"
#include "host/Config.h"

// Any text is a configuration or is refused with one line for a person that names the file.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const auto config = Host::parseConfig(Fuzz::Input(data, size).text(), "some.json");
  if (config) {
    Fuzz::check(config->runDirectory.starts_with('/'), "an absolute run directory", config->runDirectory);
    for (const auto& [name, vrf] : config->vrfs)
      Fuzz::check(vrf.id >= 1 && vrf.id <= 16777214, "a VRF id in range", name);
    for (const auto& [vlanId, vlan] : config->vlans)
      Fuzz::check(vlanId >= 1 && vlanId <= 4094, "a VLAN id in range", std::to_string(vlanId));
  } else {
    const std::string& error = config.error();
    Fuzz::check(error.starts_with("some.json: "), "an error that names the file", error);
    Fuzz::check(error.find('\n') == std::string::npos, "an error of one line", error);
  }
  return 0;
}
