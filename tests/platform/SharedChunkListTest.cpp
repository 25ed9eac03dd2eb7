#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "platform/SharedChunkList.h"

using namespace vt;

namespace {

using List = SharedChunkList<std::shared_ptr<const std::string>, 4>;

std::shared_ptr<const std::string> text(int i) { return std::make_shared<const std::string>(std::to_string(i)); }

std::vector<std::string> contents(const List& list) {
  std::vector<std::string> out;
  for (const auto& item : list) out.push_back(*item);
  return out;
}

}  // namespace

TEST(SharedChunkList, CopiesAreSnapshotsThatShareTheChunksNoChangeTouched) {
  List list;
  for (int i = 0; i < 10; ++i) list.push_back(text(i));  // chunks of 4, 4 and 2
  const List snapshot = list;
  EXPECT_EQ(&snapshot[5], &list[5]) << "a copy shares the chunks";

  list.set(5, text(50));
  list.push_back(text(10));
  list.push_back(text(11));
  list.push_back(text(12));  // fills the shared last chunk, then starts a new one
  EXPECT_EQ(contents(snapshot), (std::vector<std::string>{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"}));
  EXPECT_EQ(contents(list),
            (std::vector<std::string>{"0", "1", "2", "3", "4", "50", "6", "7", "8", "9", "10", "11", "12"}));
  EXPECT_EQ(&snapshot[1], &list[1]) << "an untouched chunk stays shared";
  EXPECT_NE(&snapshot[4], &list[4]) << "the touched chunk was copied";

  // Without another holder a change is made in place.
  const auto* before = &list[4];
  list.set(6, text(60));
  EXPECT_EQ(&list[4], before);

  const List second = list;
  EXPECT_EQ(list.eraseIf([](const auto& item) { return item->size() == 2; }), 5u);
  EXPECT_EQ(contents(list), (std::vector<std::string>{"0", "1", "2", "3", "4", "7", "8", "9"}));
  EXPECT_EQ(second.size(), 13u);
  EXPECT_EQ(*second.back(), "12");
  EXPECT_EQ(contents(List(std::vector{text(1), text(2)})), (std::vector<std::string>{"1", "2"}));
}

TEST(SharedChunkList, ASnapshotDroppedOnAnotherThreadLeavesTheListItsOwn) {
  List list;
  for (int i = 0; i < 4000; ++i) list.push_back(text(i));
  for (int round = 0; round < 50; ++round) {
    std::thread reader([snapshot = list, round] {
      size_t total = 0;
      for (const auto& item : snapshot) total += item->size();
      EXPECT_GT(total, 0u) << round;
    });
    for (size_t i = 0; i < list.size(); i += 97) list.set(i, text(round));
    reader.join();
  }
  EXPECT_EQ(*list[97], "49");
  EXPECT_EQ(*list[98], "98");
}
