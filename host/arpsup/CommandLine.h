#pragma once

#include <CLI/CLI.hpp>
#include <functional>
#include <string>
#include <vector>

#include "host/arpsup/Commands.h"

namespace Host {

// The commands of arpsup with their arguments, help and examples: the one place that says what there is;
// completion and suggestions follow it.
class CommandLine {
 public:
  CommandLine();
  CommandLine(const CommandLine&) = delete;
  CommandLine& operator=(const CommandLine&) = delete;

  // Does what the arguments say; returns the exit status.
  int run(int argc, char** argv);

 private:
  struct Text {
    const char* name;
    const char* description;
    const char* examples;
  };
  CLI::App* command(CLI::App& parent, const char* group, const Text& text, std::function<int()> run);
  CLI::Option* argument(CLI::App* command, const char* name, std::string& value, const char* description);
  void watched(CLI::App* command, std::function<int()> show);
  void filters(CLI::App* to);
  void addLooking();
  void addChanging();
  void addAsking();
  int usage(const CLI::ParseError& error);

  CLI::App app_;
  CommonOptions options_;
  int status_ = 0;

  // What the arguments of the commands become; a call has one command only.
  bool nonzero_ = false;
  double watchSeconds_ = 0;
  std::string kind_;
  std::string path_;
  std::vector<std::string> paths_;
  std::string json_;
  std::string file_;
  std::string vlan_;
  BindingFilter filter_;
  bool describe_ = false;
  std::string ip_;
  std::string mac_;
  BindingFlags bindingFlags_;
  bool skipBad_ = false;
  TraceOptions trace_;
  EventOptions events_;
};

// Of the candidates the one that `word` is most likely a slip for; "" when it is like none.
std::string nearest(const std::string& word, const std::vector<std::string>& candidates);

// Writes out the commands among the words that are only begun, where just one begins like that.
void expandCommands(const CLI::App& app, std::vector<std::string>& words);

// Prints, one a line, what may stand in place of the last of the words, which follow "arpsup". Paths are
// those of the daemon, or, when there is none, those that always are.
int complete(const CLI::App& app, const CommonOptions& options, const std::vector<std::string>& words);

}  // namespace Host
