#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Mox/Result.h"

// What state there is: the one table of paths, their classes, who writes them and how long they last.

namespace Host {

// The plug-ins that a configuration may load, in the order in which they start, whatever order it names them
// in. They end in reverse: what the agent takes back when it stops must still reach the kernel.
inline constexpr const char* kKernelState = "KernelState";
inline constexpr const char* kKernelEvpn = "KernelEvpn";
inline constexpr const char* kArpService = "ArpService";
inline constexpr const char* kSoftForward = "SoftForward";
inline constexpr const char* kArpSuppression = "ArpSuppression";
inline constexpr const char* kPlugins[] = {kKernelState, kKernelEvpn, kArpService, kSoftForward,
                                           kArpSuppression};

// Paths that the host itself writes, and the collection of VRF ids.
inline constexpr const char* kVrfIdPath = "vrf/vrfIdMapStatus";
inline constexpr const char* kVrfIdToName = "vrfIdToName";
inline constexpr const char* kRemoteBindingPath = "arpSuppression/remoteBindingConfig/evpn";

enum class Storage { tree, sharedMemory };

// Who may write a path by hand.
//
//   byHost   always the host: from the configuration's `state` and from operators. A plug-in that writes
//            there as well only fills what is not set.
//   byPlugin the plug-in `writer` while it is loaded, and nobody else; the host while it is not.
//   fixed    nobody by hand: the host at start, or all plug-ins.
enum class Writing { byHost, byPlugin, fixed };

struct StatePath {
  std::string path;
  const char* typeName;
  Storage storage;
  Writing writing;
  const char* writer;  // null unless byPlugin
  // Kept in the state store beyond the process, on behalf of the plug-in that writes it: while that one is
  // not loaded nothing is kept, and what was is erased. Everything else is rebuilt: by its writer, or, where
  // that is the host, from the configuration; what was set by hand lasts as long as the host.
  bool persistent;
};

// Every path but those of the network namespaces, of which there can be any number.
const std::vector<StatePath>& statePaths();

// Nothing when there is no such state. Takes "kni/ns/<namespace>/status" and trailing slashes as well.
std::optional<StatePath> findStatePath(std::string_view path);

// For messages: every path, joined by ", ".
std::string statePathNames();

// Whether one of these plug-ins writes the path.
bool writtenByPlugin(const StatePath& state, const std::vector<std::string>& loadedPlugins);

// Whether the path can be set by hand while these plug-ins are loaded, or why not.
Mox::Result<> settable(const StatePath& state, const std::vector<std::string>& loadedPlugins);

}  // namespace Host
