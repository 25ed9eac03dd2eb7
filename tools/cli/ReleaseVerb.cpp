#include <istream>
#include <ostream>

#include "cli/Verbs.h"
#include "sources/release/ReleaseParser.h"

namespace vt::cli {

int releaseNames(std::istream& in, std::ostream& out) {
  std::string line;
  while (std::getline(in, line)) {
    if (!line.empty() && line.back() == '\r') line.pop_back();
    out << releaseInfoJson(ReleaseParser::parseUncached(line)) << '\n';
  }
  return 0;
}

Verb releaseVerb() {
  return {"release",
          "read release names and print what the parser finds in each",
          "Reads release names from standard input, one a line, and prints one compact JSON object a line\n"
          "with every field the release parser found.",
          {},
          [](const Arguments&, Io& io) { return releaseNames(io.in, io.out); }};
}

}  // namespace vt::cli
