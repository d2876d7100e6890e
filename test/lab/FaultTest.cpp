// What becomes of the daemon when the kernel refuses one of its calls, and when it is killed at one.
//
// Each run is the same: start, a host asks, another one is learned and moves, an unknown one is flooded, a
// binding, an address and a namespace come, stop. One call of it fails. Afterwards everything is as in a run
// without a fault, or the daemon has ended with a message that says what failed; the next start finds nothing
// that it cannot make good.
//
// FAULTS=all runs every call of every function (half an hour), FAULTS=open,socket those of these functions; otherwise
// it is two calls of each function of which every call was seen to be good.

#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <random>
#include <set>
#include <sstream>

#include "host/arpsup/Client.h"
#include "lab/Faults.h"
#include "lab/WholeSwitch.h"

namespace Lab {
namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;
using Milliseconds = std::chrono::milliseconds;

// All of their calls have been refused, one by one.
constexpr char kSeenGood[] = "bind,epoll_ctl,mmap,pwrite,socket";
// Retries come within that.
constexpr double kRetrySeconds = 20;
// What takes no longer than that nobody has to be told of.
constexpr double kUnnoticedSeconds = 8;

struct Fault {
  std::uint32_t call = FaultPage::kAnyCall;
  std::uint32_t number = 0;  // 0: none
  std::int32_t error = 0;
  bool goesOn = false;
};

std::string textOf(const Fault& fault) {
  if (fault.number == 0) return "no fault";
  const std::string name = fault.call == FaultPage::kAnyCall ? "any call" : kFaultCalls[fault.call].name;
  return name + " number " + std::to_string(fault.number) + (fault.goesOn ? " and all after it" : "") + ": " +
         (fault.error == FaultPage::kKill ? "killed" : std::strerror(fault.error));
}

enum Kind : std::uint8_t { notReached, unnoticed, retried, ended, wrong, kKinds };
struct Outcome {
  Kind kind;
  std::string why;
};

class Faults : public WholeSwitch {
 protected:
  void SetUp() override {
    if (*FAULTS == '\0') GTEST_SKIP() << "a sanitizer stands in front of the same calls";
    if (patienceFactor() > 1)
      GTEST_SKIP() << "hundreds of starts take too long where the processor is emulated";
    WholeSwitch::SetUp();
    if (IsSkipped()) return;
    vlan20Is();
    const std::string file = (std::filesystem::temp_directory_path() / "faults-XXXXXX").string();
    pageFile_ = file;
    const int page = mkstemp(pageFile_.data());
    ASSERT_GE(page, 0);
    ASSERT_EQ(ftruncate(page, sizeof(FaultPage)), 0);
    void* const at = mmap(nullptr, sizeof(FaultPage), PROT_READ | PROT_WRITE, MAP_SHARED, page, 0);
    ASSERT_NE(at, MAP_FAILED);
    close(page);
    page_ = static_cast<FaultPage*>(at);
    const Namespace named("green");  // only its name counts
    config_["agents"] = {"KernelState", "ArpService", "SoftForward", "ArpSuppression"};
    config_["vrfs"]["green"] = {{"id", 9}, {"networkNamespace", named.name()}};
    kernelBefore_ = kernel();
  }
  void TearDown() override {
    if (page_) munmap(page_, sizeof(FaultPage));
    std::filesystem::remove(pageFile_);
  }

  void launch(const Fault& fault) {
    new (page_) FaultPage;
    page_->call = fault.call;
    page_->first = fault.number;
    page_->error = fault.error;
    page_->goesOn = fault.goesOn;
    setenv("FAULT_PAGE", pageFile_.c_str(), 1);
    setenv("LD_PRELOAD", FAULTS, 1);
    switch_.launch(config_);
    unsetenv("LD_PRELOAD");
  }

  // What the daemon leaves in the kernel.
  std::string kernel() const {
    std::string all =
        run("ip -br link show | cut -d' ' -f1; tc qdisc show; bridge fdb show | grep -E 'permanent|static' | "
            "sort");
    for (const Vlan* vlan : {&vlan10_, &vlan20_}) {
      const Entered there(*vlan->where);
      all += run("ip neigh show nud permanent");
    }
    return all;
  }

  static std::string more(const std::string& text, const std::string& before) {
    std::string lines;
    std::istringstream all(text);
    for (std::string line; std::getline(all, line);)
      if (before.find(line) == std::string::npos) lines += line + "\n";
    return lines;
  }

  // Everything that is to be as without a fault; null: the daemon does not answer.
  json tables() {
    auto client = Host::Client::connect(switch_.runDirectory(), Milliseconds(2000));
    if (!client) return {};
    const auto paths = (*client)->ask({{"cmd", "paths"}}, nullptr);
    if (!paths) return {};
    json all;
    const auto add = [&](const std::string& name, const json& request) {
      std::string text;
      const auto answer = (*client)->ask(request, &text);
      all[name] = answer ? json::parse(text, nullptr, false) : json(answer.error());
      return answer || answer.number() == 0;
    };
    static const std::set<std::string> kNotCompared = {"arpSuppression/counter", "softForward/answers",
                                                       "switch/health", "switch/readiness"};
    for (const std::string path : paths->at("paths"))
      if (!kNotCompared.contains(path) && !add(path, {{"cmd", "show"}, {"path", path}})) return {};
    if (!add("bindings", {{"cmd", "agent"}, {"command", "bindings"}, {"args", {"local"}}})) return {};
    client->reset();
    for (auto& [device, indices] : all["kni/ns/default/status"]["interface"].items()) indices.clear();
    // Whether a local host is the kernel's own or ours depends on what was known when it was heard first.
    const auto erase = [](json& rows, std::initializer_list<const char*> members) {
      for (json& row : rows)
        for (const char* member : members)
          if (row.is_object()) row.erase(member);
    };
    erase(all["arp/service/status"]["vrf"], {"probes", "refusals", "programmed"});
    erase(all["arp/status"]["arpEntry"], {"arpType", "static"});
    erase(all["bindings"], {"ageSeconds", "lastSeenSeconds", "dynamic"});
    for (json& vrf : all["arp/input/config/arpSuppression"]["vrf"]) erase(vrf, {"10.0.10.11", "10.0.10.13"});
    // The machine may be busy, and others fill the kernel's tables.
    json& problems = all["switch/problems"]["problem"];
    if (problems.is_object())
      problems.erase("KernelState names of network namespaces");  // stands until the next start
    const std::string error = std::strerror(page_->error);
    for (auto at = problems.begin(); at != problems.end();)
      at = at->dump().find(error) == std::string::npos ? problems.erase(at) : std::next(at);
    std::set<std::string> neighbours;
    for (const Vlan* vlan : {&vlan10_, &vlan20_}) {
      const Entered there(*vlan->where);
      std::istringstream lines(run("ip neigh show proto 110"));
      for (std::string line; std::getline(lines, line);)
        if (const auto mac = line.find("lladdr "); mac != line.npos)
          neighbours.insert(line.substr(0, line.find(' ') + 1) + line.substr(mac + 7, 17));
    }
    all["neighbours"] = neighbours;
    const std::size_t descriptors = switch_.descriptors();
    all["descriptors"] = reference_.is_null()
                             ? descriptors
                             : std::max(descriptors, reference_["descriptors"].get<std::size_t>());
    return all;
  }

  bool asks(PacketSocket& from, const Mac& mac, const Ip& ip, const Ip& target, PacketSocket& hears,
            const Frame& wanted) {
    from.send(arpFrame({1, mac, ip, {}, target}));
    const auto until = Clock::now() + Milliseconds(50);
    while (Clock::now() < until)
      if (const auto frame = hears.receive(Milliseconds(20)); frame && *frame == wanted) return true;
    return false;
  }

  // Whether `step` came true in time; false when the daemon has ended too.
  template <class Step>
  bool until(Clock::time_point deadline, const Step& step) {
    while (!step()) {
      if (Clock::now() > deadline || !switch_.daemon().read(Milliseconds(10))) return false;
    }
    return true;
  }

  Outcome endedBy(const Fault& fault) {
    Process& daemon = switch_.daemon();
    const int status = daemon.wait();
    if (page_->failed == 0) return {wrong, "ended without a fault: " + daemon.error};
    if (fault.error == FaultPage::kKill)
      return {status == -1 ? ended : wrong, "ended itself: " + daemon.error};
    // In the wrong network namespace nothing may go on.
    if (daemon.error.find("assertion failed: back in the network namespace before") != std::string::npos)
      return {ended, daemon.error};
    if (status != 1) return {wrong, "ended with status " + std::to_string(status) + ": " + daemon.error};
    // A lock that is refused is taken for one that another process holds.
    if (daemon.error.find(std::strerror(fault.error)) == std::string::npos &&
        daemon.error.find("another process") == std::string::npos)
      return {wrong, "ended without saying why: " + daemon.error};
    return {ended, daemon.error};
  }

  // The scenario.
  Outcome scenario(const Fault& fault) {
    const auto begin = Clock::now();
    const auto deadline = begin + std::chrono::duration_cast<Clock::duration>(Seconds(kRetrySeconds));
    const std::string away = vlan20_.device;
    launch(fault);
    std::optional<Namespace> green;
    Process& daemon = switch_.daemon();
    struct AddressGoes {
      const Vlan& vlan;
      ~AddressGoes() {
        const Entered there(*vlan.where);
        run("ip addr flush dev " + vlan.device + " to 10.0.20.2/32");
      }
    } const goes{vlan20_};
    if (!daemon.readUntil("agent-host: runs\n")) {
      if (!daemon.read(Milliseconds(0))) return endedBy(fault);
      return {wrong, "does not start: " + daemon.error};
    }
    const Mac mover{0x02, 0, 0, 0, 0, 0x13};
    const Ip moverIp{10, 0, 10, 13};
    const Ip nobody{10, 0, 10, 200};
    const Ip added{10, 0, 10, 98};
    const Mac addedMac{0x02, 0, 0, 0, 0, 0x98};
    const Frame flooded = arpFrame({1, mover, moverIp, {}, nobody});
    const auto ended = [&] { return !daemon.read(Milliseconds(0)); };
    const auto failed = [&](const std::string& what) {
      if (ended()) return endedBy(fault);
      return Outcome{wrong, what + ": " + daemon.error};
    };
    const auto trapped = [&] {
      std::string text;
      auto client = Host::Client::connect(switch_.runDirectory(), Milliseconds(2000));
      if (!client || !(*client)->ask({{"cmd", "show"}, {"path", "switch/forwarding"}}, &text)) return false;
      const json shown = json::parse(text, nullptr, false);
      return shown.is_object() && !shown.value("failingOpen", true) &&
             shown.value("/vlan/10/ready"_json_pointer, false) &&
             shown.value("/vlan/20/ready"_json_pointer, false);
    };
    if (!until(deadline, trapped)) return failed("does not trap");
    if (!until(deadline, [&] {
          return asks(*host1_, kHost1, kHost1Ip, kRemoteIp, *host1_, reply(kRemote, kRemoteIp));
        }))
      return failed("a known host is not answered");
    if (!until(deadline, [&] { return asks(*host1_, mover, moverIp, nobody, *far_, flooded); }))
      return failed("an unknown host is not flooded");
    green.emplace("green");
    {
      const Entered there(*vlan20_.where);
      run("ip addr add 10.0.20.2/24 dev " + vlan20_.device);
    }
    const auto add = [&] {
      auto client = Host::Client::connect(switch_.runDirectory(), Milliseconds(2000));
      return client &&
             (*client)->ask(
                 {{"cmd", "remote"}, {"op", "add"}, {"bindings", "10 10.0.10.98 02:00:00:00:00:98"}},
                 nullptr);
    };
    if (!until(deadline, add)) return failed("a binding is not taken");
    if (!until(deadline,
               [&] { return asks(*host1_, kHost1, kHost1Ip, added, *host1_, reply(addedMac, added)); }))
      return failed("a new binding is not answered");
    json now;
    if (!until(deadline, [&] {
          asks(*host1_, kHost1, kHost1Ip, nobody, *far_, arpFrame({1, kHost1, kHost1Ip, {}, nobody}));
          asks(*host2_, mover, moverIp, nobody, *far_, flooded);
          now = tables();
          return reference_.is_null() || now == reference_;
        }))
      return failed("not as without a fault: " + json::diff(reference_, now).dump() + "\n");
    const double took = Seconds(Clock::now() - begin).count();
    if (reference_.is_null()) {
      // What is still to come, comes now.
      until(Clock::now() + Milliseconds(1500), [] { return false; });
      reference_ = tables();
      usual_ = took;
    }
    const bool late = took > usual_ + kUnnoticedSeconds;
    if (late && daemon.error.find(std::strerror(fault.error)) == std::string::npos)
      return {wrong, "is late without saying why: " + std::to_string(took) + " s: " + daemon.error};
    daemon.signal(SIGTERM);
    const bool told = daemon.error.find(std::strerror(fault.error)) != std::string::npos;
    const int status = daemon.wait();
    if (status == -1 && fault.error == FaultPage::kKill && page_->failed > 0)
      return {Kind::ended, daemon.error};
    if (status != 0) return {wrong, "stops with status " + std::to_string(status) + ": " + daemon.error};
    std::string after = more(kernel(), kernelBefore_);
    // Killed between making a clsact and putting a filter into it, which says whose it is.
    if (const auto device = after.find(" dev ");
        afterKill_ && after.starts_with("qdisc clsact") && std::ranges::count(after, '\n') == 1) {
      run("tc qdisc del clsact" + after.substr(device, after.find(" parent") - device));
      after.clear();
    }
    if (!after.empty()) {
      if (daemon.error.find(std::strerror(fault.error)) == std::string::npos)
        return {wrong, "leaves without saying so: " + after + "\n" + daemon.error};
      return {retried, "leaves: " + after + daemon.error};
    }
    return {page_->failed == 0 ? notReached : told ? retried : unnoticed, daemon.error};
  }

  // A run with the fault; then, unless nothing came of it, one without.
  Outcome runWith(const Fault& fault) {
    Outcome outcome = scenario(fault);
    afterKill_ = fault.error == FaultPage::kKill;
    if (switch_.running()) switch_.kill();
    if (outcome.kind == wrong || outcome.kind == ended || outcome.kind == retried) {
      const Outcome next = scenario({});
      if (next.kind == wrong) {
        outcome = {wrong, "the next run " + next.why + "\nafter " + outcome.why};
        if (switch_.running()) switch_.kill();
        switch_.cleanUp();
        for (const char* port :
             {"vlan10", "Ethernet1", "Ethernet2", "core10", "core11", "br20", "to-vlan20", "core20"})
          run(std::string("tc qdisc del dev ") + port + " clsact || true");
      }
    }
    return outcome;
  }

  void referenceIs() {
    const Outcome first = scenario({});
    ASSERT_EQ(first.kind, notReached) << first.why;
    std::copy(std::begin(page_->counts), std::end(page_->counts), std::begin(undisturbed_));
    all_ = page_->all;
  }

  std::string pageFile_, kernelBefore_;
  FaultPage* page_ = nullptr;
  json reference_;
  bool afterKill_ = false;
  double usual_ = 0;
  std::uint32_t undisturbed_[kFaultCallCount] = {};
  std::uint32_t all_ = 0;
};

TEST_P(Faults, GoOnOrEndWithAMessage) {
  referenceIs();
  const char* const named = std::getenv("FAULTS");
  const bool whole = named != nullptr;
  const std::string chosen = std::string(",") + (whole ? named : kSeenGood) + ",";
  printf("%-18s %6s %10s %10s %8s %6s %6s\n", "call", "calls", "not reached", "unnoticed", "told", "ended",
         "wrong");
  for (std::uint32_t call = 0; call < kFaultCallCount; ++call) {
    const FaultCall& of = kFaultCalls[call];
    if (chosen != ",all," && chosen.find(std::string(",") + of.name + ",") == chosen.npos) continue;
    int kinds[kKinds] = {};
    std::set<std::uint32_t> numbers = {std::min(3U, undisturbed_[call]), undisturbed_[call] / 2 + 1};
    for (std::uint32_t number = 1; whole && number <= undisturbed_[call]; ++number) numbers.insert(number);
    for (const std::uint32_t number : numbers) {
      if (number == 0 || number > undisturbed_[call]) continue;
      for (const std::int32_t error : of.errors) {
        if (error == 0 || (error != of.errors[0] && !whole)) continue;
        const Fault fault{call, number, error};
        const auto begin = Clock::now();
        const Outcome outcome = runWith(fault);
        ++kinds[outcome.kind];
        if (outcome.kind == wrong) ADD_FAILURE() << textOf(fault) << ": " << outcome.why;
        if (whole)
          fprintf(stderr, "%.1f s %s: %d %s\n", Seconds(Clock::now() - begin).count(), textOf(fault).c_str(),
                  outcome.kind, outcome.why.c_str());
      }
    }
    printf("%-18s %6u %10d %10d %8d %6d %6d\n", of.name, undisturbed_[call], kinds[notReached],
           kinds[unnoticed], kinds[retried], kinds[ended], kinds[wrong]);
    fflush(stdout);
  }
}

TEST_P(Faults, KilledAnywhereItIsMadeGoodByTheNextStart) {
  referenceIs();
  std::mt19937 random(
      std::getenv("FAULTS_SEED") ? static_cast<unsigned>(std::atoi(std::getenv("FAULTS_SEED"))) : 1U);
  const int kills = std::getenv("FAULTS") ? 200 : 8;
  int kinds[kKinds] = {};
  for (int i = 0; i < kills; ++i) {
    const Fault fault{FaultPage::kAnyCall, std::uniform_int_distribution<std::uint32_t>(1, all_)(random),
                      FaultPage::kKill};
    const Outcome outcome = runWith(fault);
    ++kinds[outcome.kind];
    if (outcome.kind == wrong) ADD_FAILURE() << textOf(fault) << ": " << outcome.why;
    fprintf(stderr, "%d: %s: %d\n", i, textOf(fault).c_str(), outcome.kind);
  }
  printf("%d kills of %u calls: %d not reached, %d wrong\n", kills, all_, kinds[notReached], kinds[wrong]);
}

INSTANTIATE_TEST_SUITE_P(Layouts, Faults, testing::Values(kLayouts[0], kLayouts[3]), nameOf);

}  // namespace
}  // namespace Lab
