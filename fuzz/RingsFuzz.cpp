#include <sys/mman.h>

#include "Statedb/Json.h"
#include "Switch/Event.h"
#include "Tracelet/Reader.h"
#include "Tracelet/Tracelet.h"
#include "fuzz/Input.h"
#include "host/arpsup/Commands.h"

namespace {

// A sound ring file with events of every form.
std::vector<std::byte> soundFile(const std::string& folder) {
  using Switch::EventKind;
  Tracelet::TraceParams params;
  params.fileName = folder + "/sound.tl";
  params.levelKiB = {1, 1, 1, 1, 1, 1};
  const std::string file = Tracelet::initialize(params);
  const Bridging::VlanId vlanId(10);
  const auto ip = *Lanix::IpGenAddr::fromStrep("10.0.0.9");
  const auto mac = *Lanix::EthAddr::fromStrep("02:00:00:00:00:09");
  for (const auto kind : {EventKind::learned, EventKind::moved, EventKind::conflict})
    Switch::bindingEvent(kind, {Switch::EventTable::local, vlanId, ip, mac, "Ethernet1", "was elsewhere"});
  Switch::vlanEvent(vlanId, "degraded", "there is no bridge vlan10");
  Switch::vrfEvent("red", "active");
  Switch::healthEvent("failed");
  Switch::problemEvent(EventKind::problem, {"P", "port Ethernet1", "torn", "mend it"});
  TRACELET_RECORD("vlanId={} connectionType={} ip={}", 10, 'R', ip);
  Tracelet::finalize();
  auto bytes = Fuzz::contentOf(file);
  std::filesystem::remove(file);
  return bytes;
}

// What is written to standard output from here on.
class Output {
 public:
  Output() : file_(memfd_create("output", MFD_CLOEXEC)) { dup2(file_, STDOUT_FILENO); }
  std::string take() {
    std::string text(static_cast<std::size_t>(lseek(STDOUT_FILENO, 0, SEEK_CUR)), '\0');
    Fuzz::check(pread(file_, text.data(), text.size(), 0) == std::ssize(text), "what was written");
    Fuzz::check(ftruncate(file_, 0) == 0 && lseek(STDOUT_FILENO, 0, SEEK_SET) == 0, "an empty file");
    return text;
  }

 private:
  const int file_;
};

}  // namespace

// The ring file that a run of the agent-host left, overwritten in places: `arpsup events` and `arpsup trace` show
// printable lines, and with --json an object a line. The first byte says which.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const Fuzz::Folder folder;
  static const std::vector<std::byte> sound = soundFile(folder.path());
  static Output output;
  Fuzz::Input input(data, size);
  const auto how = input.number<std::uint8_t>();
  std::vector<std::byte> bytes = sound;
  Fuzz::damage(bytes, input, 64);
  const Tracelet::Reader reader(bytes);
  if (!reader.readable()) return 0;
  const std::string owner = std::to_string(reader.pid());
  Fuzz::contentIs(folder.path() + "/lock", std::as_bytes(std::span(owner)));
  Fuzz::contentIs(folder.path() + "/ArpSuppression-1.tl", bytes);

  Host::CommonOptions options;
  options.runDirectory = folder.path();
  options.json = (how & 1) != 0;
  const int status = (how & 2) != 0 ? Host::showTrace(options, {}) : Host::showEvents(options, {});
  Fuzz::check(status == 0 || status == 1, "an end", std::to_string(status));
  const std::string text = output.take();
  Fuzz::checkPrintable(text, true);
  std::string_view rest = text;
  for (std::size_t end = 0; options.json && !rest.empty(); rest.remove_prefix(end + 1)) {
    end = rest.find('\n');
    Fuzz::check(end != std::string_view::npos, "whole lines", rest);
    const auto line = Statedb::jsonOf(rest.substr(0, end));
    Fuzz::check(line && line->is_object() && line->contains("time"), "an object a line", rest.substr(0, end));
  }
  return 0;
}
