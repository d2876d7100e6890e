#include "host/ControlCommands.h"

#include <set>
#include <vector>

#include "Statedb/Json.h"
#include "Suppression/Limits.h"
#include "Tracelet/Text.h"
#include "host/AgentAnswer.h"
#include "host/HealthSm.h"
#include "host/JsonText.h"
#include "host/Monitor.h"
#include "host/Protocol.h"

namespace Host {

namespace {

using nlohmann::json;

constexpr std::size_t kEntriesPerSlice = 256;
constexpr std::string_view kStatusCommand = "status";
constexpr std::string_view kFeedCommand = "feed";

void appendLine(std::string& output, const json& answer) {
  output += Statedb::jsonText(answer);
  output += '\n';
}

// The string under a key; "" and an answer when it is not one.
const std::string* stringOf(const json& request, const char* key, std::string& output) {
  const auto value = request.find(key);
  if (value != request.end() && value->is_string()) return &value->get_ref<const std::string&>();
  ControlCommands::appendError(output, std::string("the request needs \"") + key + "\", a string");
  return nullptr;
}

// The list of strings under a key, empty when it is left out; false and an answer when it is not one.
bool stringsOf(const json& request, const char* key, std::vector<std::string>& strings, std::string& output) {
  const auto list = request.find(key);
  if (list == request.end()) return true;
  bool good = list->is_array();
  for (std::size_t i = 0; good && i < list->size(); ++i) {
    good = (*list)[i].is_string();
    if (good) strings.push_back((*list)[i].get<std::string>());
  }
  if (!good) ControlCommands::appendError(output, std::string("\"") + key + "\" is not a list of strings");
  return good;
}

class ShowJob final : public ControlJob {
 public:
  explicit ShowJob(std::unique_ptr<Dump> dump) : dump_(std::move(dump)) {}
  Step step(std::string& output) override {
    std::string text;
    const bool more = dump_->step(kEntriesPerSlice, text);
    if (!text.empty()) appendLine(output, {{"text", text}});
    if (!more) ControlCommands::appendOk(output);
    return more ? Step::more : Step::done;
  }

 private:
  const std::unique_ptr<Dump> dump_;
};

class MergeJob final : public ControlJob {
 public:
  explicit MergeJob(std::unique_ptr<StateChange> change) : change_(std::move(change)) {}
  Step step(std::string& output) override {
    const Mox::Result<bool> more = change_->step(kEntriesPerSlice);
    if (more && *more) return Step::more;
    more ? ControlCommands::appendOk(output) : ControlCommands::appendError(output, more.error());
    return Step::done;
  }

 private:
  const std::unique_ptr<StateChange> change_;
};

class ClearJob final : public ControlJob {
 public:
  explicit ClearJob(Mox::Ptr<ArpSuppression::RemoteBindingConfig> table)
      : table_(std::move(table)), before_(table_->remoteBindings()) {
    writer().reconcileBegin();
  }
  Step step(std::string& output) override {
    const bool more = writer().sweep(kEntriesPerSlice);
    table_->remoteBindingCollection().touched();
    if (!more) ControlCommands::appendOk(output, {{"changed", before_}});
    return more ? Step::more : Step::done;
  }

 private:
  Memtab::Writer& writer() { return table_->remoteBindingCollection().tableWriter()->core(); }
  const Mox::Ptr<ArpSuppression::RemoteBindingConfig> table_;
  const std::uint64_t before_;
};

// Goes on without its client: only the answer is lost then.
class ReloadJob final : public ControlJob {
 public:
  explicit ReloadJob(Reload& reload) {
    state_->job = this;
    reload.begin([state = state_](const std::vector<std::string>& problems) {
      state->over = true;
      state->problems = problems;
      if (state->job) state->job->wake();
    });
  }
  ReloadJob(const ReloadJob&) = delete;
  ReloadJob& operator=(const ReloadJob&) = delete;
  ~ReloadJob() override { state_->job = nullptr; }

  Step step(std::string& output) override {
    if (!state_->over) return Step::waiting;
    for (const std::string& problem : state_->problems)
      ControlCommands::appendText(output, Tracelet::printable(problem) + "\n");
    state_->problems.empty() ? ControlCommands::appendOk(output)
                             : ControlCommands::appendError(
                                   output, "the configuration before it stays in force; correct the file");
    return Step::done;
  }

 private:
  struct State {
    ReloadJob* job = nullptr;  // null: nobody waits for it
    bool over = false;
    std::vector<std::string> problems;
  };
  const std::shared_ptr<State> state_ = std::make_shared<State>();
};

template <class Visit>
void forEachLine(std::string_view lines, const Visit& visit) {
  while (!lines.empty()) {
    const std::size_t end = lines.find('\n');
    const std::string_view line = lines.substr(0, end);
    lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
    if (!line.empty()) visit(line);
  }
}

}  // namespace

ControlCommands::ControlCommands(State& state, const Agents& agents, Orb::EventLoop& loop, Reload* reload)
    : state_(state),
      agents_(agents),
      loop_(loop),
      reload_(reload),
      startedAt_(loop.clock().now()),
      answers_(std::make_unique<AgentAnswers>(loop)) {}

ControlCommands::~ControlCommands() = default;

std::size_t ControlCommands::appendText(std::string& output, std::string_view text) {
  // A character of several bytes must not be cut in two.
  const std::size_t line = text.rfind('\n');
  if (line != std::string_view::npos) text = text.substr(0, line + 1);
  appendLine(output, {{"text", text}});
  return text.size();
}

void ControlCommands::appendOk(std::string& output, json answer) {
  answer["ok"] = true;
  appendLine(output, answer);
}

void ControlCommands::appendError(std::string& output, const std::string& error) {
  appendLine(output, {{"ok", false}, {"error", Tracelet::printable(error)}});
}

std::unique_ptr<ControlJob> ControlCommands::start(std::string_view line, uid_t user, std::string& output) {
  Mox::Result<json> request = parseJson(line, Comments::refused);
  if (!request || !request->is_object()) {
    appendError(output,
                "the request cannot be read: " + (request ? "it is not a JSON object" : request.error()));
    return nullptr;
  }
  try {
    return dispatch(*request, user, output);
  } catch (const Mox::Error& failure) {
    appendError(output, failure.what());
    return nullptr;
  }
}

std::unique_ptr<ControlJob> ControlCommands::dispatch(json& request, uid_t user, std::string& output) {
  const std::string* command = stringOf(request, "cmd", output);
  if (!command) return nullptr;
  const bool writes =
      *command == "set" || *command == "apply" || *command == "remote" || *command == "reload";
  if (writes && user != 0) {
    appendError(output, "only root may change state: run it as root, for example with sudo");
    return nullptr;
  }
  if (*command == "paths") {
    appendOk(output, {{"paths", state_.paths()}});
    return nullptr;
  }
  if (*command == "show") return show(request, output);
  if (*command == "set") return set(request, output);
  if (*command == "apply") return apply(request, output);
  if (*command == "remote") return remote(request, output);
  if (*command == "agent") return agent(request, user, output);
  if (*command == "monitor") return monitor(request, output);
  if (*command == "reload") return reload(output);
  if (*command == "health") return health(output);
  appendError(output, "unknown command " + Statedb::describe(*command) +
                          "; known are paths, show, set, apply, remote, agent, monitor, health and reload");
  return nullptr;
}

std::unique_ptr<ControlJob> ControlCommands::show(const json& request, std::string& output) {
  const std::string* path = stringOf(request, "path", output);
  if (!path) return nullptr;
  auto dump = state_.dump(*path);
  if (dump) return std::make_unique<ShowJob>(std::move(*dump));
  appendError(output, dump.error());
  return nullptr;
}

std::unique_ptr<ControlJob> ControlCommands::set(json& request, std::string& output) {
  const std::string* path = stringOf(request, "path", output);
  if (!path) return nullptr;
  const auto value = request.find("value");
  if (value == request.end()) {
    appendError(output, "the request needs \"value\", what is to be merged at the path");
    return nullptr;
  }
  json state = json::object();
  state[*path] = std::move(*value);
  return merge(std::move(state), output);
}

std::unique_ptr<ControlJob> ControlCommands::apply(json& request, std::string& output) {
  const auto state = request.find("state");
  if (state == request.end() || !state->is_object()) {
    appendError(output, "the request needs \"state\", an object by path");
    return nullptr;
  }
  return merge(std::move(*state), output);
}

std::unique_ptr<ControlJob> ControlCommands::merge(json state, std::string& output) {
  auto change = state_.change(std::move(state));
  if (change) return std::make_unique<MergeJob>(std::move(*change));
  appendError(output, change.error());
  return nullptr;
}

std::unique_ptr<ControlJob> ControlCommands::remote(const json& request, std::string& output) {
  const std::string* op = stringOf(request, "op", output);
  if (!op) return nullptr;
  if (*op == "clear") {
    auto table = state_.remoteBindings();
    if (table) return std::make_unique<ClearJob>(std::move(*table));
    appendError(output, table.error());
    return nullptr;
  }
  if (*op != "add" && *op != "del") {
    appendError(output, "unknown \"op\" " + Statedb::describe(*op) + "; known are add, del and clear");
    return nullptr;
  }
  if (const std::string* lines = stringOf(request, "bindings", output))
    changeBindings(*lines, *op == "add", output);
  return nullptr;
}

void ControlCommands::changeBindings(std::string_view lines, bool add, std::string& output) {
  const auto table = state_.remoteBindings();
  if (!table) return appendError(output, table.error());
  std::vector<Binding> bindings;
  Mox::Result<> read;
  forEachLine(lines, [&](std::string_view line) {
    if (!read) return;
    if (bindings.size() == kChunkBindings) {
      read = Mox::Failure{"more than " + std::to_string(kChunkBindings) +
                          " bindings in one request; send them in several"};
    } else if (add) {
      const auto binding = parseBindingLine(line);
      binding ? bindings.push_back(*binding) : void(read = binding.failure());
    } else {
      const auto key = parseBindingKeyLine(line);
      key ? bindings.push_back({*key, {}}) : void(read = key.failure());
    }
  });
  if (!read) return appendError(output, read.error());
  auto& collection = (*table)->remoteBindingCollection();
  const Ip::OwnAddresses own(state_.tree()->entityOf<const Ip::Status>("ip/status"));
  for (const Binding& binding : bindings) {
    const Mox::Result<> good = add ? notOwn(own, binding.key) : Mox::Result<>();
    if (!good) return appendError(output, good.error());
  }
  if (const Mox::Result<> room = add ? roomFor(**table, bindings) : Mox::Result<>(); !room)
    return appendError(output, room.error());
  std::size_t changed = 0;
  for (std::size_t in = 0; in < bindings.size(); ++in) {
    const Binding& binding = bindings[in];
    if (!add) {
      changed += collection.del(binding.key) ? 1 : 0;
      continue;
    }
    const Memtab::Written written = collection.set(binding.key, binding.value);
    if (written == Memtab::Written::kFull) {
      return appendError(
          output,
          "no shared memory for more remote bindings: " + collection.tableWriter()->core().grown().error() +
              "; " + std::to_string(in) + " of these " + std::to_string(bindings.size()) + " are in");
    }
    changed += written == Memtab::Written::kChanged ? 1 : 0;
  }
  appendOk(output, {{"changed", changed}});
}

// The agent would leave out what is over the limit.
Mox::Result<> ControlCommands::roomFor(const ArpSuppression::RemoteBindingConfig& table,
                                       const std::vector<Binding>& bindings) const {
  const auto limits = state_.tree()->entityOf<ArpSuppression::Limits>(ArpSuppression::kLimitsPath);
  if (!limits || table.remoteBindings() + bindings.size() <= limits->remoteBindings()) return {};
  std::set<ArpSuppression::RemoteBindingKey> more;
  for (const Binding& binding : bindings)
    if (!table.remoteBinding(binding.key)) more.insert(binding.key);
  if (more.empty() || table.remoteBindings() + more.size() <= limits->remoteBindings()) return {};
  return Mox::Failure{"no room for " + std::to_string(more.size()) + " more remote bindings: there are " +
                      std::to_string(table.remoteBindings()) + ", and limits.remoteBindings is " +
                      std::to_string(limits->remoteBindings()) +
                      "; raise it in the configuration and reload"};
}

std::unique_ptr<ControlJob> ControlCommands::agent(const json& request, uid_t user, std::string& output) {
  const std::string* name = stringOf(request, "command", output);
  if (!name) return nullptr;
  std::vector<std::string> arguments;
  if (!stringsOf(request, "args", arguments, output)) return nullptr;
  std::string loaded;
  for (const Mox::Ptr<Plugin::AgentBase>& agent : agents_) {
    loaded += (loaded.empty() ? "" : ", ") + agent->name();
    const Mox::Ptr<Plugin::AgentCommandCallback> callback = agent->agentCommand("", *name);
    if (!callback) continue;
    auto job = answers_->run(*callback, arguments, user);
    if (job) return std::move(*job);
    appendError(output, job.error());
    return nullptr;
  }
  const std::string reason =
      "no plug-in that is ready answers \"" + *name + "\"; loaded: " + (loaded.empty() ? "none" : loaded);
  // Both are asked for together, of every agent-host.
  if (*name == kStatusCommand) {
    appendText(output, textOf(statusWithoutAgent(reason)));
  } else if (*name == kFeedCommand) {
    appendText(output, "{}");
  } else {
    appendError(output, reason);
    return nullptr;
  }
  appendOk(output);
  return nullptr;
}

// Whether it runs can be asked of every agent-host. The keys are those of the plug-in's answer, and why it is
// not there.
nlohmann::ordered_json ControlCommands::statusWithoutAgent(const std::string& reason) const {
  return {{"runnable", false},
          {"activeVlans", json::array()},
          {"localBindings", 0},
          {"remoteBindings", 0},
          {"trapSocket", "closed"},
          {"reinjectSocket", "closed"},
          {"uptimeSeconds", static_cast<std::uint64_t>(loop_.clock().now() - startedAt_)},
          {"reason", reason}};
}

std::unique_ptr<ControlJob> ControlCommands::health(std::string& output) {
  const auto health = state_.tree()->entityOf<Switch::Health>(Switch::kHealthPath);
  const auto problems = state_.tree()->entityOf<Switch::Problems>(Switch::kProblemsPath);
  if (!health || !problems) {
    appendError(output, "the agent-host has only begun to start; ask again");
    return nullptr;
  }
  appendText(output, textOf(healthJson(*health, *problems)));
  appendOk(output);
  return nullptr;
}

std::unique_ptr<ControlJob> ControlCommands::reload(std::string& output) {
  if (reload_) return std::make_unique<ReloadJob>(*reload_);
  appendError(output, "there is no configuration file to be read again");
  return nullptr;
}

std::unique_ptr<ControlJob> ControlCommands::monitor(const json& request, std::string& output) {
  std::vector<std::string> paths;
  if (!stringsOf(request, "paths", paths, output)) return nullptr;
  auto job = makeMonitor(state_, loop_, paths);
  if (job) return std::move(*job);
  appendError(output, job.error());
  return nullptr;
}

}  // namespace Host
