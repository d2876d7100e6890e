#include <CLI/CLI.hpp>
#include <csignal>
#include <string>

#include "host/Config.h"
#include "host/arpsup/Client.h"
#include "host/arpsup/Commands.h"

// arpsup: the command line of the agent-host.

namespace {

// A command with an example behind its description; `run` makes its exit status.
CLI::App* command(CLI::App& parent, int& status, const char* name, const std::string& description,
                  const std::string& examples, std::function<int()> run) {
  CLI::App* app = parent.add_subcommand(name, description);
  app->footer("Examples:\n" + examples);
  app->fallthrough();
  if (run) app->callback([&status, run = std::move(run)] { status = run(); });
  return app;
}

}  // namespace

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  CLI::App app("Shows and sets what the ARP suppression of this switch does and knows.");
  app.footer(
      "Exit status: 0 done, 1 refused or not found, 2 wrong usage or no agent-host.\n"
      "Changing anything needs root; looking needs root or the group arpsup.\n\n"
      "Examples:\n"
      "  arpsup status\n"
      "  arpsup counters --nonzero --watch 2\n"
      "  arpsup show evpn/status\n"
      "  arpsup set evpn/status '{\"vlanToDot1q\": {\"10\": 10}}'\n"
      "  arpsup remote add 10 10.0.0.2 02:00:00:00:00:02\n\n"
      "`arpsup COMMAND --help` tells more.");
  Host::CommonOptions options;
  options.runDirectory = Host::kDefaultRunDirectory;
  app.add_option("--run-dir", options.runDirectory, "run directory of the agent-host")
      ->envname("ARPSUP_RUN_DIR")
      ->capture_default_str();
  app.add_flag("--json", options.json, "write what is shown as JSON");
  app.require_subcommand(1);
  int status = Host::kDone;

  command(app, status, "status", "whether suppression runs, on which VLANs, and how much it knows",
          "  arpsup status\n  arpsup status --json | jq .activeVlans",
          [&] { return Host::showStatus(options); });

  bool nonzero = false;
  double watchSeconds = 0;
  CLI::App* counters =
      command(app, status, "counters", "what happened to ARP messages, counted since the start",
              "  arpsup counters --nonzero\n  arpsup counters --watch 2",
              [&] { return Host::showCounters(options, nonzero, watchSeconds); });
  counters->add_flag("--nonzero", nonzero, "leave out those that are zero");
  counters->add_option("--watch", watchSeconds, "show them again after so many seconds, until interrupted")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 86400.0));

  std::string path;
  CLI::App* show =
      command(app, status, "show", "the state at a path as JSON, or the list of paths",
              "  arpsup show\n  arpsup show arpSuppression/status\n  arpsup show --json bridging/status",
              [&] { return Host::showState(options, path); });
  show->add_option("PATH", path, "as `arpsup show` lists it")->type_name("");

  std::string value;
  CLI::App* set =
      command(app, status, "set", "merge JSON into the state at a path; null deletes; all or nothing",
              "  arpsup set bridging/config '{\"bridgeMacAddr\": \"02:00:00:00:be:ef\"}'\n"
              "  arpsup set evpn/status '{\"vlanToDot1q\": {\"10\": 10, \"11\": null}}'",
              [&] { return Host::setState(options, path, value); });
  set->add_option("PATH", path, "as `arpsup show` lists it")->required()->type_name("");
  set->add_option("JSON", value, "an object of the members to change")->required()->type_name("");

  std::string file;
  CLI::App* apply = command(app, status, "apply", "merge a file of many paths; all or nothing",
                            "  arpsup apply state.json\n"
                            "  echo '{\"evpn/status\": {\"mplsConfigured\": true}}' | arpsup apply -",
                            [&] { return Host::applyFile(options, file); });
  apply->add_option("FILE", file, "a JSON object by path, comments allowed; - is standard input")
      ->required()
      ->type_name("");

  CLI::App* remote =
      command(app, status, "remote", "the hosts behind other switches that ARP is answered for",
              "  arpsup remote add 10 10.0.0.2 02:00:00:00:00:02\n"
              "  arpsup remote load hosts.csv",
              {});
  remote->require_subcommand(1);
  std::string vlan;
  std::string ip;
  std::string mac;
  bool localMultihomed = false;
  const auto addressOptions = [&](CLI::App* to) {
    to->add_option("VLAN", vlan, "1 to 4094")->required()->type_name("");
    to->add_option("IP", ip, "IPv4 or IPv6 address")->required()->type_name("");
  };
  CLI::App* add = command(*remote, status, "add", "add a remote binding, or change it",
                          "  arpsup remote add 10 10.0.0.2 02:00:00:00:00:02\n"
                          "  arpsup remote add 10 10.0.0.3 02:00:00:00:00:03 --local-multihomed",
                          [&] { return Host::addRemote(options, vlan, ip, mac, localMultihomed); });
  addressOptions(add);
  add->add_option("MAC", mac, "like 02:00:00:00:00:02")->required()->type_name("");
  add->add_flag("--local-multihomed", localMultihomed,
                "the host is on an Ethernet segment of this switch as well");
  addressOptions(command(*remote, status, "del", "delete a remote binding", "  arpsup remote del 10 10.0.0.2",
                         [&] { return Host::deleteRemote(options, vlan, ip); }));
  command(*remote, status, "clear", "delete every remote binding", "  arpsup remote clear",
          [&] { return Host::clearRemote(options); });
  bool skipBad = false;
  CLI::App* load =
      command(*remote, status, "load", "add the remote bindings of a file; nothing when a line is bad",
              "  arpsup remote load hosts.csv\n  arpsup remote load --skip-bad hosts.jsonl\n"
              "  echo 10,10.0.0.2,02:00:00:00:00:02 | arpsup remote load -",
              [&] { return Host::loadRemote(options, file, skipBad); });
  load->add_option(
          "FILE", file,
          "CSV vlan,ip,mac[,localMultihomed], or a JSON object a line "
          "{\"vlan\": 10, \"ip\": \"10.0.0.2\", \"mac\": \"02:00:00:00:00:02\"}; - is standard input")
      ->required()
      ->type_name("");
  load->add_flag("--skip-bad", skipBad, "load the other lines when some are bad");

  command(app, status, "tech-support", "the state of every object of the agent, for those who develop it",
          "  arpsup tech-support > tech-support.txt", [&] { return Host::showTechSupport(options); });

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    const std::vector<std::string> unknown = app.remaining();
    const std::string what =
        unknown.empty() ? error.what() : "unknown command or argument \"" + unknown.front() + "\"";
    return Host::fail(Host::kUsage, what + "; see arpsup --help");
  }
  return status;
}
