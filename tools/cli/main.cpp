// vantory-cli: the command-line tool. "vantory-cli --help" lists its verbs.
#include <iostream>
#include <string>
#include <vector>

#include "cli/Cli.h"

int main(int argc, char** argv) {
  std::ios::sync_with_stdio(false);
  const std::vector<std::string> args(argv + 1, argv + argc);
  vt::cli::Io io{std::cin, std::cout, std::cerr};
  return vt::cli::run(args, io);
}
