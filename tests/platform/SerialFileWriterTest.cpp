#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <thread>

#include "platform/Json.h"
#include "platform/SerialFileWriter.h"
#include "support/TestKit.h"

using namespace vt;

TEST(SerialFileWriter, KeepsCallOrderAndNeverShowsAPartialFile) {
  test::TestHome home;
  const auto path = home.file("library.json");
  SerialFileWriter writer;

  // A reader polls the file the whole time; every read must parse.
  std::atomic<bool> stop{false};
  std::atomic<int> reads{0};
  std::atomic<int> badReads{0};
  std::atomic<int64_t> lastSeen{-1};
  std::atomic<bool> wentBackwards{false};
  std::thread reader([&] {
    while (!stop) {
      if (auto text = readFile(path)) {
        ++reads;
        auto j = json::parse(*text);
        if (!j || !j->is_array()) {
          ++badReads;
          continue;
        }
        const int64_t n = (*j)[0]["n"].get<int64_t>();
        if (n < lastSeen) wentBackwards = true;
        lastSeen = n;
      }
    }
  });

  std::vector<Json> value;
  for (int i = 0; i < 1000; ++i) {
    // The value is big enough that a torn write would be visible.
    Json record;
    record["n"] = i;
    record["pad"] = std::string(2000, 'a' + i % 26);
    value.assign(20, record);
    writer.save(path, [snapshot = value] {
      Json arr = Json::array();
      for (const auto& r : snapshot) arr.push_back(r);
      return std::optional<std::string>(json::encode(arr));
    });
  }
  writer.waitUntilIdle();
  stop = true;
  reader.join();

  EXPECT_EQ(badReads, 0);
  EXPECT_FALSE(wentBackwards);
  EXPECT_GT(writer.completedWrites(), 0u);
  auto final = json::parse(*readFile(path));
  ASSERT_TRUE(final);
  EXPECT_EQ((*final)[0]["n"], 999);
  EXPECT_EQ(final->size(), 20u);
  // No temporary files are left behind.
  int files = 0;
  for (auto& e : std::filesystem::directory_iterator(home.path())) files += e.is_regular_file();
  EXPECT_EQ(files, 1);
}

TEST(SerialFileWriter, TheSnapshotIsTakenAtTheCall) {
  test::TestHome home;
  SerialFileWriter writer;
  std::string value = "first";
  writer.save(home.file("a.txt"), [snapshot = value] { return std::optional<std::string>(snapshot); });
  value = "changed";
  writer.waitUntilIdle();
  EXPECT_EQ(readFile(home.file("a.txt")), "first");
}

TEST(SerialFileWriter, FailuresAreDroppedAndTheNextSaveWrites) {
  test::TestHome home;
  SerialFileWriter writer;
  writer.save(home.file("missing-folder/x.json"), [] { return std::optional<std::string>("1"); });
  writer.save(home.file("y.json"), []() -> std::optional<std::string> { throw std::runtime_error("encode failed"); });
  writer.waitUntilIdle();
  EXPECT_FALSE(std::filesystem::exists(home.file("missing-folder/x.json")));
  writer.save(home.file("y.json"), [] { return std::optional<std::string>("ok"); });
  writer.waitUntilIdle();
  EXPECT_EQ(readFile(home.file("y.json")), "ok");
  EXPECT_TRUE(writeFileAtomically(home.file("z"), ""));
  EXPECT_EQ(readFile(home.file("z")), "");
  EXPECT_FALSE(writeFileAtomically(home.file("no/such/dir/z"), "x"));
}
