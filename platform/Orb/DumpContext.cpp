#include "Orb/DumpContext.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "Tracelet/Text.h"

namespace Orb {

namespace {
constexpr int kKeep = -1;
constexpr int kGone = -2;
constexpr std::size_t kPiece = 64 << 10;
}  // namespace

DumpContext::~DumpContext() { flush(); }

void DumpContext::flush() {
  std::string_view rest = text_;
  while (!rest.empty() && descriptor_ >= 0) {
    const ssize_t written = write(descriptor_, rest.data(), rest.size());
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) descriptor_ = kGone;
    rest.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
  }
  if (descriptor_ != kKeep) text_.clear();
}

void DumpContext::line(int indent, std::string_view text) {
  text_.append(static_cast<std::size_t>(std::max(indent, 0)), ' ');
  Tracelet::appendPrintable(text_, text);
  text_ += '\n';
  ++lines_;
  if (text_.size() >= kPiece && descriptor_ != kKeep) flush();
}

void DumpContext::raw(int indent, std::string_view text) {
  while (!text.empty()) {
    const std::size_t end = std::min(text.find('\n'), text.size());
    line(indent, text.substr(0, end));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

std::uint32_t DumpContext::dumpedAt(const void* object) {
  const auto [at, inserted] = dumped_.emplace(object, lines_ + 1);
  return inserted ? 0 : at->second;
}

}  // namespace Orb
