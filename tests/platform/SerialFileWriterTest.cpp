#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/Json.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vt;

TEST(SerialFileWriter, KeepsCallOrderSurvivesAFailureAndNeverShowsAPartialFile) {
  test::TestHome home;
  const auto path = home.file("library.json");
  SerialFileWriter writer;
  // A reader polls the file the whole time; every read must parse and no value may go back.
  std::atomic<bool> stop{false}, bad{false};
  std::thread reader([&] {
    for (int64_t last = -1; !stop;) {
      auto j = json::parse(readFile(path).value_or("[{\"n\":-1}]"));
      const int64_t n = j ? (*j)[0]["n"].get<int64_t>() : -2;
      if (n < last) bad = true;
      last = n;
    }
  });
  writer.save(path, []() -> std::optional<std::string> { throw std::runtime_error("encode failed"); });
  for (int i = 0; i < 300; ++i) {
    const Json value = Json::array({{{"n", i}, {"pad", std::string(40000, 'a' + i % 26)}}});
    writer.save(path, [value] { return std::optional<std::string>(json::encode(value)); });
  }
  writer.waitUntilIdle();
  stop = true;
  reader.join();
  EXPECT_FALSE(bad);
  EXPECT_EQ((*json::parse(*readFile(path)))[0]["n"], 299);
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(home.path()), {}), 1) << "no temporary file is left";
  EXPECT_FALSE(writeFileAtomically(home.file("no/such/dir/z"), "x"));
}

TEST(SerialFileWriter, EncodersGetAnEmptyBufferAndMayDeclineToWrite) {
  test::TestHome home;
  const auto path = home.file("a.json");
  SerialFileWriter writer;
  std::vector<std::string> seen;  // written on the write thread, read after waitUntilIdle
  writer.save(path, SerialFileWriter::Encoder([&](std::string& bytes) {
                seen.push_back(bytes);
                bytes = std::string(100000, 'x');
                return true;
              }));
  writer.waitUntilIdle();
  writer.save(path, SerialFileWriter::Encoder([&](std::string& bytes) {
                seen.push_back(bytes);
                bytes += "short";
                return true;
              }));
  writer.waitUntilIdle();
  writer.save(path, SerialFileWriter::Encoder([&](std::string& bytes) {
                bytes += "never written";
                return false;
              }));
  writer.waitUntilIdle();
  EXPECT_EQ(seen, (std::vector<std::string>{"", ""})) << "nothing of an earlier save shows through";
  EXPECT_EQ(readFile(path), "short");
  EXPECT_EQ(writer.completedWrites(), 2u);
}
