#include <csignal>

#include "host/arpsup/CommandLine.h"

// arpsup: the command line of the agent-host.

int main(int argc, char** argv) {
  std::signal(SIGPIPE, SIG_IGN);
  Host::CommandLine line;
  return line.run(argc, argv);
}
