#include "host/arpsup/PrettyJson.h"

#include <utility>

namespace Host {

namespace {
bool opens(char c) { return c == '{' || c == '['; }
bool closes(char c) { return c == '}' || c == ']'; }
}  // namespace

bool PrettyJson::Scan::structural(char c) {
  if (!inString_) {
    inString_ = c == '"';
    return !inString_;
  }
  inString_ = escaped_ || c != '"';
  escaped_ = !escaped_ && c == '\\';
  return false;
}

std::string PrettyJson::next(std::string_view piece) {
  std::string text;
  for (const char c : piece) {
    const bool structural = arriving_.structural(c);
    if (structural && opens(c)) {
      putAll(text);
      held_ = c;
    } else if (held_.empty()) {
      put(c, text);
    } else {
      held_ += c;
      if (structural && closes(c)) {
        putOnOneLine(text);
      } else if (held_.size() > kShort) {
        putAll(text);
      }
    }
  }
  return text;
}

void PrettyJson::putAll(std::string& text) {
  for (const char c : std::exchange(held_, {})) put(c, text);
}

void PrettyJson::putOnOneLine(std::string& text) {
  const std::string held = std::exchange(held_, {});
  put(held.front(), text);
  --depth_;
  opened_ = false;
  for (const char c : std::string_view(held).substr(1)) {
    text += c;
    if (leaving_.structural(c) && (c == ',' || c == ':')) text += ' ';
  }
}

void PrettyJson::put(char c, std::string& text) {
  const bool structural = leaving_.structural(c);
  const auto breakLine = [&] { text.append("\n").append(2 * depth_, ' '); };
  const bool closing = structural && closes(c);
  if (closing && depth_ != 0) --depth_;
  if (opened_ != closing) breakLine();
  opened_ = structural && opens(c);
  if (opened_) ++depth_;
  text += c;
  if (structural && c == ',') breakLine();
  if (structural && c == ':') text += ' ';
}

}  // namespace Host
