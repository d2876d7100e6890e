#include "Memtab/EntityManager.h"

#include <algorithm>
#include <cerrno>

#include "Mox/Notifiee.h"
#include "Tracelet/Record.h"
#include "Tracelet/Trace.h"

namespace Memtab {

namespace {

constexpr std::size_t kKeysPerDrain = 64;
constexpr unsigned kDrainLevel = 2;
constexpr unsigned kMostUrgent = 0;
constexpr double kRetrySeconds = 1;

Tracelet::Handle& traceHandle() {
  static Tracelet::Handle handle("Memtab");
  return handle;
}

}  // namespace

void Entity::corrupted(const std::string& message) const {
  if (corruptionHandler_) {
    corruptionHandler_(message);
    return;
  }
  if (traceHandle().on(0))
    Tracelet::writeLine("agent-host: shared memory corruption: " + message, Tracelet::Priority::error);
  TRACELET_RECORD("shared memory corruption: {}", message);
}

// --- MountGroup ------------------------------------------------------------------------------------------

Mounted MountGroup::mountIs(const std::string& path, const std::string& typeName,
                            const MountDescriptor& descriptor) {
  if (!manager_) return Mox::Failure{path + ": the process is ending"};
  Mounted mounted = manager_->mount(path, typeName, descriptor);
  mounted_.push_back(mounted ? *mounted : nullptr);
  paths_.push_back(manager_->normal(path));
  return mounted;
}

void MountGroup::close() {
  closed_ = true;
  update();
}

void MountGroup::update() {
  if (!closed_) return;
  const bool attached =
      std::all_of(mounted_.begin(), mounted_.end(), [](const Mox::Ptr<Memtab::Entity>& entity) {
        if (!entity) return false;
        const auto tables = entity->tables();
        return std::all_of(tables.begin(), tables.end(), [](TableBase* table) {
          return table->writer() || (table->view() && table->view()->attached());
        });
      });
  readyIs(attached && std::none_of(paths_.begin(), paths_.end(),
                                   [this](const std::string& path) { return manager_->heldBack(path); }));
}

// --- EntityManager ---------------------------------------------------------------------------------------

class DescriptorWatch {
 public:
  DescriptorWatch(const Mox::Ptr<Orb::FileDescriptor>& descriptor, std::function<void()> handle)
      : notifiee_(descriptor) {
    notifiee_.on(Orb::FileDescriptor::readableCountChanged, std::move(handle));
  }

 private:
  Mox::Notifiee<Orb::FileDescriptor> notifiee_;
};

EntityManager::EntityManager(Orb::EventLoop& loop, const Mox::Ptr<Orb::TaskScheduler>& scheduler,
                             Directory directory, Report report)
    : loop_(loop),
      directory_(std::move(directory)),
      report_(std::move(report)),
      retry_(loop, "Memtab, refused tables", [this] { tryRefused(); }),
      descriptor_(Mox::make<Orb::FileDescriptor>(loop, "Memtab")),
      news_{{}, {scheduler, "Memtab", kDrainLevel, [this] { drain(news_); }}},
      urgentNews_{{}, {scheduler, "Memtab, urgent", kMostUrgent, [this] { drain(urgentNews_); }}},
      hook_(loop.endOfTurn([this] { endOfTurn(); })) {
  descriptorWatch_ = std::make_unique<DescriptorWatch>(descriptor_, [this] { handleReadable(); });
  if (watcher_.descriptor() >= 0) {
    descriptor_->descriptorIs(watcher_.descriptor());
    descriptor_->notifyOnReadableIs(true);
  } else if (report_) {
    report_("shared memory: changes of other processes will not be noticed: " + watcher_.watching().error());
  }
}

// Entities may be held by others for longer; their views must go before the watcher does.
EntityManager::~EntityManager() {
  for (const Mox::Ptr<MountGroup>& group : groups_) group->manager_ = nullptr;
  for (auto& [path, slot] : slots_) {
    flush(slot);
    slot.entity->roomHandlerIs({});
    for (TableBase* table : slot.entity->tables()) table->close();
  }
}

std::string EntityManager::normal(std::string_view path) const {
  while (!path.empty() && path.back() == '/') path.remove_suffix(1);
  return std::string(path);
}

Mounted EntityManager::mount(const std::string& given, const std::string& typeName,
                             const MountDescriptor& descriptor) {
  const std::string path = normal(given);
  auto at = slots_.find(path);
  if (at == slots_.end()) {
    const auto maker = makers_.find(typeName);
    if (maker == makers_.end()) return Mox::Failure{path + ": unknown shared-memory type " + typeName};
    at = slots_.emplace(path, Slot{maker->second(), typeName, 0, false, nullptr}).first;
  } else if (at->second.typeName != typeName) {
    return Mox::Failure{path + ": is a " + at->second.typeName + ", not a " + typeName};
  }
  Slot& slot = at->second;
  for (TableBase* table : slot.entity->tables()) {
    const std::string name = path + "." + table->name();
    if (descriptor.kind == MountDescriptor::Kind::writer) {
      WriterOptions options;
      for (const auto& collection : descriptor.collections) {
        if (collection.name == table->name()) options.capacity = collection.size;
      }
      if (!table->writer()) {
        if (const auto opened = table->writerIs(directory_, name, options); !opened) return opened.failure();
        const OpenReport& opened = table->writer()->openReport();
        if (!opened.replaced.empty() && report_)
          report_(opened.replaced + (opened.setAside.empty() ? "" : "; set aside as " + opened.setAside));
      }
      slot.writable = true;
      slot.entity->roomHandlerIs([this, path](const Mox::Result<>& room) {
        if (roomHandler_) {
          roomHandler_(path, room);
        } else if (report_) {
          report_(path + ": " + (room ? "takes entries again" : room.error()));
        }
      });
      slot.doorbellDelay = descriptor.doorbellDelay;
    } else {
      table->readerIs(directory_, name, watcher_);
      tables_[table->view()] = table;
      if (descriptor.urgent) urgent_.insert(table);
    }
  }
  // News of before the mount is waiting at the watcher.
  handleReadable();
  tryRefused();
  return slot.entity;
}

Mox::Ptr<Memtab::Entity> EntityManager::entity(std::string_view path) const {
  const auto at = slots_.find(normal(path));
  return at == slots_.end() ? Mox::Ptr<Memtab::Entity>() : at->second.entity;
}

bool EntityManager::writable(std::string_view path) const {
  const auto at = slots_.find(normal(path));
  return at != slots_.end() && at->second.writable;
}

const std::string& EntityManager::typeName(std::string_view path) const {
  static const std::string none;
  const auto at = slots_.find(normal(path));
  return at == slots_.end() ? none : at->second.typeName;
}

std::vector<std::string> EntityManager::paths() const {
  std::vector<std::string> paths;
  for (const auto& [path, slot] : slots_) paths.push_back(path);
  return paths;
}

Mox::Ptr<MountGroup> EntityManager::mountGroup() {
  auto group = Mox::make<MountGroup>(*this);
  groups_.push_back(group);
  return group;
}

void EntityManager::handleReadable() {
  watcher_.handleReadable();
  while (TableView* view = watcher_.next()) {
    const auto table = tables_.find(view);
    if (table == tables_.end()) continue;
    News& news = urgent_.contains(table->second) ? urgentNews_ : news_;
    if (std::find(news.tables.begin(), news.tables.end(), table->second) == news.tables.end())
      news.tables.push_back(table->second);
    news.task.schedule();
  }
}

// What the system refuses a reader, it may grant later.
void EntityManager::tryRefused() {
  bool tried = false, wait = false;
  for (auto& [path, slot] : slots_) {
    for (TableBase* table : slot.entity->tables()) {
      TableView* const view = table->view();
      if (!view || !(view->refused() || refused_.contains(view))) continue;
      tried = true;
      view->refresh();
      wait = wait || view->refused();
      if (!view->refused()) watcher_.mark(*view);
      if (view->refused() ? !refused_.insert(view).second : refused_.erase(view) == 0) continue;
      const Mox::Result<> result = view->refused() ? Mox::Failure{view->problem()} : Mox::Result<>();
      if (refusedHandler_) {
        refusedHandler_(path, result);
      } else if (report_) {
        report_(path + ": " + (result ? "can be read again" : result.error()));
      }
    }
  }
  if (wait && !retry_.scheduled()) retry_.after(kRetrySeconds);
  if (tried) handleReadable();
  updateGroups();
}

void EntityManager::heldBackIs(const std::string& path, bool heldBack) {
  heldBack ? void(heldBack_.insert(normal(path))) : void(heldBack_.erase(normal(path)));
  updateGroups();
}

// By index: whoever hears that a group is ready may make another.
void EntityManager::updateGroups() {
  for (std::size_t i = 0; i < groups_.size(); ++i) Mox::Ptr(groups_[i])->update();
}

void EntityManager::drain(News& news) {
  // Whatever is left, also when a watcher raises an error, comes in a later turn.
  struct Rest {
    ~Rest() {
      if (!news.tables.empty()) news.task.schedule();
    }
    News& news;
  } rest{news};
  tryRefused();
  while (!news.tables.empty()) {
    // In turn, so that a table that changes all the time holds up no other.
    TableBase* const table = news.tables.front();
    news.tables.pop_front();
    news.tables.push_back(table);
    if (!table->drain(kKeysPerDrain)) std::erase(news.tables, table);
    if (news.task.scheduler()->root().mustYield()) return;
  }
}

void EntityManager::endOfTurn() {
  for (auto& [path, slot] : slots_) {
    if (!slot.writable) continue;
    bool dirty = false;
    for (TableBase* table : slot.entity->tables()) dirty = table->takeDirty() || dirty;
    if (!dirty) continue;
    if (slot.doorbellDelay <= 0) {
      flush(slot);
      continue;
    }
    if (!slot.doorbell)
      slot.doorbell = std::make_unique<Orb::Timer>(loop_, "doorbell", [&slot = slot] { flush(slot); });
    if (!slot.doorbell->scheduled()) slot.doorbell->after(slot.doorbellDelay);
  }
}

void EntityManager::flush(Slot& slot) {
  for (TableBase* table : slot.entity->tables()) {
    if (Writer* writer = table->writer()) writer->flush();
  }
}

}  // namespace Memtab
