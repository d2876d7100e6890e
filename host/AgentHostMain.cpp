#include <sys/stat.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>

#include "Tracelet/Text.h"
#include "Tracelet/Trace.h"
#include "host/CleanUp.h"
#include "host/Daemon.h"
#include "host/Version.h"

// agent-host: loads the plug-ins that its configuration names and runs them until it is told to end.
//
// Exit status: 0 ended as told, the checked configuration is good, or nothing is left; 1 it cannot run, the
// configuration is wrong, or something could not be removed (stderr says why, a line each problem); 2 wrong
// usage.

namespace {

void report(const std::string& message) { Tracelet::writeLine("agent-host: " + message); }
void reportError(const std::string& message) {
  Tracelet::writeLine("agent-host: " + message, Tracelet::Priority::error);
}

// The journal names the file that it reads, for whoever has been given it: not for a shell behind a pipe.
bool stderrIsJournal() {
  const char* const named = std::getenv("JOURNAL_STREAM");
  struct stat status {};
  return named && fstat(STDERR_FILENO, &status) == 0 &&
         named == std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
}

// In UTC, as in the trace.
std::string timeText() {
  const std::time_t now = std::time(nullptr);
  std::tm utc{};
  char text[40] = "";
  if (gmtime_r(&now, &utc)) std::strftime(text, sizeof text, "%FT%TZ", &utc);
  return text;
}

int cleanUpAll(const std::optional<Host::Config>& config) {
  bool said = true;
  const auto removed = [&](const std::string& what) {
    said = std::puts(Tracelet::printable(what).c_str()) >= 0 && said;
  };
  const bool done = Host::cleanUp(config, {removed, reportError});
  said = std::fflush(stdout) == 0 && said;
  if (!said) reportError("what was removed could not be written");
  return done && said ? 0 : 1;
}

// What the kernel refuses where nobody can go on without it is thrown: a descriptor in the event loop, say.
int run(const std::string& file, Host::Config config) try {
  Tracelet::waitsIs(false);
  Orb::EventLoop loop;
  Host::Daemon daemon(loop, file, std::move(config), report);
  Mox::Result<> done = daemon.watchSignals();
  if (done) done = daemon.start();
  if (done) report(Host::versionOf("version") + " begins at " + timeText() + " with " + file);
  if (done) done = daemon.run();
  if (done && daemon.handsOver()) _exit(0);
  if (done) return 0;
  reportError(done.error());
  return 1;
} catch (const std::exception& error) {
  reportError(error.what());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  Tracelet::journalIs(stderrIsJournal());
  CLI::App app(
      "Runs the agents of a switch in the foreground; ends on SIGTERM or SIGINT, leaves everything to the "
      "next start on SIGUSR2, and reads its configuration again on SIGHUP. Logs to stderr.");
  std::string file = "/etc/arp-suppression/agent-host.json";
  app.add_option("--config", file, "the configuration file (JSON, comments allowed)")->capture_default_str();
  std::string checked;
  CLI::Option* const check =
      app.add_option("--check", checked,
                     "only read this configuration file, and say everything that is wrong")
          ->expected(0, 1)
          ->type_name("[FILE]");
  std::string cleaned;
  const CLI::Option* const cleanUp =
      app.add_option(
             "--clean-up", cleaned,
             "only remove what any run left on this machine, in the namespaces of this configuration's "
             "VRFs or, without one, in all that have a name; and say what")
          ->expected(0, 1)
          ->type_name("[FILE]")
          ->excludes(check);
  app.set_version_flag("--version", Host::versionOf("agent-host"));
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    reportError(std::string(error.what()) + "; see agent-host --help");
    return 2;
  }
  if (cleanUp->count() > 0 && cleaned.empty()) return cleanUpAll(std::nullopt);
  if (!checked.empty()) file = checked;
  if (!cleaned.empty()) file = cleaned;
  Host::ConfigReading reading = Host::readConfig(file);
  for (const std::string& problem : reading.problems) reportError(problem);
  if (!reading.good()) return 1;
  if (cleanUp->count() > 0) return cleanUpAll(reading.config);
  if (check->count() > 0) {
    for (const std::string& remark : Host::remarks(reading.config)) report(file + ": " + remark);
    return 0;
  }
  return run(file, std::move(reading.config));
}
