#include <algorithm>
#include <numeric>
#include <set>

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

// Of the daemon, else those that always are.
std::set<std::string> pathNames(const CommonOptions& options) {
  std::set<std::string> names;
  constexpr std::chrono::milliseconds kShellPatience{1000};  // of whoever pressed the tabulator
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

int complete(const CLI::App& app, const CommonOptions& given, const std::vector<std::string>& words) {
  CommonOptions options = given;
  const CLI::App* at = &app;
  const std::string last = words.empty() ? "" : words.back();
  const CLI::Option* waiting = nullptr;  // an option that wants its value
  std::size_t arguments = 0;
  for (std::size_t i = 0; i + 1 < words.size(); ++i) {
    if (waiting) {
      if (waiting->check_name("--run-dir")) options.runDirectory = words[i];
      waiting = nullptr;
    } else if (words[i].starts_with("-")) {
      const CLI::Option* option = optionOf(at, words[i]);
      if (option && option->get_type_size() > 0) waiting = option;
    } else if (!isKnown(words[i], shownCommands(at), at)) {
      ++arguments;
    }
  }
  std::set<std::string> offers;
  if (waiting) return kDone;  // the shell knows files
  if (last.starts_with("-")) {
    for (const CLI::App* owner = at; owner; owner = owner->get_parent()) {
      for (const CLI::Option* option : owner->get_options()) {
        for (const std::string& name : option->get_lnames()) offers.insert("--" + name);
      }
    }
  } else {
    for (const CLI::App* sub : shownCommands(at)) offers.insert(sub->get_name());
    const CLI::Option* path = at->get_option_no_throw("PATH");
    if (path && (arguments == 0 || path->get_items_expected_max() > 1)) offers = pathNames(options);
    if (at->get_option_no_throw("KIND") && arguments == 0) offers = {"local", "remote"};
  }
  std::string lines;
  for (const std::string& offer : offers) {
    if (offer.starts_with(last)) lines += offer + "\n";
  }
  return printed(lines);
}

}  // namespace Host
