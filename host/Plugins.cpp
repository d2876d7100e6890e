#include "host/Plugins.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <system_error>

namespace Host {

namespace {
constexpr const char* kEntry = "pluginAgentMake";  // what PLUGIN_AGENT defines
}

std::vector<std::string> libraryDirectories() {
  if (const char* directory = std::getenv(kLibraryDirectoryVariable)) return {directory};
  std::error_code ignored;
  const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", ignored);
  const std::filesystem::path here = program.parent_path();
  return {(here / PLUGIN_DIRECTORY).lexically_normal(), (here / "../lib").lexically_normal()};
}

Mox::Result<std::vector<std::string>> findPlugins(const std::vector<std::string>& names,
                                                  const std::vector<std::string>& directories) {
  std::vector<std::string> files;
  for (const std::string& name : names) {
    std::string looked;
    std::string found;
    for (const std::string& directory : directories) {
      const std::string file = directory + "/lib" + name + ".so";
      looked += (looked.empty() ? "" : " or ") + file;
      if (found.empty() && access(file.c_str(), R_OK) == 0) found = file;
    }
    if (found.empty()) {
      return Mox::Failure{"agents: the library of the plug-in " + name + " is not there: looked for " +
                          looked};
    }
    files.push_back(found);
  }
  return files;
}

Mox::Result<Mox::Ptr<Plugin::AgentBase>> loadPlugin(const std::string& name, const std::string& file) {
  void* const library = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  void* const entry = library ? dlsym(library, kEntry) : nullptr;
  if (!entry) {
    const char* const reason = dlerror();
    return Mox::Failure{"agents: the plug-in " + name +
                        " cannot be loaded: " + (reason ? reason : file + " has no entry")};
  }
  auto* const make = reinterpret_cast<Plugin::AgentBase* (*)(const char*)>(entry);
  const std::string none = "agents: the plug-in " + name + " made no agent";
  try {
    if (auto agent = Mox::Ptr<Plugin::AgentBase>::adopt(make(name.c_str()))) return agent;
  } catch (const std::exception& error) {
    return Mox::Failure{none + ": " + error.what()};
  }
  return Mox::Failure{none};
}

}  // namespace Host
