#include "Tracelet/Reader.h"
#include "Tracelet/Tracelet.h"
#include "fuzz/Input.h"

namespace {

// A sound ring file: records with every kind of argument, more than its rings hold.
std::vector<std::byte> soundFile() {
  const Fuzz::Folder folder;
  Tracelet::TraceParams params;
  params.fileName = folder.path() + "/ring.tl";
  params.levelKiB = {1, 1, 1, 1, 1, 1};
  const std::string file = Tracelet::initialize(params);
  for (int i = 0; i < 200; ++i) {
    TRACELET_RECORD_AT(0, "number {} of {} is even: {} half: {}", i, 200u, i % 2 == 0, i / 2.0);
    TRACELET_RECORD_AT(3, "text {} {}", std::string(static_cast<std::size_t>(i), 'x'), 'c');
  }
  Tracelet::finalize();
  auto bytes = Fuzz::contentOf(file);
  Fuzz::check(static_cast<bool>(Tracelet::Reader(bytes).readable()), "a sound ring file");
  return bytes;
}

}  // namespace

// A ring file that is cut short and overwritten in places still gives a bounded number of printable lines.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const std::vector<std::byte> sound = soundFile();
  Fuzz::Input input(data, size);
  std::vector<std::byte> bytes = sound;
  if (const auto cut = input.number<std::uint16_t>(); cut < bytes.size() / 8)
    bytes.resize(bytes.size() - cut * 8u);
  Fuzz::damage(bytes, input, 64);

  Tracelet::Reader reader(bytes);
  std::size_t lines = 0;
  while (const auto line = reader.next()) {
    Fuzz::check(static_cast<bool>(reader.readable()), "no line of a file that is refused");
    Fuzz::check(++lines <= bytes.size() / sizeof(Tracelet::RecordHeader), "no more lines than records fit",
                *line);
    Fuzz::checkPrintable(*line);
  }
  return 0;
}
