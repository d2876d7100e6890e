#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "Statedb/Json.h"

namespace Host {

// Reads the parsed JSON of one file into values, and collects everything that is wrong with it. What is read
// into keeps its value where the file's is refused.
//
//   reader.object("", file, {{"hardware", reader.boolean(config.hardware)}, ...});
//
// The functions that say how a key is read refer to the reader and to what is read into.
class ConfigReader {
 public:
  // Of a file with more problems only the number of the others is told.
  static constexpr std::size_t kMaxProblems = 100;

  using Json = nlohmann::json;
  // Reads the value of one key. Keys are paths like "vrfs.red.id"; "" is the whole file.
  using Read = std::function<void(const std::string& key, const Json& value)>;
  using Keys = std::map<std::string, Read>;

  explicit ConfigReader(std::string file) : file_(std::move(file)) {}

  // A line each: "FILE: KEY: VALUE is not ...".
  std::vector<std::string> problems() const;
  // Whether nothing at this key or below it is wrong. What hangs on other keys is only looked at when those
  // are good, so that nobody is told of what follows from another problem.
  bool good(const std::string& key) const;

  void fail(const std::string& key, const std::string& what);
  void isNot(const std::string& key, const Json& value, const std::string& allowed);

  // An object of these keys and no others.
  void object(const std::string& key, const Json& value, const Keys& keys);
  void required(const std::string& key, const Json& value, const char* name);
  // An object of any keys, or a list; `name` is the key, or the place in the list.
  using ReadEach = std::function<void(const std::string& key, const std::string& name, const Json& value)>;
  Read each(std::string allowed, ReadEach read);
  Read list(std::string allowed, ReadEach read);

  using Allowed = bool (*)(const std::string& text);
  Read string(std::string& to, Allowed allowed, std::string what);
  // A list of different ones.
  Read strings(std::vector<std::string>& to, Allowed allowed, const std::string& what);
  Read boolean(bool& to);
  // `hint` stands behind what is allowed.
  template <class Number>
  Read number(Number& to, Number least, Number most, const char* hint = "") {
    return [this, &to, least, most, hint](const std::string& key, const Json& value) {
      const std::optional<Number> number = Statedb::scalarToValue<Number>(value);
      if (number && *number >= least && *number <= most) {
        to = *number;
      } else {
        isNot(key, value, "a number from " + std::to_string(least) + " to " + std::to_string(most) + hint);
      }
    };
  }

  static std::string below(const std::string& key, const std::string& name) {
    return key.empty() ? name : key + "." + name;
  }

 private:
  struct Problem {
    std::string key;
    std::string text;
  };
  const std::string file_;
  std::vector<Problem> problems_;
  std::size_t untold_ = 0;
};

}  // namespace Host
