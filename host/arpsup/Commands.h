#pragma once

#include <string>
#include <vector>

#include "host/Bindings.h"

// What `arpsup` does, a function a command; each returns the exit status and has written its output and
// errors.

namespace Host {

struct CommonOptions {
  std::string runDirectory;
  bool json = false;
};

// Of its own: 0 good, 1 degraded, 2 failed or no daemon.
int showHealth(const CommonOptions& options);
int showStatus(const CommonOptions& options);
int showForwarding(const CommonOptions& options);
// `watchSeconds` 0: once.
int showCounters(const CommonOptions& options, bool nonzero, bool describe, double watchSeconds);
// No path: the list of paths.
int showState(const CommonOptions& options, const std::string& path);
// What is "" holds for all.
struct BindingFilter {
  std::string vlan, ip, mac, vrf, interface;
};
// `kind` is local or remote; "": both.
int showBindings(const CommonOptions& options, const std::string& kind, const BindingFilter& filter);
// By MAC or IP address.
int findHost(const CommonOptions& options, const std::string& address);
// No sender: any.
int explain(const CommonOptions& options, const std::string& vlan, const std::string& ip,
            const std::string& from);
// No path: all. Ends with the daemon, or when it is interrupted.
int monitor(const CommonOptions& options, const std::vector<std::string>& paths);
int showTechSupport(const CommonOptions& options);

struct TraceOptions {
  bool follow = false;
  bool all = false;                // earlier daemons too
  int level = 5;                   // and the more important ones below
  std::vector<std::string> texts;  // all of which a line has to have
  std::string vlan;
  std::string ip;
  std::string since;
};
int showTrace(const CommonOptions& options, const TraceOptions& trace);
struct EventOptions {
  bool follow = false;
  std::vector<std::string> kinds;  // none: all
  std::string vlan, ip, mac, since;
};
// Of all agent-hosts whose trace rings are still there, in the order of time.
int showEvents(const CommonOptions& options, const EventOptions& events);
int setState(const CommonOptions& options, const std::string& path, const std::string& value);
int applyFile(const CommonOptions& options, const std::string& file);
// Has the daemon read its configuration file again.
int reload(const CommonOptions& options);

int addRemote(const CommonOptions& options, const std::string& vlan, const std::string& ip,
              const std::string& mac, BindingFlags flags);
int deleteRemote(const CommonOptions& options, const std::string& vlan, const std::string& ip);
int clearRemote(const CommonOptions& options);
int loadRemote(const CommonOptions& options, const std::string& file, bool skipBad);

}  // namespace Host
