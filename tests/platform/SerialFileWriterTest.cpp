#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/Json.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vt;

TEST(SerialFileWriter, KeepsCallOrderTakesTheSnapshotAtTheCallAndNeverShowsAPartialFile) {
  test::TestHome home;
  const auto path = home.file("library.json");
  SerialFileWriter writer;

  // A reader polls the file the whole time; every read must parse and no value may go back.
  std::atomic<bool> stop{false}, bad{false};
  std::thread reader([&] {
    int64_t last = -1;
    while (!stop) {
      if (auto text = readFile(path)) {
        auto j = json::parse(*text);
        const int64_t n = j && j->is_array() ? (*j)[0]["n"].get<int64_t>() : -2;
        if (n < last) bad = true;
        last = n;
      }
    }
  });
  Json value = Json::array();
  for (int i = 0; i < 300; ++i) {
    // The value is big enough that a torn write would be visible.
    Json record;
    record["n"] = i;
    record["pad"] = std::string(2000, 'a' + i % 26);
    value = Json::array();
    for (int k = 0; k < 20; ++k) value.push_back(record);
    writer.save(path, [snapshot = value] { return std::optional<std::string>(json::encode(snapshot)); });
  }
  value[0]["n"] = -1;  // changed after the last call: not written
  writer.waitUntilIdle();
  stop = true;
  reader.join();

  EXPECT_FALSE(bad);
  auto final = json::parse(*readFile(path));
  ASSERT_TRUE(final);
  EXPECT_EQ((*final)[0]["n"], 299);
  // No temporary files are left behind.
  int files = 0;
  for (auto& e : std::filesystem::directory_iterator(home.path())) files += e.is_regular_file();
  EXPECT_EQ(files, 1);
}

TEST(SerialFileWriter, FailuresAreDroppedAndTheNextSaveWrites) {
  test::TestHome home;
  SerialFileWriter writer;
  writer.save(home.file("missing-folder/x.json"), [] { return std::optional<std::string>("1"); });
  writer.save(home.file("y.json"), []() -> std::optional<std::string> { throw std::runtime_error("encode failed"); });
  writer.save(home.file("y.json"), [] { return std::optional<std::string>("ok"); });
  writer.waitUntilIdle();
  EXPECT_FALSE(std::filesystem::exists(home.file("missing-folder/x.json")));
  EXPECT_EQ(readFile(home.file("y.json")), "ok");
  EXPECT_FALSE(writeFileAtomically(home.file("no/such/dir/z"), "x"));
}
