#include "host/arpsup/CommandLine.h"

#include <poll.h>

#include <algorithm>
#include <cstdlib>

#include "Switch/Event.h"
#include "host/Config.h"
#include "host/Version.h"
#include "host/arpsup/Client.h"
#include "host/arpsup/Output.h"

namespace Host {

namespace {

constexpr const char* kLook = "Look";
constexpr const char* kChange = "Change";
constexpr const char* kAsk = "Find out why";
constexpr const char* kRunDirectoryVariable = "ARPSUP_RUN_DIR";
// Not a command for people: what the completion of the shell asks with.
constexpr const char* kCompleteWords = "complete-words";

std::vector<std::string> kindNames() {
  const auto names = moxEnumNames(Switch::EventKind());
  return {names.begin(), names.end()};
}

}  // namespace

CommandLine::CommandLine()
    : app_("Shows and sets what the ARP suppression of this switch does and knows.", "arpsup") {
  app_.footer(
      "Begin with:\n"
      "  arpsup health                     is anything wrong, and what is to be done?\n"
      "  arpsup status                     does it run, and on which VLANs?\n"
      "  arpsup explain 10 10.0.10.99      what would happen to a request for this address?\n"
      "  arpsup trace --ip 10.0.10.99      what did happen to those that came?\n"
      "  arpsup COMMAND --help             more about a command, with examples\n\n"
      "Exit status: 0 done, 1 refused or not found, 2 wrong usage or no agent-host; of health: 0 good,\n"
      "1 degraded, 2 failed or no agent-host.\n"
      "Changing anything needs root; looking needs root or the group arpsup.");
  options_.runDirectory = kDefaultRunDirectory;
  app_.add_option("--run-dir", options_.runDirectory, "run directory of the agent-host")
      ->envname(kRunDirectoryVariable)
      ->capture_default_str()
      ->take_last()
      ->type_name("DIR");
  app_.add_flag("--json", options_.json, "write what is shown as JSON");
  app_.set_version_flag("--version", versionOf("arpsup"));
  app_.require_subcommand(0, 1);
  addLooking();
  addChanging();
  addAsking();
}

// A command with examples behind its description; `run` makes its exit status.
CLI::App* CommandLine::command(CLI::App& parent, const char* group, const Text& text,
                               std::function<int()> run) {
  CLI::App* app = parent.add_subcommand(text.name, text.description);
  app->footer(std::string("Examples:\n") + text.examples);
  app->fallthrough();
  if (group) app->group(group);
  if (run) app->callback([this, run = std::move(run)] { status_ = run(); });
  return app;
}

CLI::Option* CommandLine::argument(CLI::App* command, const char* name, std::string& value,
                                   const char* description) {
  return command->add_option(name, value, description)->required()->type_name("");
}

// Gives the command --watch.
void CommandLine::watched(CLI::App* command, std::function<int()> show) {
  command->add_option("--watch", watchSeconds_, "show it again after so many seconds, until interrupted")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 86400.0));
  command->callback([this, show = std::move(show)] {
    if (watchSeconds_ > 0) endsQuietly();
    while (true) {
      status_ = show();
      if (watchSeconds_ <= 0) return;
      poll(nullptr, 0, static_cast<int>(watchSeconds_ * 1e3));
      if (!options_.json && !print("\n")) return;
    }
  });
}

void CommandLine::filters(CLI::App* to) {
  to->add_option("--vlan", filter_.vlan, "of one VLAN only")->type_name("VLAN");
  to->add_option("--ip", filter_.ip, "of one address only")->type_name("IP");
  to->add_option("--mac", filter_.mac, "of one station only")->type_name("MAC");
  to->add_option("--vrf", filter_.vrf, "of one VRF only")->type_name("VRF");
  to->add_option("--interface", filter_.interface, "local ones on one port only")->type_name("INTERFACE");
}

void CommandLine::addLooking() {
  watched(command(app_, kLook,
                  {"health", "what is wrong with this switch, since when, and what to do: a line a problem",
                   "  arpsup health              exit status 0 good, 1 degraded, 2 failed or no agent-host\n"
                   "  arpsup health --watch 10   again every ten seconds\n"
                   "  arpsup monitor switch/health switch/problems   as it changes"},
                  {}),
          [this] { return showHealth(options_); });

  watched(command(app_, kLook,
                  {"status", "how this switch is, whether suppression runs, how much it knows, and each VLAN",
                   "  arpsup status                           as a list\n"
                   "  arpsup status --json | jq .activeVlans  the VLANs on which requests are answered"},
                  {}),
          [this] { return showStatus(options_); });

  CLI::App* counters = command(app_, kLook,
                               {"counters", "what happened to ARP messages, counted since the start",
                                "  arpsup counters --nonzero  what happened at all\n"
                                "  arpsup counters --describe what each of them counts\n"
                                "  arpsup counters --watch 2  every two seconds, with what came since"},
                               [this] { return showCounters(options_, nonzero_, describe_, watchSeconds_); });
  counters->add_flag("--nonzero", nonzero_, "leave out those that are zero");
  counters->add_flag("--describe", describe_, "with what each of them counts");
  counters->add_option("--watch", watchSeconds_, "show them again after so many seconds, until interrupted")
      ->type_name("SECONDS")
      ->check(CLI::Range(0.1, 86400.0));

  watched(
      command(
          app_, kLook,
          {"forwarding", "what the forwarding programs do: ports, pairs, counters, and the last sign of life",
           "  arpsup forwarding             which port's requests are trapped, and how many were refused\n"
           "  arpsup forwarding --watch 2   again every two seconds"},
          {}),
      [this] { return showForwarding(options_); });

  CLI::App* bindings =
      command(app_, kLook,
              {"bindings", "which hosts are known: local ones, and those behind other switches",
               "  arpsup bindings                    both\n"
               "  arpsup bindings local              hosts on ports of this switch\n"
               "  arpsup bindings remote --vlan 10   those that other switches advertise on VLAN 10\n"
               "  arpsup bindings --mac 0200.0000.0011\n"
               "  arpsup bindings remote --json      a JSON list, an element a line"},
              {});
  argument(bindings, "KIND", kind_, "local or remote; both unless given")->required(false);
  filters(bindings);
  watched(bindings, [this] { return showBindings(options_, kind_, filter_); });

  CLI::App* find = command(app_, kLook,
                           {"find", "where a host is known: by address, over all VLANs and tables",
                            "  arpsup find 10.0.10.99\n"
                            "  arpsup find 0200.0000.0011"},
                           {});
  argument(find, "ADDRESS", ip_, "a MAC or an IP address");
  watched(find, [this] { return findHost(options_, ip_); });

  CLI::App* show = command(app_, kLook,
                           {"show", "the state at a path as JSON, or the list of paths",
                            "  arpsup show                         the paths that there are\n"
                            "  arpsup show arpSuppression/status   on which VLANs requests are answered\n"
                            "  arpsup show --json bridging/status  the MAC table, on one line"},
                           [this] { return showState(options_, path_); });
  argument(show, "PATH", path_, "as `arpsup show` lists it")->required(false);

  CLI::App* events = command(
      app_, kLook,
      {"events", "what happened on this switch: hosts, conflicts, VLANs, VRFs and health; kept over restarts",
       "  arpsup events --since 1h                   of the last hour, the latest last\n"
       "  arpsup events --ip 10.0.10.99 --follow     of one address, and what comes, until interrupted\n"
       "  arpsup events --event conflict --json      a JSON object a line"},
      [this] { return showEvents(options_, events_); });
  events->add_flag("--follow", events_.follow, "go on until interrupted");
  events
      ->add_option("--since", events_.since, "from then on: 10m, 2h or 1d ago, 09:30, 2026-01-31T09:30 (UTC)")
      ->type_name("TIME");
  events->add_option("--event", events_.kinds, "of this kind only; may be given more than once")
      ->type_name("KIND")
      ->expected(1)
      ->check(CLI::IsMember(kindNames()));
  events->add_option("--vlan", events_.vlan, "of one VLAN only")->type_name("VLAN");
  events->add_option("--ip", events_.ip, "of one address only")->type_name("IP");
  events->add_option("--mac", events_.mac, "of one station only")->type_name("MAC");

  CLI::App* monitor = command(
      app_, kLook,
      {"monitor", "changes of state as they happen, a JSON object a line, until interrupted",
       "  arpsup monitor                         every change\n"
       "  arpsup monitor evpn/status arp/status  those of two paths, like\n"
       "    {\"time\":1790000000.123,\"path\":\"evpn/status\",\"change\":{\"vlanToDot1q\":{\"10\":10}}}\n"
       "    null stands for what has gone; \"lost\": true for more changes than could be kept: show the "
       "path"},
      [this] { return Host::monitor(options_, paths_); });
  monitor->add_option("PATH", paths_, "as `arpsup show` lists them; none: all")->type_name("");
}

void CommandLine::addChanging() {
  CLI::App* set = command(
      app_, kChange,
      {"set", "merge JSON into the state at a path; null deletes; all or nothing",
       "  arpsup set bridging/config '{\"bridgeMacAddr\": \"02:00:00:00:be:ef\"}'\n"
       "  arpsup set evpn/status '{\"vlanToDot1q\": {\"10\": 10, \"11\": null}}'  VLAN 11 goes, others stay"},
      [this] { return setState(options_, path_, json_); });
  argument(set, "PATH", path_, "as `arpsup show` lists it");
  argument(set, "JSON", json_, "an object of the members to change");

  CLI::App* apply = command(app_, kChange,
                            {"apply", "merge a file of many paths; all or nothing",
                             "  arpsup apply state.json\n"
                             "  echo '{\"evpn/status\": {\"mplsConfigured\": true}}' | arpsup apply -"},
                            [this] { return applyFile(options_, file_); });
  argument(apply, "FILE", file_, "a JSON object by path, comments allowed; - is standard input");

  command(
      app_, kChange,
      {"reload", "have the agent-host read its configuration file again, and carry out what is different",
       "  arpsup reload    all of it, or nothing when anything is wrong with the file: that is said then\n"
       "  agent-host --check FILE    says it before"},
      [this] { return reload(options_); });

  CLI::App* remote = command(
      app_, kChange,
      {"remote", "the hosts behind other switches that ARP and neighbour solicitations are answered for",
       "  arpsup remote add 10 10.0.0.2 02:00:00:00:00:02\n"
       "  arpsup remote load hosts.csv\n"
       "  arpsup bindings remote                           what there is"},
      {});
  remote->require_subcommand(1);
  const auto addressOptions = [this](CLI::App* to) {
    argument(to, "VLAN", vlan_, "1 to 4094");
    argument(to, "IP", ip_, "IPv4 or IPv6 address");
  };
  CLI::App* add = command(*remote, nullptr,
                          {"add", "add a remote binding, or change it",
                           "  arpsup remote add 10 10.0.0.2 02:00:00:00:00:02\n"
                           "  arpsup remote add 10 10.0.0.3 02:00:00:00:00:03 --local-multihomed\n"
                           "  arpsup remote add 10 2001:db8::1 02:00:00:00:00:04 --router"},
                          [this] { return addRemote(options_, vlan_, ip_, mac_, bindingFlags_); });
  addressOptions(add);
  argument(add, "MAC", mac_, "like 02:00:00:00:00:02");
  add->add_flag("--local-multihomed", bindingFlags_.localMultihomed,
                "the host is on an Ethernet segment of this switch as well");
  add->add_flag("--router", bindingFlags_.router, "the host of this IPv6 address is a router");
  addressOptions(command(*remote, nullptr,
                         {"del", "delete a remote binding", "  arpsup remote del 10 10.0.0.2"},
                         [this] { return deleteRemote(options_, vlan_, ip_); }));
  CLI::App* list =
      command(*remote, nullptr,
              {"list", "the remote bindings; as `arpsup bindings remote`", "  arpsup remote list"}, {});
  filters(list);
  watched(list, [this] { return showBindings(options_, "remote", filter_); });
  command(*remote, nullptr, {"clear", "delete every remote binding", "  arpsup remote clear"},
          [this] { return clearRemote(options_); });
  CLI::App* load = command(*remote, nullptr,
                           {"load", "add the remote bindings of a file; nothing when a line is bad",
                            "  arpsup remote load hosts.csv\n"
                            "  arpsup remote load --skip-bad hosts.jsonl\n"
                            "  echo 10,10.0.0.2,02:00:00:00:00:02 | arpsup remote load -"},
                           [this] { return loadRemote(options_, file_, skipBad_); });
  argument(load, "FILE", file_,
           "CSV vlan,ip,mac[,localMultihomed[,router]], or a JSON object a line "
           "{\"vlan\": 10, \"ip\": \"10.0.0.2\", \"mac\": \"02:00:00:00:00:02\"}; - is standard input");
  load->add_flag("--skip-bad", skipBad_, "load the other lines when some are bad");
}

void CommandLine::addAsking() {
  CLI::App* explain = command(
      app_, kAsk,
      {"explain",
       "what would happen now to an ARP request or a neighbour solicitation, and why; nothing is sent "
       "or counted",
       "  arpsup explain 10 10.0.10.99\n"
       "    whether a host on VLAN 10 that asks for 10.0.10.99 gets a reply and with which MAC\n"
       "    address, or the request is flooded or left alone, and the facts that decide, in order\n"
       "  arpsup explain 10 2001:db8:10::99\n"
       "    whether a host that solicits this neighbour is answered, or the solicitation passes\n"
       "  arpsup explain 10 10.0.10.99 --from 02:00:00:00:00:11\n"
       "    the same when this station asks: the switch itself, for one, is never answered"},
      [this] { return Host::explain(options_, vlan_, ip_, mac_); });
  argument(explain, "VLAN", vlan_, "1 to 4094");
  argument(explain, "IP", ip_, "the IPv4 or IPv6 address that is asked for");
  explain->add_option("--from", mac_, "the station that asks; otherwise any")->type_name("MAC");

  CLI::App* trace = command(
      app_, kAsk,
      {"trace", "what the agent-host did: its trace ring as text, also after it has ended",
       "  arpsup trace --vlan 10 --ip 10.0.0.9       why was there no answer for 10.0.0.9 on VLAN 10?\n"
       "  arpsup trace --follow --grep trappedRequest  requests as they come\n"
       "  arpsup trace --all --level 0               what earlier runs wrote before they broke off"},
      [this] { return showTrace(options_, trace_); });
  CLI::Option* follow = trace->add_flag("--follow", trace_.follow, "go on until interrupted");
  trace->add_flag("--all", trace_.all, "those of earlier runs as well, the latest run first")
      ->excludes(follow);
  trace->add_option("--level", trace_.level, "records of this level and below, 0 being the gravest")
      ->type_name("N")
      ->check(CLI::Range(0, 5));
  trace->add_option("--since", trace_.since, "from then on: 10m, 2h or 1d ago, 09:30, 2026-01-31T09:30 (UTC)")
      ->type_name("TIME");
  trace->add_option("--vlan", trace_.vlan, "records that name this VLAN")->type_name("VLAN");
  trace->add_option("--ip", trace_.ip, "records that name this address")->type_name("IP");
  trace->add_option("--grep", trace_.texts, "records with this text; may be given more than once")
      ->type_name("TEXT")
      ->expected(1);

  command(app_, kAsk,
          {"tech-support", "the state of every object of the agent, for those who develop it",
           "  arpsup tech-support > tech-support.txt"},
          [this] { return showTechSupport(options_); });
}

int CommandLine::run(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == kCompleteWords) {
    if (const char* set = std::getenv(kRunDirectoryVariable)) options_.runDirectory = set;
    return complete(app_, options_, {argv + 2, argv + argc});
  }
  std::vector<std::string> words(argv + 1, argv + argc);
  expandCommands(app_, words);
  std::ranges::reverse(words);  // as it takes them
  try {
    app_.parse(std::move(words));
  } catch (const CLI::ParseError& error) {
    return error.get_exit_code() == 0 ? app_.exit(error) : usage(error);
  }
  return app_.get_subcommands().empty() ? printed(app_.help()) : status_;
}

int CommandLine::usage(const CLI::ParseError& error) {
  CLI::App* at = &app_;
  std::string name = "arpsup";
  while (!at->get_subcommands().empty()) {
    at = at->get_subcommands().front();
    name += " " + at->get_name();
  }
  std::vector<std::string> commands;
  for (const CLI::App* sub : at->get_subcommands([](const CLI::App*) { return true; })) {
    if (!sub->get_group().empty()) commands.push_back(sub->get_name());
  }
  const std::vector<std::string> extras = app_.remaining(true);
  std::string what = error.what();
  if (!extras.empty()) {
    const std::string& word = extras.front();
    const bool isOption = word.starts_with("-");
    what = std::string("unknown ") +
           (isOption           ? "option"
            : commands.empty() ? "argument"
                               : "command") +
           " \"" + word + "\"";
    std::vector<std::string> candidates = commands;
    if (isOption) {
      candidates = {"--help"};
      for (const CLI::App* owner = at; owner; owner = owner->get_parent()) {
        for (const CLI::Option* option : owner->get_options()) {
          for (const std::string& longName : option->get_lnames()) candidates.push_back("--" + longName);
        }
      }
    }
    const std::string meant = nearest(word, candidates);
    if (!meant.empty()) what += ", did you mean " + meant + "?";
  } else if (!commands.empty()) {
    std::string list;
    for (const std::string& each : commands) list += (list.empty() ? "" : ", ") + each;
    what = "one of " + list + " is required";
  }
  return fail(kUsage, what + "; see " + name + " --help");
}

}  // namespace Host
