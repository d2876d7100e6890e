#include "host/ConfigReader.h"

#include <algorithm>

#include "Tracelet/Text.h"

namespace Host {

std::vector<std::string> ConfigReader::problems() const {
  std::vector<std::string> lines;
  for (const Problem& problem : problems_) {
    std::string& line = lines.emplace_back(file_ + ": ");
    if (!problem.key.empty()) Tracelet::appendPrintable(line, problem.key + ": ");
    Tracelet::appendPrintable(line, problem.text);
  }
  if (untold_ > 0) lines.push_back(file_ + ": and " + std::to_string(untold_) + " more problems");
  return lines;
}

bool ConfigReader::good(const std::string& key) const {
  const auto isAt = [&](const Problem& problem) {
    if (!problem.key.starts_with(key)) return false;
    const char next = problem.key.size() == key.size() ? '.' : problem.key[key.size()];
    return key.empty() || next == '.' || next == '[';
  };
  return untold_ == 0 && std::ranges::none_of(problems_, isAt);
}

void ConfigReader::fail(const std::string& key, const std::string& what) {
  if (problems_.size() == kMaxProblems) {
    ++untold_;
  } else {
    problems_.push_back({key, what});
  }
}

void ConfigReader::isNot(const std::string& key, const Json& value, const std::string& allowed) {
  fail(key, Statedb::describe(value) + " is not " + allowed);
}

void ConfigReader::object(const std::string& key, const Json& value, const Keys& keys) {
  std::string names;
  for (const auto& [name, read] : keys) names += (names.empty() ? "" : ", ") + name;
  if (!value.is_object()) return isNot(key, value, "an object of " + names);
  for (auto item = value.begin(); item != value.end(); ++item) {
    const auto known = keys.find(item.key());
    if (known == keys.end()) {
      fail(below(key, item.key()), "unknown key; allowed here: " + names);
    } else {
      known->second(below(key, item.key()), item.value());
    }
  }
}

void ConfigReader::required(const std::string& key, const Json& value, const char* name) {
  if (value.is_object() && !value.contains(name)) fail(below(key, name), "is missing");
}

ConfigReader::Read ConfigReader::each(std::string allowed, ReadEach read) {
  return [this, allowed = std::move(allowed), read = std::move(read)](const auto& key, const Json& value) {
    if (!value.is_object()) return isNot(key, value, allowed);
    for (auto item = value.begin(); item != value.end(); ++item)
      read(below(key, item.key()), item.key(), item.value());
  };
}

ConfigReader::Read ConfigReader::list(std::string allowed, ReadEach read) {
  return [this, allowed = std::move(allowed), read = std::move(read)](const auto& key, const Json& value) {
    if (!value.is_array()) return isNot(key, value, allowed);
    for (std::size_t i = 0; i < value.size(); ++i) {
      const std::string place = std::to_string(i);
      read(key + "[" + place + "]", place, value[i]);
    }
  };
}

ConfigReader::Read ConfigReader::string(std::string& to, Allowed allowed, std::string what) {
  return [this, &to, allowed, what = std::move(what)](const std::string& key, const Json& value) {
    if (!value.is_string() || !allowed(value.get_ref<const std::string&>())) return isNot(key, value, what);
    to = value.get<std::string>();
  };
}

ConfigReader::Read ConfigReader::strings(std::vector<std::string>& to, Allowed allowed,
                                         const std::string& what) {
  return list("a list, each " + what,
              [this, &to, allowed, what](const auto& key, const auto&, const Json& value) {
                if (!value.is_string() || !allowed(value.template get_ref<const std::string&>()))
                  return isNot(key, value, what);
                if (std::ranges::count(to, value.template get<std::string>()) != 0)
                  return fail(key, Statedb::describe(value) + " is there twice");
                to.push_back(value.template get<std::string>());
              });
}

ConfigReader::Read ConfigReader::boolean(bool& to) {
  return [this, &to](const std::string& key, const Json& value) {
    if (!value.is_boolean()) return isNot(key, value, "true or false");
    to = value.get<bool>();
  };
}

}  // namespace Host
