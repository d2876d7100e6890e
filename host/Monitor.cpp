#include "host/Monitor.h"

#include <chrono>
#include <cstdio>
#include <map>
#include <utility>

#include "Memtab/Watcher.h"
#include "Mox/Notifiee.h"
#include "Orb/FileDescriptor.h"
#include "Statedb/Json.h"
#include "Statedb/Path.h"
#include "Statedb/Watch.h"
#include "host/JsonText.h"
#include "host/Types.h"

namespace Host {

namespace {

using nlohmann::json;
using Statedb::MemberType;

constexpr std::size_t kChangesPerLine = 256;
constexpr std::size_t kEntriesOfNewPath = 1024;
// Between two bursts of lines. Counters change with every packet; nobody reads thousands of lines a second.
constexpr double kPace = 0.05;

std::string lineOf(const std::string& path, const char* what, const std::string& value) {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  char time[40];
  std::snprintf(time, sizeof time, "%.3f", std::chrono::duration<double>(now).count());
  return std::string("{\"time\":") + time + ",\"path\":" + Statedb::jsonText(path) + ",\"" + what +
         "\":" + value + "}\n";
}

// What is followed: one path.
class Feed {
 public:
  explicit Feed(std::string path) : path(std::move(path)) {}
  Feed(const Feed&) = delete;
  Feed& operator=(const Feed&) = delete;
  virtual ~Feed() = default;
  // Appends lines, of a bounded number of changes; clears `news` when nothing is left.
  virtual void take(std::string& lines) = 0;
  // An entity may have come to the path, or gone from it.
  virtual void handlePath() {}

  const std::string path;
  bool news = false;
};

class TableChanges final : public Feed {
 public:
  TableChanges(const StatePath& state, const Memtab::Directory& directory, Memtab::Watcher& watcher)
      : Feed(state.path), feed_(tableTypes().at(state.typeName)->follow(directory, state.path, watcher)) {}

  void take(std::string& lines) override {
    json change = json::object();
    news = feed_->drain(kChangesPerLine, change);
    if (!change.empty()) lines += lineOf(path, "change", Statedb::jsonText(change));
  }

 private:
  const std::unique_ptr<TableFeed> feed_;
};

// Keeps the names of what changed, and looks it up when it is written.
class TreeChanges final : public Feed {
 public:
  TreeChanges(std::string path, Mox::Ptr<Statedb::EntityManager> tree, std::function<void()> wake)
      : Feed(std::move(path)), tree_(std::move(tree)), wake_(std::move(wake)) {}

  // From here on; the content of an entity that is there already is not news.
  void begin() { watch(); }

  void handlePath() override {
    if (tree_->entity(path) == entity_) return;
    hasGone_ = hasGone_ || entity_;
    changed_.clear();
    lost_ = false;
    watch();
    isNew_ = static_cast<bool>(entity_);
    newsIs();
  }

  void take(std::string& lines) override {
    news = false;
    if (std::exchange(hasGone_, false)) lines += lineOf(path, "change", "null");
    if (!entity_) return;
    if (std::exchange(isNew_, false)) {
      changed_.clear();
      std::string content;
      const bool more = dumpTree(type_->name, entity_)->step(kEntriesOfNewPath, content);
      lost_ = lost_ || more;
      if (!more) lines += lineOf(path, "change", content);
    }
    if (std::exchange(lost_, false)) lines += lineOf(path, "lost", "true");
    json replaced = json::object();
    json change = json::object();
    for (std::size_t taken = 0; taken < kChangesPerLine && !changed_.empty(); ++taken) {
      const auto first = changed_.extract(changed_.begin());
      put(first.key(), first.mapped(), replaced, change);
    }
    if (!replaced.empty()) lines += lineOf(path, "change", Statedb::jsonText(replaced));
    if (!change.empty()) lines += lineOf(path, "change", Statedb::jsonText(change));
    news = !changed_.empty();
  }

 private:
  using Name = std::pair<std::string, std::string>;  // member path, key

  void newsIs() {
    news = true;
    wake_();
  }

  void watch() {
    watch_.reset();
    entity_ = tree_->entity(path);
    if (!entity_) return;
    type_ = tree_->entityType(path);
    watch_ = std::make_unique<Statedb::TreeWatch>(
        entity_, type_->shape, [this](const Statedb::Change& change) { handleChange(change); });
  }

  void handleChange(const Statedb::Change& change) {
    newsIs();
    if (lost_) return;
    bool& hasGone = changed_[{change.memberPath, change.key ? *change.key : std::string()}];
    hasGone = hasGone || (change.member.hasChildren() && !change.member.child(change.entity, *change.key));
    if (changed_.size() <= kKeptChanges) return;
    changed_.clear();
    lost_ = true;
  }

  // A child that was replaced has to go from the reader's picture first: a patch would keep its old members.
  void put(const Name& name, bool hadGone, json& replaced, json& change) const {
    const std::vector<std::string> parts = Statedb::memberPathParts(name.first);
    Way way;
    const Statedb::Shape* shape = &type_->shape;
    Mox::Ptr<Mox::Entity> entity = entity_;
    json value;
    for (std::size_t i = 0; i + 1 < parts.size() && entity; i += 2) {
      const MemberType* member = shape->find(parts[i]);
      way.emplace_back(member, parts[i + 1]);
      entity = member->child(*entity, parts[i + 1]);
      shape = &member->childShape();
    }
    if (entity) {
      const MemberType* member = shape->find(parts.back());
      if (member->hasChildren()) {
        if (const auto child = member->child(*entity, name.second))
          value = member->childShape().toJson(*child);
      } else {
        value = member->value(*entity, name.second);
      }
      if (!member->isCollection()) {
        at(change, way)[parts.back()] = std::move(value);
        return;
      }
      way.emplace_back(member, name.second);
    }
    if (hadGone && !value.is_null()) at(replaced, way) = nullptr;
    at(change, way) = std::move(value);
  }

  using Way = std::vector<std::pair<const MemberType*, std::string>>;
  static json& at(json& change, const Way& way) {
    json* place = &change;
    for (const auto& [member, key] : way) {
      place = &(*place)[member->name];
      if (member->kind != Mox::MemberKind::child) place = &(*place)[key];
    }
    return *place;
  }

  const Mox::Ptr<Statedb::EntityManager> tree_;
  const std::function<void()> wake_;
  Mox::Ptr<Mox::Entity> entity_;
  const Statedb::EntityType* type_ = nullptr;
  std::map<Name, bool> changed_;  // with whether it was gone in between, of children
  bool lost_ = false;             // and `changed_` is empty
  bool hasGone_ = false;          // the entity
  bool isNew_ = false;            // the entity, and `changed_` does not matter
  std::unique_ptr<Statedb::TreeWatch> watch_;
};

class MonitorJob final : public ControlJob {
 public:
  // No path: all.
  MonitorJob(State& state, Orb::EventLoop& loop, const std::vector<StatePath>& paths)
      : loop_(loop),
        all_(paths.empty()),
        tree_(state.tree()),
        bells_(Mox::make<Orb::FileDescriptor>(loop, "monitor")),
        pace_(loop, "monitor", [this] { wake(); }) {
    for (const StatePath& path : all_ ? statePaths() : paths) {
      if (feed(path.path)) continue;
      if (path.storage == Storage::tree) {
        treeFeedIs(path.path).begin();
      } else {
        feeds_.push_back(std::make_unique<TableChanges>(path, state.tables()->directory(), watcher_));
      }
    }
    for (const std::string& path : all_ ? tree_->paths() : std::vector<std::string>()) {
      if (!feed(path)) treeFeedIs(path).begin();
    }
    tree_.on(Statedb::EntityManager::entityChanged, [this](const std::string& path) { handlePath(path); });
    bells_.on(Orb::FileDescriptor::readableCountChanged, [this] { handleBell(); });
    bells_->descriptorIs(watcher_.descriptor());
    bells_->notifyOnReadableIs(true);
    handleBell();
  }
  MonitorJob(const MonitorJob&) = delete;
  MonitorJob& operator=(const MonitorJob&) = delete;
  ~MonitorJob() override { bells_->descriptorIs(-1); }

  bool endless() const override { return true; }

  // Why changes of shared memory would not be noticed; "" when they are.
  const std::string& error() const { return watcher_.watching().error(); }

  Step step(std::string& output) override {
    if (loop_.now() < next_) {
      if (!pace_.scheduled()) pace_.after(next_ - loop_.now());
      return Step::waiting;
    }
    bool more = false;
    for (std::size_t looked = 0; looked < feeds_.size(); ++looked) {
      Feed& feed = *feeds_[turn_++ % feeds_.size()];
      if (!feed.news) continue;
      std::string lines;
      feed.take(lines);
      more = more || feed.news;
      if (lines.empty()) continue;
      ControlCommands::appendText(output, lines);
      wrote_ = true;
      return Step::more;
    }
    if (more) return Step::more;
    if (std::exchange(wrote_, false)) next_ = loop_.now() + kPace;
    return Step::waiting;
  }

 private:
  Feed* feed(const std::string& path) const {
    for (const auto& feed : feeds_) {
      if (feed->path == path) return feed.get();
    }
    return nullptr;
  }

  TreeChanges& treeFeedIs(const std::string& path) {
    auto made = std::make_unique<TreeChanges>(path, tree_.notifier(), [this] { wake(); });
    TreeChanges& feed = *made;
    feeds_.push_back(std::move(made));
    return feed;
  }

  void handlePath(const std::string& path) {
    Feed* const known = feed(path);
    if (known) return known->handlePath();
    if (all_) treeFeedIs(path).handlePath();
  }

  void handleBell() {
    watcher_.handleReadable();
    while (watcher_.next()) {
    }
    // Which tables have news is not looked up: all are asked, and one without any costs little.
    for (const auto& feed : feeds_) feed->news = true;
    wake();
  }

  Orb::EventLoop& loop_;
  const bool all_;
  Memtab::Watcher watcher_;
  std::vector<std::unique_ptr<Feed>> feeds_;
  std::size_t turn_ = 0;
  double next_ = 0;     // not before
  bool wrote_ = false;  // in the burst in hand
  Mox::Notifiee<Statedb::EntityManager> tree_;
  Mox::Notifiee<Orb::FileDescriptor> bells_;
  Orb::Timer pace_;
};

}  // namespace

Mox::Result<std::unique_ptr<ControlJob>> makeMonitor(State& state, Orb::EventLoop& loop,
                                                     const std::vector<std::string>& paths) {
  std::vector<StatePath> known;
  for (const std::string& path : paths) {
    const std::optional<StatePath> found = findStatePath(path);
    if (!found) return Mox::Failure{path + ": there is no such path; allowed: " + statePathNames()};
    known.push_back(*found);
  }
  auto job = std::make_unique<MonitorJob>(state, loop, known);
  if (!job->error().empty()) return Mox::Failure{job->error()};
  return std::unique_ptr<ControlJob>(std::move(job));
}

}  // namespace Host
