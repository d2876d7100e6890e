#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <vector>

#include "Mox/Assert.h"
#include "Tracelet/Reader.h"
#include "Tracelet/Text.h"
#include "Tracelet/Tracelet.h"

namespace {

namespace fs = std::filesystem;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;

struct MacLike {
  Tracelet::Mac traceletArg() const { return {{2, 0, 0, 0, 0xbe, 0xef}}; }
};
struct Ip4Like {
  Tracelet::Ip4 traceletArg() const { return {{10, 0, 0, 1}}; }
};
struct Ip6Like {
  Tracelet::Ip6 traceletArg() const { return {{0xfe, 0x80, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1}}; }
};
struct IpLike {
  std::uint8_t family;
  Tracelet::Ip traceletArg() const { return {family, {10, 0, 0, 2}}; }
};
struct Named {
  std::string_view traceletArg() const { return "Vlan10"; }
};
enum class Colour : std::uint8_t { red, green };
constexpr std::array<const char*, 2> moxEnumNames(Colour) { return {"red", "green"}; }

std::vector<std::string> linesOf(Tracelet::Reader& reader) {
  std::vector<std::string> lines;
  while (auto line = reader.next()) lines.push_back(*line);
  return lines;
}
std::vector<std::string> linesOf(const std::string& file) {
  Tracelet::Reader reader(file);
  EXPECT_EQ(reader.readable().error(), "");
  return linesOf(reader);
}

std::string contentOf(const std::string& file) {
  std::ifstream in(file, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
void contentIs(const std::string& file, const std::string& content) {
  std::ofstream(file, std::ios::binary | std::ios::trunc) << content;
}

class RingTest : public ::testing::Test {
 protected:
  RingTest() : directory_(fs::temp_directory_path() / ("tracelet-" + std::to_string(getpid()))) {
    fs::remove_all(directory_);
    fs::create_directory(directory_);
    unsetenv("TRACELETDIR");
    Tracelet::directoryIs(directory_.string());
    Tracelet::textSinkIs([this](std::string_view line) { said_.emplace_back(line); });
  }
  ~RingTest() override {
    Tracelet::finalize();
    Tracelet::textSinkIs({});
    Tracelet::directoryIs("");
    Mox::assertionHookIs(nullptr);
    fs::remove_all(directory_);
  }
  std::string pathOf(const std::string& name) const { return (directory_ / name).string(); }

  fs::path directory_;
  std::vector<std::string> said_;
};

TEST_F(RingTest, RecordsReadBackAsText) {
  const std::string file = Tracelet::initialize({.fileName = "Unit-%d.tl"});
  EXPECT_EQ(file, pathOf("Unit-" + std::to_string(getpid()) + ".tl"));
  EXPECT_EQ(Tracelet::fileName(), file);
  const char* none = nullptr;
  TRACELET_RECORD("no arguments");
  TRACELET_RECORD("n={} u={} b={} c={} d={}", -5, UINT64_MAX, true, 'U', 0.25);
  TRACELET_RECORD_AT(0, "mac={} ip4={} ip6={} ip={}{}", MacLike(), Ip4Like(), Ip6Like(), IpLike{4},
                     IpLike{0});
  TRACELET_RECORD_AT(5, "{};{};{};{};{}", "literal", std::string("a\nb\xc2\x9b\xff"), Named(), Colour::green,
                     none);
  EXPECT_THAT(linesOf(file),
              ElementsAre(MatchesRegex("[0-9-]+T[0-9:.]+Z 2 Tracelet/RingTest:[0-9]+ no arguments"),
                          EndsWith(" n=-5 u=18446744073709551615 b=true c=U d=0.25"),
                          EndsWith(" mac=02:00:00:00:be:ef ip4=10.0.0.1 ip6=fe80::1 ip=10.0.0.2"),
                          EndsWith(" literal;a\\x0ab\\xc2\\x9b\\xff;Vlan10;green;NULL")));
}

// What terminals obey, and what is not UTF-8, is told by its bytes: everything else stays as it is.
TEST_F(RingTest, TextFromOutsideIsPrintable) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"plain ~ \"text\" \\", "plain ~ \"text\" \\"},
      {"\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80 \xc2\xa0", "\xc3\xa4 \xe2\x82\xac \xf0\x9f\x98\x80 \xc2\xa0"},
      {std::string("\0\t\r\n", 4) + "\x1b[31m\x7f", "\\x00\\x09\\x0d\\x0a\\x1b[31m\\x7f"},
      {"\xc2\x80\xc2\x9b\xc2\x9f", "\\xc2\\x80\\xc2\\x9b\\xc2\\x9f"},  // control characters of two bytes
      {"\x80 \xc0\x9b \xc1\xbf", "\\x80 \\xc0\\x9b \\xc1\\xbf"},       // no beginning; longer than need be
      {"\xe0\x82\x9b \xf0\x80\x82\x9b",
       "\\xe0\\x82\\x9b \\xf0\\x80\\x82\\x9b"},  // the same of three and four
      {"\xed\xa0\x80 \xf4\x90\x80\x80 \xff", "\\xed\\xa0\\x80 \\xf4\\x90\\x80\\x80 \\xff"},
      {"\xe2\x82", "\\xe2\\x82"},  // cut short
      {"\xe2\x82x\xf0\x9f\x98", "\\xe2\\x82x\\xf0\\x9f\\x98"},
  };
  for (const auto& [text, shown] : cases) {
    EXPECT_EQ(Tracelet::printable(text), shown);
    said_.clear();
    Tracelet::writeLine(text);
    EXPECT_THAT(said_, ElementsAre(shown)) << "what is logged is a line";
  }
  EXPECT_EQ(Tracelet::printableLines("a\x1b\nb\x9b\n\nc\r"), "a\\x1b\nb\\x9b\n\nc\\x0d");
}

// Shown are the times that the clock now gives to them, but only where that can be known: in the same boot.
TEST_F(RingTest, TimesFollowAClockThatWasSetAfterwards) {
  const std::string file = Tracelet::initialize({.fileName = "Unit.tl"});
  TRACELET_RECORD("of a writer before");
  Tracelet::finalize();
  Tracelet::initialize({.fileName = "Unit.tl"});
  TRACELET_RECORD("of the last writer");
  const auto years = [](const std::string& read) {
    std::string text;
    for (const std::string& line : linesOf(read)) text += line.substr(0, 4) + " ";
    return text;
  };
  const std::string as = years(file);
  std::string content = contentOf(file);
  Tracelet::FileHeader header;
  std::memcpy(&header, content.data(), sizeof header);
  header.wallOffset -= std::uint64_t{10} * 365 * 86400 * 1'000'000'000;  // the clock is put forward
  std::memcpy(content.data(), &header, sizeof header);
  contentIs(pathOf("set.tl"), content);
  EXPECT_EQ(years(pathOf("set.tl")).substr(0, 5), as.substr(0, 5));
  EXPECT_GE(std::stoi(years(pathOf("set.tl")).substr(5)), std::stoi(as.substr(5)) + 9);
  header.bootName.front() ^= 1;
  std::memcpy(content.data(), &header, sizeof header);
  contentIs(pathOf("other.tl"), content);
  EXPECT_EQ(years(pathOf("other.tl")), as);
}

TEST_F(RingTest, EachLevelKeepsItsNewestRecordsInOrder) {
  const std::string file = Tracelet::initialize({.fileName = "Unit.tl"});
  TRACELET_RECORD_AT(0, "first");
  for (int i = 0; i < 100'000; ++i) TRACELET_RECORD_AT(1, "i={}", i);
  TRACELET_RECORD_AT(0, "last");
  const auto lines = linesOf(file);
  ASSERT_GT(lines.size(), 32u * 1024 / 32 * 9 / 10);
  ASSERT_LT(lines.size(), 32u * 1024 / 32 + 2);
  EXPECT_THAT(lines.front(), EndsWith(" first"));
  EXPECT_THAT(lines.back(), EndsWith(" last"));
  for (std::size_t i = 1; i + 1 < lines.size(); ++i) {
    EXPECT_THAT(lines[i], EndsWith(" i=" + std::to_string(100'000 - (lines.size() - 1) + i)));
  }
}

// One writes, another process reads at the same time: every record once, whole, and in order.
TEST_F(RingTest, ReaderKeepsUpWithAnotherProcess) {
  constexpr int kRecords = 10'000;
  const std::string file = pathOf("Unit.tl");
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    Tracelet::initialize({.fileName = "Unit.tl"});
    if (write(ready[1], "x", 1) != 1) _exit(1);
    for (int i = 0; i < kRecords; ++i) {
      if (i % 2 == 0) {
        TRACELET_RECORD_AT(4, "i={} again={}", i, i);
      } else {
        TRACELET_RECORD_AT(5, "i={} again={}", i, i);
      }
    }
    _exit(0);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  Tracelet::Reader reader(file);
  std::vector<std::string> lines;
  bool ended = false;
  while (true) {
    const auto more = linesOf(reader);
    lines.insert(lines.end(), more.begin(), more.end());
    if (ended && more.empty()) break;
    ended = ended || waitpid(child, nullptr, WNOHANG) == child;
  }
  ASSERT_EQ(lines.size(), static_cast<std::size_t>(kRecords));
  for (int i = 0; i < kRecords; ++i) {
    const std::string number = std::to_string(i);
    ASSERT_THAT(lines[static_cast<std::size_t>(i)], EndsWith(" i=" + number + " again=" + number));
  }
  for (int descriptor : ready) close(descriptor);
}

TEST_F(RingTest, CallSitesBeyondTheRoomForThemAreDroppedAndCounted) {
  std::string file = Tracelet::initialize({.fileName = "Unit.tl"});
  std::vector<std::string> formats;
  for (int i = 0; i < 1000; ++i) formats.push_back(std::string(200, 'x') + std::to_string(i));
  const auto recordAll = [&] {
    for (const std::string& format : formats) {
      Tracelet::CallSite site{format, "Unit", 1, 5};
      Tracelet::record<0>(site);
    }
  };
  recordAll();
  const std::size_t kept = linesOf(file).size();
  EXPECT_GT(kept, 64u * 1024 / 256);
  recordAll();  // the same texts take no further room
  Tracelet::Reader reader(file);
  EXPECT_EQ(linesOf(reader).size(), 2 * kept);
  EXPECT_EQ(reader.dropped(), 2 * (formats.size() - kept));
  // There would be no room for the call sites of another version either.
  Tracelet::finalize();
  Tracelet::initialize({.fileName = "Unit.tl"});
  EXPECT_THAT(said_, ElementsAre(HasSubstr("descriptor area is nearly full")));
  EXPECT_THAT(linesOf(file), IsEmpty());
}

TEST_F(RingTest, AssertionMessageLandsInTheRing) {
  EXPECT_EXIT(
      {
        Tracelet::initialize({.fileName = "Unit.tl"});
        MOX_ASSERT("Unit/Source", "1 == 2", false);
      },
      ::testing::KilledBySignal(SIGABRT), "1 == 2");
  EXPECT_THAT(linesOf(pathOf("Unit.tl")),
              ElementsAre(MatchesRegex(".* 0 .* Unit/Source:[0-9]+: assertion failed: 1 == 2")));
}

TEST_F(RingTest, FilesThatCannotBeGoneOnWithAreSetAside) {
  const std::string file = pathOf("Unit.tl");
  const auto fresh = [&](const Tracelet::TraceParams& params) {
    Tracelet::finalize();
    said_.clear();
    EXPECT_EQ(Tracelet::initialize(params), file);
    TRACELET_RECORD("new");
    EXPECT_THAT(linesOf(file), ElementsAre(EndsWith(" new")));
    EXPECT_THAT(said_, ElementsAre(HasSubstr(file)));
  };
  contentIs(file, "not a trace file");
  fresh({.fileName = "Unit.tl"});
  EXPECT_EQ(contentOf(file + ".aside"), "not a trace file");
  fresh({.fileName = "Unit.tl", .levelKiB = {8, 8, 8, 8, 8, 8}, .asideName = "Earlier.tl"});
  EXPECT_THAT(linesOf(pathOf("Earlier.tl")), ElementsAre(EndsWith(" new")));
  fresh({.fileName = "Unit.tl", .levelKiB = {8, 8, 8, 8, 8, 8}, .options = Tracelet::kStartEmpty});
}

TEST_F(RingTest, FilesThatCannotBeOpenedLeaveTheRecordsInMemory) {
  fs::create_directory(directory_ / "directory.tl");
  fs::create_symlink("/dev/null", directory_ / "link.tl");
  const std::string missing = pathOf("missing/Unit.tl");
  for (const std::string& name : {pathOf("directory.tl"), pathOf("link.tl"), missing}) {
    said_.clear();
    EXPECT_EQ(Tracelet::initialize({.fileName = name}), "");
    EXPECT_THAT(said_, ElementsAre(HasSubstr(name)));
    TRACELET_RECORD("kept");
    auto reader = Tracelet::Reader::ofThisProcess();
    EXPECT_THAT(linesOf(reader), ElementsAre(EndsWith(" kept")));
  }
  setenv("TRACELETDIR", fs::path(missing).parent_path().c_str(), 1);  // goes before the program's directory
  EXPECT_EQ(Tracelet::initialize({.fileName = "Unit.tl"}), "");
  EXPECT_THAT(said_.back(), HasSubstr(missing));
  unsetenv("TRACELETDIR");
}

TEST_F(RingTest, FileOfALivingProcessIsLeftAloneAndGoneOnWithAfterItsKill) {
  int ready[2];
  ASSERT_EQ(pipe(ready), 0);
  const pid_t child = fork();
  if (child == 0) {
    Tracelet::initialize({.fileName = "Unit.tl"});
    TRACELET_RECORD("mine");
    if (write(ready[1], "x", 1) == 1) pause();
    _exit(1);
  }
  char byte = 0;
  ASSERT_EQ(read(ready[0], &byte, 1), 1);
  EXPECT_EQ(Tracelet::initialize({.fileName = "Unit.tl"}), "");
  TRACELET_RECORD("not there");
  EXPECT_THAT(linesOf(pathOf("Unit.tl")), ElementsAre(EndsWith(" mine")));
  said_.clear();
  kill(child, SIGKILL);
  ASSERT_EQ(waitpid(child, nullptr, 0), child);
  const std::string file = Tracelet::initialize({.fileName = "Unit.tl"});
  TRACELET_RECORD("after the start");
  EXPECT_THAT(linesOf(file), ElementsAre(EndsWith(" mine"), EndsWith(" after the start")));
  EXPECT_THAT(said_, IsEmpty());
  for (int descriptor : ready) close(descriptor);
}

TEST_F(RingTest, OldFilesOfEndedProcessesAreRemoved) {
  for (int i = 0; i < 6; ++i) {
    const std::string name = pathOf("Unit-" + std::to_string(900'000'000 + i) + ".tl");
    contentIs(name, "old");
    fs::last_write_time(name, fs::file_time_type::clock::now() - std::chrono::hours(10 - i));
  }
  contentIs(pathOf("Unit-x.tl"), "other");
  Tracelet::initialize({.fileName = "Unit-%d.tl", .files = 3});
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(directory_))
    left.push_back(entry.path().filename().string());
  EXPECT_THAT(left, ::testing::UnorderedElementsAre("Unit-900000004.tl", "Unit-900000005.tl", "Unit-x.tl",
                                                    fs::path(Tracelet::fileName()).filename().string()));
}

TEST_F(RingTest, TruncatedFilesAreRefusedAndADamagedBlockCostsItsOwnRecords) {
  std::string file = Tracelet::initialize({.fileName = "Unit.tl", .levelKiB = {4, 4, 4, 4, 4, 4}});
  for (int i = 0; i < 200; ++i) TRACELET_RECORD("i={} text={} mac={}", i, "some text", MacLike());
  const std::string good = contentOf(file);
  const std::size_t lines = linesOf(file).size();
  ASSERT_GT(lines, 10u);
  Tracelet::finalize();

  for (std::size_t size : {0ul, 1ul, 71ul, 72ul, 4096ul, 5000ul, good.size() - 1}) {
    contentIs(file, good.substr(0, size));
    Tracelet::Reader reader(file);
    EXPECT_THAT(reader.readable().error(), HasSubstr(file)) << size;
    EXPECT_EQ(reader.next(), std::nullopt);
  }

  std::string bad = good;
  const std::size_t ring = Tracelet::kHeaderBytes + (64 << 10) + 2 * 4096;
  std::memset(bad.data() + ring + 1024 + 8, 0xff, 1000);
  contentIs(file, bad);
  const std::size_t left = linesOf(file).size();
  EXPECT_LT(left, lines);
  EXPECT_GE(left, lines / 2);
}

TEST_F(RingTest, WriterGoesOnAfterDamageInTheRings) {
  std::string file = Tracelet::initialize({.fileName = "Unit.tl", .levelKiB = {4, 4, 4, 4, 4, 4}});
  TRACELET_RECORD("old");
  Tracelet::finalize();
  const std::string good = contentOf(file);
  std::mt19937 random(2);
  for (int round = 0; round < 50; ++round) {
    std::string bad = good;
    for (std::size_t at = 4096; at < bad.size(); at += 1 + random() % 64)
      bad[at] = static_cast<char>(random());
    contentIs(file, bad);
    ASSERT_EQ(Tracelet::initialize({.fileName = "Unit.tl", .levelKiB = {4, 4, 4, 4, 4, 4}}), file);
    for (int i = 0; i < 500; ++i) TRACELET_RECORD_AT(3, "new {}", i);
    EXPECT_THAT(linesOf(file).back(), EndsWith(" new 499"));
    Tracelet::finalize();
  }
}

}  // namespace
