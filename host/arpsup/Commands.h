#pragma once

#include <string>
#include <vector>

// What `arpsup` does, a function a command; each returns the exit status and has written its output and
// errors.

namespace Host {

struct CommonOptions {
  std::string runDirectory;
  bool json = false;
};

int showStatus(const CommonOptions& options);
// `watchSeconds` 0: once.
int showCounters(const CommonOptions& options, bool nonzero, double watchSeconds);
// No path: the list of paths.
int showState(const CommonOptions& options, const std::string& path);
int showTechSupport(const CommonOptions& options);
int setState(const CommonOptions& options, const std::string& path, const std::string& value);
int applyFile(const CommonOptions& options, const std::string& file);

int addRemote(const CommonOptions& options, const std::string& vlan, const std::string& ip,
              const std::string& mac, bool localMultihomed);
int deleteRemote(const CommonOptions& options, const std::string& vlan, const std::string& ip);
int clearRemote(const CommonOptions& options);
int loadRemote(const CommonOptions& options, const std::string& file, bool skipBad);

// Writes one line "arpsup: ..." to stderr; returns `status`.
int fail(int status, const std::string& text);

}  // namespace Host
