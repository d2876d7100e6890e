#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "Statedb/Json.h"
#include "host/JsonText.h"
#include "host/Protocol.h"
#include "host/arpsup/BindingFile.h"
#include "host/arpsup/Client.h"
#include "host/arpsup/Commands.h"
#include "host/arpsup/Output.h"

namespace Host {

namespace {

using nlohmann::json;

// Returns how many entries changed.
std::optional<std::uint64_t> change(const CommonOptions& options, const json& request, int& status) {
  json answer;
  status = Host::request(options, request, nullptr, &answer);
  if (status != kDone) return std::nullopt;
  return answer.value("changed", std::uint64_t{0});
}

// One line on a terminal, rewritten as it goes.
class Progress {
 public:
  explicit Progress(std::size_t all) : all_(all), shown_(isatty(STDERR_FILENO) != 0) {}
  ~Progress() {
    if (shown_ && printed_) std::fputc('\n', stderr);
  }
  void done(std::size_t done) {
    if (!shown_ || (done - last_ < all_ / 100 && done != all_)) return;
    std::fprintf(stderr, "\r%zu of %zu remote bindings", done, all_);
    std::fflush(stderr);
    last_ = done;
    printed_ = true;
  }

 private:
  const std::size_t all_;
  const bool shown_;
  std::size_t last_ = 0;
  bool printed_ = false;
};

// The request of a chunk, written by hand: nothing in a binding's line needs escaping.
std::string chunkRequest(const std::vector<Binding>& bindings, std::size_t from, std::size_t to) {
  std::string request = R"({"cmd":"remote","op":"add","bindings":")";
  for (std::size_t i = from; i < to; ++i) {
    if (i != from) request += "\\n";
    request += bindingLine(bindings[i]);
  }
  return request + "\"}";
}

int sendBindings(const CommonOptions& options, const std::vector<Binding>& bindings) {
  const auto client = Client::connect(options.runDirectory);
  if (!client) return fail(client.failure());
  const std::size_t chunks = (bindings.size() + kChunkBindings - 1) / kChunkBindings;
  std::size_t answered = 0;
  Progress progress(bindings.size());
  const auto receive = [&]() -> Mox::Result<> {
    const auto answer = (*client)->receive([](std::string_view) { return true; });
    if (!answer) return answer.failure();
    progress.done(std::min(bindings.size(), ++answered * kChunkBindings));
    return {};
  };
  Mox::Result<> good;
  for (std::size_t chunk = 0; chunk < chunks && good; ++chunk) {
    const std::size_t from = chunk * kChunkBindings;
    good = (*client)->send(chunkRequest(bindings, from, std::min(bindings.size(), from + kChunkBindings)));
    if (good && chunk - answered >= kWindowChunks - 1) good = receive();
  }
  while (good && answered < chunks) good = receive();
  if (good) return kDone;
  return fail(Mox::Failure{
      good.error() + " (the " + std::to_string(answered * kChunkBindings) + " bindings before are in)",
      good.number()});
}

}  // namespace

int addRemote(const CommonOptions& options, const std::string& vlan, const std::string& ip,
              const std::string& mac, BindingFlags flags) {
  const auto binding = parseBinding(vlan, ip, mac, flags);
  if (!binding) return fail(kUsage, binding.error());
  int status = kDone;
  change(options, {{"cmd", "remote"}, {"op", "add"}, {"bindings", bindingLine(*binding)}}, status);
  return status;
}

int deleteRemote(const CommonOptions& options, const std::string& vlan, const std::string& ip) {
  const auto key = parseBindingKey(vlan, ip);
  if (!key) return fail(kUsage, key.error());
  int status = kDone;
  const auto changed =
      change(options, {{"cmd", "remote"}, {"op", "del"}, {"bindings", Mox::toStrep(*key)}}, status);
  if (changed && *changed == 0) {
    return fail(kRefused, "there is no remote binding of " + ip + " on VLAN " + vlan +
                              "; `arpsup bindings remote --vlan " + vlan + "` lists them");
  }
  return status;
}

int clearRemote(const CommonOptions& options) {
  int status = kDone;
  change(options, {{"cmd", "remote"}, {"op", "clear"}}, status);
  return status;
}

int loadRemote(const CommonOptions& options, const std::string& name, bool skipBad) {
  constexpr std::size_t kMaxFileBytes = std::size_t{2} << 30;
  BindingFile file;
  {
    const Mox::Result<std::string> text = readFile(name, kMaxFileBytes, true);
    if (!text) return fail(kRefused, text.error());
    file = parseBindingFile(*text);
  }
  for (const BindingFile::BadLine& line : file.badLines) {
    fail(kRefused, name + " line " + std::to_string(line.number) + ": " + line.problem);
  }
  if (file.badCount > file.badLines.size()) {
    fail(kRefused, name + ": " + std::to_string(file.badCount - file.badLines.size()) + " more bad lines");
  }
  if (file.badCount != 0 && !skipBad) {
    return fail(kRefused, name + ": nothing was loaded, because " + std::to_string(file.badCount) + " of " +
                              std::to_string(file.bindings.size() + file.badCount) +
                              " lines are bad; correct them, or load the others with --skip-bad");
  }
  const int status = sendBindings(options, file.bindings);
  if (status != kDone) return status;
  std::printf("%s\n",
              options.json
                  ? Statedb::jsonText({{"loaded", file.bindings.size()}, {"skipped", file.badCount}}).c_str()
                  : (std::to_string(file.bindings.size()) + " remote bindings loaded, " +
                     std::to_string(file.badCount) + " bad lines skipped")
                        .c_str());
  return kDone;
}

}  // namespace Host
