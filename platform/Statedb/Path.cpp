#include "Statedb/Path.h"

namespace Statedb {

std::string_view normalPath(std::string_view path) {
  while (path.ends_with('/')) path.remove_suffix(1);
  return path;
}

std::string escapedKey(std::string_view key) {
  std::string part;
  part.reserve(key.size());
  for (char c : key) {
    if (c == '/') {
      part += "%2F";
    } else if (c == '%') {
      part += "%25";
    } else {
      part += c;
    }
  }
  return part;
}

std::string unescapedKey(std::string_view part) {
  std::string key;
  key.reserve(part.size());
  for (std::size_t i = 0; i < part.size(); ++i) {
    const std::string_view rest = part.substr(i, 3);
    if (rest == "%2F" || rest == "%25") {
      key += rest == "%2F" ? '/' : '%';
      i += 2;
    } else {
      key += part[i];
    }
  }
  return key;
}

std::vector<std::string> memberPathParts(std::string_view memberPath) {
  std::vector<std::string> parts;
  parts.reserve(4);
  for (;;) {
    const std::size_t slash = memberPath.find('/');
    parts.push_back(unescapedKey(memberPath.substr(0, slash)));
    if (slash == std::string_view::npos) return parts;
    memberPath.remove_prefix(slash + 1);
  }
}

}  // namespace Statedb
