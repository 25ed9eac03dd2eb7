#pragma once

#include <map>
#include <string>
#include <vector>

#include "fakes/FakeHttpServer.h"

namespace vt::test {

// The subtitle service on 127.0.0.1 under "/subtitles". It keeps what is
// shared with it: "store/asset" takes {"asset", "entry"}, "store/translation"
// takes {"fileId", "target", "entry"}, and "lookup" with {"asset", "targets"}
// answers {"asset": entry?, "translations": {target: entry}}, the
// translations found through the stored asset's winning file. The service
// routes ("opensubtitles/...", "asr", "llm") answer `serviceReply`.
// `mode` makes every route misbehave the same way.
class FakeRelay : public FakeHttpServer {
 public:
  enum class Mode {
    normal,
    budget,       // 429 whose body names the monthly budget
    tooMany,      // 429 without the word
    serverError,  // 503
    slow,         // never answers; the client's time limit decides
    malformed,    // 200 with a body that is not JSON
  };

  FakeRelay();

  QUrl base() const { return url(QStringLiteral("/subtitles")); }

  Mode mode = Mode::normal;
  Json serviceReply = Json::object();
  // Text of the 429 and 5xx bodies; the budget one says "budget" in it.
  QByteArray budgetBody = R"({"error":"monthly budget exhausted"})";
  QByteArray tooManyBody = R"({"error":"slow down"})";

  std::map<std::string, Json> assets;        // asset key → entry as sent
  std::map<std::string, Json> translations;  // "<fileId>|<target>" → entry as sent
  // Records that did not read as the route's record (400 was answered).
  int rejected = 0;

 private:
  bool misbehave(Reply& reply);
};

}  // namespace vt::test
