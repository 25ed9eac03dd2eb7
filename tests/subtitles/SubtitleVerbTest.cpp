#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "SubtitleFiles.h"
#include "cli/Cli.h"
#include "cli/Verbs.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

struct Captured {
  int status = -1;
  std::string out;
  std::string err;
};

Captured runCli(const std::vector<std::string>& args) {
  std::istringstream in;
  std::ostringstream out, err;
  cli::Io io{in, out, err};
  const int status = cli::run(args, io);
  return {status, out.str(), err.str()};
}

std::string writeFile(const test::TestHome& home, const std::string& name, const std::string& bytes) {
  const auto path = home.file(name);
  std::ofstream(path, std::ios::binary) << bytes;
  return path;
}

}  // namespace

TEST(SubtitleVerb, CheckPrintsTheReportWithKeysInOrder) {
  test::TestHome home;
  const auto russian = "\xEF\xBB\xBF" + test::srtFile(60, [](int i) {
                         if (i == 0) return std::string("<i>Привет!</i>");
                         if (i % 10 == 1) return std::string("[стук в дверь]");
                         if (i % 10 == 2) return std::string("♪ Песня ♪");
                         return "Реплика " + std::to_string(i);
                       });
  const auto path = writeFile(home, "film.srt", russian);
  auto c = runCli({"subtitle", "check", path, "--lang", "rus"});
  EXPECT_EQ(c.status, 0);
  EXPECT_EQ(c.out,
            "{\"encoding\":\"utf-8-sig\",\"cues\":60,\"dialogue\":54,\"speech\":48,\"soundEffects\":6,"
            "\"watermarkRate\":0.0,\"first\":{\"n\":1,\"startMs\":1000,\"endMs\":3000,\"text\":\"Привет!\"}}\n");

  // The last cue ends at 180 s: a 200-second film is covered 0.9, a 300-second one 0.6.
  c = runCli({"subtitle", "check", path, "--lang", "rus", "--duration", "200"});
  EXPECT_EQ(c.out.find("refusal"), std::string::npos);
  c = runCli({"subtitle", "check", path, "--lang", "rus", "--duration", "300"});
  EXPECT_NE(c.out.find(",\"refusal\":\"coverage 0.6 (partial or wrong film)\"}"), std::string::npos) << c.out;

  const auto empty = writeFile(home, "empty.srt", "");
  c = runCli({"subtitle", "check", empty, "--duration", "5400"});
  EXPECT_EQ(c.out,
            "{\"encoding\":\"utf-8\",\"cues\":0,\"dialogue\":0,\"speech\":0,\"soundEffects\":0,"
            "\"watermarkRate\":0.0,\"refusal\":\"only 0 cues (forced track?)\"}\n");

  EXPECT_EQ(runCli({"subtitle", "check", home.file("missing.srt")}).status, 1);
  EXPECT_EQ(runCli({"subtitle", "check", path, "--duration", "long"}).status, cli::kUsageError);
  EXPECT_EQ(runCli({"subtitle", "play", path}).status, cli::kUsageError);
}

TEST(SubtitleVerb, FitWritesTheShiftedSrt) {
  test::TestHome home;
  const auto path = writeFile(home, "film.srt",
                              "\xEF\xBB\xBF"
                              "1\r\n00:00:01,000 --> 00:00:02,999\r\n<b>One</b>\r\ntwo\r\n\r\n"
                              "2\r\n00:00:00,100 --> 00:00:00,900\r\nEarly\r\n");
  auto c = runCli({"subtitle", "fit", path, "--scale", "1.001", "--offset", "-500"});
  EXPECT_EQ(c.status, 0);
  // 1.001 x 1000 is a hair below 1001 in binary, and truncation keeps 1000.
  EXPECT_EQ(c.out,
            "1\n00:00:00,500 --> 00:00:02,501\nOne two\n\n"
            "2\n00:00:00,000 --> 00:00:00,400\nEarly\n");
  EXPECT_EQ(runCli({"subtitle", "fit", path, "--scale", "1"}).status, cli::kUsageError);
  EXPECT_EQ(runCli({"subtitle", "fit", path, "--scale", "x", "--offset", "0"}).status, cli::kUsageError);
}
