#include "host/CleanUp.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <set>
#include <vector>

#include "Lanix/NamespaceGuard.h"
#include "Memtab/Directory.h"
#include "host/LockFile.h"
#include "host/Plugins.h"
#include "host/Protocol.h"
#include "host/RunDirectory.h"
#include "host/StatePaths.h"

namespace Host {

namespace {

namespace fs = std::filesystem;

constexpr const char* kNamespaceNames = "/run/netns";
constexpr const char* kTraceRing = ".tl";

// The inode of the one that this thread is in; 0: not known.
ino_t networkNamespace() {
  struct stat status {};
  return stat("/proc/self/ns/net", &status) == 0 ? status.st_ino : 0;
}

class CleanUp {
 public:
  CleanUp(const std::optional<Config>& config, const CleanUpLines& lines)
      : runDirectory_(config ? config->runDirectory : kDefaultRunDirectory),
        metrics_(config ? config->metrics : ""),
        lines_(lines) {
    if (!config) {
      for (const std::string& name : namesIn(kNamespaceNames)) namespaces_.insert(name);
    } else {
      for (const auto& [name, vrf] : config->vrfs)
        if (!vrf.networkNamespace.empty()) namespaces_.insert(vrf.networkNamespace);
    }
  }

  bool run() {
    if (geteuid() != 0) return refused("only root can clean up");
    auto network = lockNetworkNamespace(runDirectory_);
    if (!network) return refused(network.error());
    if (fs::exists(runDirectory_)) {
      // It goes with everything else.
      auto directory = RunDirectory::open(runDirectory_);
      if (!directory) return refused(directory.error());
      cleanUpProcess(**directory);
    }
    std::error_code none;
    if (fs::is_socket(metrics_, none)) remove("metrics socket", metrics_);
    cleanUpNetworks();
    network->reset();
    removeLocks();
    if (good_ && !any_) lines_.removed("nothing was left");
    return good_;
  }

 private:
  static std::vector<std::string> namesIn(const std::string& folder) {
    std::vector<std::string> names;
    std::error_code none;
    for (const auto& entry : fs::directory_iterator(folder, none)) names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
  }

  bool refused(const std::string& why) {
    good_ = false;
    lines_.refused(why);
    return false;
  }
  void removed(const std::string& what) {
    any_ = true;
    lines_.removed("removed " + what);
  }
  // A file, or a folder with all that is in it.
  void remove(const std::string& what, const fs::path& path) {
    std::error_code error;
    const auto count = fs::remove_all(path, error);
    if (error) {
      refused(path.string() + ": " + error.message());
    } else if (count != 0) {
      removed(what + " " + path.string());
    }
  }

  void cleanUpProcess(const RunDirectory& directory) {
    const auto tables = Memtab::Directory::forRunDir(runDirectory_);
    for (const std::string& table : tables.tables()) removed("shared table " + table);
    for (const std::string& file : tables.damaged()) removed("damaged table " + file);
    tables.removeAll();
    remove("kept state", directory.stateDirectory());
    remove("control socket", runDirectory_ + "/" + kControlSocket);
    for (const std::string& name : namesIn(runDirectory_))
      if (name.ends_with(kTraceRing)) remove("trace ring", runDirectory_ + "/" + name);
    remove("lock", runDirectory_ + "/lock");
    std::error_code hasMore;  // which is somebody else's
    if (fs::remove(runDirectory_, hasMore)) removed("run directory " + runDirectory_);
  }

  void cleanUpNetworks() {
    std::vector<Mox::Ptr<Plugin::AgentBase>> agents;
    for (const char* name : kPlugins) {
      const auto libraries = findPlugins({name}, libraryDirectories());
      const auto agent = libraries ? loadPlugin(name, libraries->front())
                                   : Mox::Result<Mox::Ptr<Plugin::AgentBase>>(libraries.failure());
      if (agent) {
        agents.push_back(*agent);
      } else {
        refused(agent.error());
      }
    }
    const auto ask = [&](const std::string& where) {
      const Plugin::CleanUpReport report{[&](const std::string& what) { removed(what + where); },
                                         [&](const std::string& why) { refused(why + where); }};
      for (auto agent = agents.rbegin(); agent != agents.rend(); ++agent) (*agent)->cleanUp(report);
    };
    ask("");
    const auto own = networkNamespace();
    for (const std::string& name : namespaces_) {
      const Lanix::NamespaceGuard guard(name);
      if (!guard) {
        refused("network namespace " + name + ": " + guard.error());
        continue;
      }
      if (networkNamespace() == own) continue;
      const auto lock = lockNetworkNamespace(runDirectory_);
      if (lock) {
        ask(" in the network namespace " + name);
      } else if (lock.number() == EWOULDBLOCK) {
        lines_.refused("network namespace " + name + " is left alone: " + lock.error());
      } else {
        refused("network namespace " + name + ": " + lock.error());
      }
    }
  }

  // Those whose holders were killed.
  void removeLocks() {
    for (const std::string& name : namesIn(kNamespaceLocks)) {
      const std::string file = std::string(kNamespaceLocks) + "/" + name;
      if (LockFile::take(file, "", LockFile::AtEnd::goes)) removed("lock " + file);
    }
    std::error_code hasMore;
    fs::remove(kNamespaceLocks, hasMore);
  }

  const std::string runDirectory_;
  const std::string metrics_;  // the path of a socket, among others
  std::set<std::string> namespaces_;
  const CleanUpLines& lines_;
  bool good_ = true;
  bool any_ = false;
};

}  // namespace

bool cleanUp(const std::optional<Config>& config, const CleanUpLines& lines) {
  return CleanUp(config, lines).run();
}

}  // namespace Host
