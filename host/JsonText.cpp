#include "host/JsonText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <vector>

namespace Host {

bool nestsTooDeep(std::string_view text) {
  unsigned depth = 0;
  bool inString = false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const char c = text[i];
    if (inString) {
      if (c == '\\') ++i;
      inString = c != '"';
    } else if (c == '"') {
      inString = true;
    } else if (c == '{' || c == '[') {
      if (++depth > kMaxJsonDepth) return true;
    } else if ((c == '}' || c == ']') && depth != 0) {
      --depth;
    }
  }
  return false;
}

namespace {

// The text of a comment may hold quotes and brackets: they must not hide any that count.
std::string withoutComments(std::string_view text) {
  std::string clean(text);
  bool inString = false;
  for (std::size_t i = 0; i < clean.size(); ++i) {
    const char c = clean[i];
    if (inString) {
      if (c == '\\') ++i;
      inString = c != '"';
      continue;
    }
    inString = c == '"';
    if (c != '/' || i + 1 >= clean.size()) continue;
    const bool line = clean[i + 1] == '/';
    if (!line && clean[i + 1] != '*') continue;
    std::size_t end = clean.find(line ? "\n" : "*/", i + 2);
    if (end == std::string::npos) {
      if (!line) break;  // an open comment: the parser says so
      end = clean.size();
    } else if (!line) {
      end += 2;
    }
    // Lines and columns stay what they are.
    for (; i < end; ++i) {
      if (clean[i] != '\n') clean[i] = ' ';
    }
    --i;
  }
  return clean;
}

// "[json.exception.parse_error.101] parse error at line 3, column 7: ..." without what only a programmer
// needs.
std::string readable(const std::string& what) {
  const std::size_t at = what.find("line ");
  std::string text = at == std::string::npos ? what : what.substr(at);
  const std::size_t syntax = text.find("syntax error while parsing ");
  if (syntax != std::string::npos) text.replace(syntax, std::strlen("syntax error while parsing "), "in ");
  return text;
}

}  // namespace

std::optional<nlohmann::json> parseJson(std::string_view given, Comments comments, std::string& error) {
  using Event = nlohmann::json::parse_event_t;
  std::string clean;
  if (comments == Comments::allowed) clean = withoutComments(given);
  const std::string_view text = comments == Comments::allowed ? std::string_view(clean) : given;
  if (nestsTooDeep(text)) {
    error = "nested deeper than " + std::to_string(kMaxJsonDepth) + " levels";
    return std::nullopt;
  }
  std::vector<std::set<std::string>> keys;
  std::string twice;
  const auto visit = [&](int, Event event, nlohmann::json& parsed) {
    if (event == Event::object_start) keys.emplace_back();
    if (event == Event::object_end) keys.pop_back();
    if (event == Event::key && twice.empty() &&
        !keys.back().insert(parsed.get_ref<const std::string&>()).second) {
      twice = parsed.get_ref<const std::string&>();
    }
    return true;
  };
  try {
    nlohmann::json json = nlohmann::json::parse(text.begin(), text.end(), visit);
    if (twice.empty()) return json;
    error = "the key " +
            nlohmann::json(twice).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
            " stands twice in one object";
  } catch (const nlohmann::json::exception& failure) {
    error = readable(failure.what());
  }
  return std::nullopt;
}

std::optional<std::string> readFile(const std::string& file, std::size_t maxBytes, bool allowStdin,
                                    std::string& error) {
  const bool isStdin = allowStdin && file == "-";
  const int descriptor = isStdin ? dup(STDIN_FILENO) : open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  const auto failed = [&] {
    error = file + ": " + std::strerror(errno);
    if (descriptor >= 0) close(descriptor);
    return std::nullopt;
  };
  if (descriptor < 0) return failed();
  std::string content;
  struct stat status {};
  if (fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode)) {
    content.reserve(std::min(maxBytes, static_cast<std::size_t>(status.st_size)) + 1);
  }
  std::vector<char> block(256 << 10);
  while (true) {
    const ssize_t got = read(descriptor, block.data(), block.size());
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) return failed();
    if (got == 0) break;
    content.append(block.data(), static_cast<std::size_t>(got));
    if (content.size() > maxBytes) {
      error = file + ": larger than " + std::to_string(maxBytes >> 20) + " MiB";
      close(descriptor);
      return std::nullopt;
    }
  }
  close(descriptor);
  return content;
}

}  // namespace Host
