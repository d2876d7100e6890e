#include "host/JsonText.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "Orb/JsonObject.h"
#include "Statedb/Json.h"
#include "Tracelet/Text.h"

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
  return Tracelet::printable(text);  // it quotes what it read last, and not all of that can be shown
}

// Makes the value while the text is read. The library's own parser with a callback goes through all members
// of an object at the end of each that is an object itself, which takes minutes for the entries of a large
// table.
class Builder final : public nlohmann::json_sax<nlohmann::json> {
 public:
  nlohmann::json take() { return std::move(root_); }
  const std::string& error() const { return error_; }

  bool null() override { return put(nullptr); }
  bool boolean(bool value) override { return put(value); }
  bool number_integer(number_integer_t value) override { return put(value); }
  bool number_unsigned(number_unsigned_t value) override { return put(value); }
  bool number_float(number_float_t value, const string_t& /*text*/) override { return put(value); }
  bool string(string_t& value) override { return put(std::move(value)); }
  bool binary(binary_t& /*value*/) override { return false; }  // not in text
  bool start_object(std::size_t /*elements*/) override { return open(nlohmann::json::object()); }
  bool end_object() override { return close(); }
  bool start_array(std::size_t /*elements*/) override { return open(nlohmann::json::array()); }
  bool end_array() override { return close(); }
  bool key(string_t& name) override {
    const auto [member, isNew] = open_.back()->emplace(name, nullptr);
    member_ = &*member;
    if (!isNew) {
      error_ = "the key " + Statedb::jsonText(name) + " stands twice in one object";
    }
    return isNew;
  }
  bool parse_error(std::size_t /*position*/, const std::string& /*token*/,
                   const nlohmann::json::exception& failure) override {
    error_ = readable(failure.what());
    return false;
  }

 private:
  bool put(nlohmann::json value) {
    *place() = std::move(value);
    return true;
  }
  bool open(nlohmann::json container) {
    nlohmann::json* const at = place();
    *at = std::move(container);
    open_.push_back(at);
    return true;
  }
  bool close() {
    open_.pop_back();
    return true;
  }
  // Of the next value.
  nlohmann::json* place() {
    if (open_.empty()) return &root_;
    if (open_.back()->is_object()) return member_;
    return &open_.back()->emplace_back(nullptr);
  }

  nlohmann::json root_;
  std::vector<nlohmann::json*> open_;  // objects and lists, each in the one before it
  nlohmann::json* member_ = nullptr;   // of the last key
  std::string error_;
};

}  // namespace

std::string textOf(const nlohmann::ordered_json& value) {
  return Orb::withoutControls(value.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
}

Mox::Result<nlohmann::json> parseJson(std::string_view given, Comments comments) {
  std::string clean;
  if (comments == Comments::allowed) clean = withoutComments(given);
  const std::string_view text = comments == Comments::allowed ? std::string_view(clean) : given;
  if (nestsTooDeep(text))
    return Mox::Failure{"nested deeper than " + std::to_string(kMaxJsonDepth) + " levels"};
  Builder builder;
  if (nlohmann::json::sax_parse(text.begin(), text.end(), &builder)) return builder.take();
  return Mox::Failure{builder.error()};
}

Mox::Result<std::string> readFile(const std::string& file, std::size_t maxBytes, bool allowStdin) {
  const bool isStdin = allowStdin && file == "-";
  const int descriptor = isStdin ? dup(STDIN_FILENO) : open(file.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
  const auto failed = [&] {
    const int number = errno;
    if (descriptor >= 0) close(descriptor);
    return Mox::Failure{file + ": " + std::strerror(number), number};
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
      close(descriptor);
      return Mox::Failure{file + ": larger than " + std::to_string(maxBytes >> 20) + " MiB", EFBIG};
    }
  }
  close(descriptor);
  return content;
}

}  // namespace Host
