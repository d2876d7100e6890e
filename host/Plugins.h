#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Orb/AgentBase.h"

namespace Host {

// Overrides where plug-in libraries are looked for, for tests of a tree that is not installed.
inline constexpr const char* kLibraryDirectoryVariable = "ARPSUP_LIBRARY_DIR";

// Where this program's plug-ins are: the directory that the environment names, else, seen from where the program
// lies, the one they are installed to ("../lib/arp-suppression" or as the distribution has it) and, for a tree
// that is not installed, "../lib".
std::vector<std::string> libraryDirectories();

// The file of each plug-in, in the same order. Nothing, and `error` names the files that were looked for,
// when one is missing.
std::optional<std::vector<std::string>> findPlugins(const std::vector<std::string>& names,
                                                    const std::vector<std::string>& directories,
                                                    std::string& error);

// Loads a plug-in and makes its agent. Null, with `error`, when the library cannot be loaded or is no
// plug-in. A library stays loaded until the process ends.
Mox::Ptr<Orb::AgentBase> loadPlugin(const std::string& name, const std::string& file, std::string& error);

}  // namespace Host
