#pragma once

#include <string>
#include <vector>

#include "Mox/Result.h"
#include "Plugin/AgentBase.h"

namespace Host {

// Overrides where plug-in libraries are looked for, for tests of a tree that is not installed.
inline constexpr const char* kLibraryDirectoryVariable = "ARPSUP_LIBRARY_DIR";

// Where this program's plug-ins are: the directory that the environment names, else, seen from where the
// program lies, the one they are installed to ("../lib/arp-suppression" or as the distribution has it) and,
// for a tree that is not installed, "../lib".
std::vector<std::string> libraryDirectories();

// The file of each plug-in, in the same order. When one is missing the refusal names the files that were
// looked for.
Mox::Result<std::vector<std::string>> findPlugins(const std::vector<std::string>& names,
                                                  const std::vector<std::string>& directories);

// Loads a plug-in and makes its agent. Refused when the library cannot be loaded, is no plug-in or its agent
// cannot be made. A library stays loaded until the process ends.
Mox::Result<Mox::Ptr<Plugin::AgentBase>> loadPlugin(const std::string& name, const std::string& file);

}  // namespace Host
