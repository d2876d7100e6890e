#include <algorithm>
#include <numeric>
#include <set>

#include "Statedb/Json.h"
#include "Switch/Config.h"
#include "Switch/Event.h"
#include "host/StatePaths.h"
#include "host/arpsup/CommandLine.h"
#include "host/arpsup/Output.h"

namespace Host {

namespace {

// How many characters have to be put in, taken out or exchanged.
std::size_t distance(const std::string& a, const std::string& b) {
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), std::size_t{0});
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = std::exchange(row[0], i + 1);
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t replaced = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = std::exchange(row[j + 1], std::min({row[j] + 1, row[j + 1] + 1, replaced}));
    }
  }
  return row.back();
}

constexpr std::chrono::milliseconds kShellPatience{1000};  // of whoever pressed the tabulator

// Of the daemon, else those that always are.
std::set<std::string> pathNames(const CommonOptions& options) {
  std::set<std::string> names;
  const auto client = Client::connect(options.runDirectory, kShellPatience);
  const auto answer =
      client ? (*client)->ask({{"cmd", "paths"}}, nullptr) : Mox::Result<nlohmann::json>(client.failure());
  if (answer) {
    for (const auto& path : answer->value("paths", nlohmann::json::array())) {
      if (path.is_string()) names.insert(path.get<std::string>());
    }
  } else {
    for (const StatePath& state : statePaths()) names.insert(state.path);
  }
  return names;
}

// Those that are configured.
std::set<std::string> vlanNames(const CommonOptions& options) {
  std::set<std::string> names;
  const auto client = Client::connect(options.runDirectory, kShellPatience);
  std::string text;
  if (!client || !(*client)->ask({{"cmd", "show"}, {"path", Switch::kConfigPath}}, &text)) return names;
  const auto config = nlohmann::json::parse(text, nullptr, false);
  if (!config.is_object() || !config.value("vlan", nlohmann::json()).is_object()) return names;
  for (const auto& [vlan, content] : config["vlan"].items()) names.insert(vlan);
  return names;
}

// Of the hosts that are known on the VLAN ("": on any) and begin like that; not more than anybody reads.
std::set<std::string> addresses(const CommonOptions& options, const std::string& vlan,
                                const std::string& beginning) {
  constexpr std::size_t kMost = 200;
  std::set<std::string> names;
  for (const char* kind : {"local", "remote"}) {
    nlohmann::json arguments = {kind};
    if (!vlan.empty()) arguments.push_back("vlan=" + vlan);
    const nlohmann::json request = {{"cmd", "agent"}, {"command", "bindings"}, {"args", arguments}};
    const auto client = Client::connect(options.runDirectory, kShellPatience);
    if (!client || !(*client)->send(Statedb::jsonText(request))) return names;
    static_cast<void>(receiveBindings(**client, [&](const nlohmann::json& binding) {
      const std::string ip = binding.value("ip", std::string());
      if (ip.starts_with(beginning)) names.insert(ip);
      return names.size() < kMost;
    }));
  }
  return names;
}

const CLI::Option* optionOf(const CLI::App* app, const std::string& word) {
  for (; app; app = app->get_parent()) {
    const CLI::Option* option = app->get_option_no_throw(word);
    if (option) return option;
  }
  return nullptr;
}

bool isKnown(const std::string& word, const std::vector<const CLI::App*>& subs, const CLI::App*& at) {
  const auto sub =
      std::find_if(subs.begin(), subs.end(), [&](const CLI::App* s) { return s->get_name() == word; });
  if (sub != subs.end()) at = *sub;
  return sub != subs.end();
}

std::vector<const CLI::App*> shownCommands(const CLI::App* app) {
  std::vector<const CLI::App*> subs = app->get_subcommands(
      std::function<bool(const CLI::App*)>([](const CLI::App* sub) { return !sub->get_group().empty(); }));
  return subs;
}

}  // namespace

std::string nearest(const std::string& word, const std::vector<std::string>& candidates) {
  std::string best;
  std::size_t least = std::max<std::size_t>(1, word.size() / 3) + 1;
  for (const std::string& candidate : candidates) {
    // A beginning counts as a slip of one character.
    const std::size_t slips = word.size() > 1 && candidate.starts_with(word) ? 1 : distance(word, candidate);
    if (slips >= least) continue;
    least = slips;
    best = candidate;
  }
  return best;
}

void expandCommands(const CLI::App& app, std::vector<std::string>& words) {
  const CLI::App* at = &app;
  bool value = false;  // of the option before
  for (std::string& word : words) {
    if (std::exchange(value, false)) continue;
    if (word.starts_with("-")) {
      const CLI::Option* option = optionOf(at, word);
      value = option && option->get_items_expected_max() > 0;
      continue;
    }
    const std::vector<const CLI::App*> commands = shownCommands(at);
    if (commands.empty()) return;
    if (isKnown(word, commands, at)) continue;
    std::vector<const CLI::App*> meant;
    for (const CLI::App* command : commands)
      if (command->get_name().starts_with(word)) meant.push_back(command);
    if (word.empty() || meant.size() != 1) return;
    at = meant.front();
    word = at->get_name();
  }
}

int complete(const CLI::App& app, const CommonOptions& given, const std::vector<std::string>& words) {
  CommonOptions options = given;
  const CLI::App* at = &app;
  const std::string last = words.empty() ? "" : words.back();
  const CLI::Option* waiting = nullptr;  // an option that wants its value
  std::size_t arguments = 0;
  std::string before;  // the last of these
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    if (waiting) {
      if (waiting->check_name("--run-dir")) options.runDirectory = words[i];
      waiting = nullptr;
    } else if (words[i].starts_with("-")) {
      const CLI::Option* option = optionOf(at, words[i]);
      if (option && option->get_items_expected_max() > 0) waiting = option;
    } else if (!isKnown(words[i], shownCommands(at), at)) {
      ++arguments;
      before = words[i];
    }
  }
  std::set<std::string> offers;
  if (waiting) {  // the shell knows files
    if (waiting->check_name("--vlan")) offers = vlanNames(options);
    if (waiting->check_name("--event"))
      for (const char* kind : moxEnumNames(Switch::EventKind())) offers.insert(kind);
    if (waiting->check_name("--ip")) offers = addresses(options, "", last);
  } else if (last.starts_with("-")) {
    for (const CLI::App* owner = at; owner; owner = owner->get_parent()) {
      for (const CLI::Option* option : owner->get_options()) {
        for (const std::string& name : option->get_lnames()) offers.insert("--" + name);
      }
    }
  } else {
    for (const CLI::App* sub : shownCommands(at)) offers.insert(sub->get_name());
    const CLI::Option* path = at->get_option_no_throw("PATH");
    if (path && (arguments == 0 || path->get_items_expected_max() > 1)) offers = pathNames(options);
    if (at->get_option_no_throw("VLAN") && arguments == 0) offers = vlanNames(options);
    if (at->get_option_no_throw("IP") && arguments == 1) offers = addresses(options, before, last);
    if (at->get_option_no_throw("ADDRESS") && arguments == 0) offers = addresses(options, "", last);
    if (at->get_option_no_throw("KIND") && arguments == 0) offers = {"local", "remote"};
  }
  std::string lines;
  for (const std::string& offer : offers) {
    if (offer.starts_with(last)) lines += Tracelet::printable(offer) + "\n";
  }
  return printed(lines);
}

}  // namespace Host
