// vantory-release: reads release names, one a line, from standard input and
// prints one compact JSON object a line with every field the parser found.
#include <iostream>
#include <string>

#include "sources/release/ReleaseParser.h"

int main() {
  std::ios::sync_with_stdio(false);
  std::string line;
  while (std::getline(std::cin, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    std::cout << vt::releaseInfoJson(vt::ReleaseParser::parseUncached(line)) << '\n';
  }
  return 0;
}
