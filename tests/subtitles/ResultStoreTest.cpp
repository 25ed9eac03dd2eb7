#include <filesystem>
#include <thread>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cmath>

#include "platform/SerialFileWriter.h"
#include "subtitles/ResultStore.h"
#include "support/TestKit.h"

using namespace vt;

namespace {

AssetEntry fullEntry() {
  return {.kind = "movie",
          .imdb = "tt1375666",
          .title = "Inception",
          .winner = AssetEntry::Winner{"8812345", "Inception.2010.1080p.BluRay.x264-SPARKS", "rus", "ok", 2},
          .fit = AssetEntry::Fit{1.001, -420, 35, 118},
          .cues = std::vector{AssetEntry::Cue::from(EngineCue{1, 1000, 2500, "Где мы?\nВо сне."}),
                              AssetEntry::Cue{2, 3000, 4000, "http://x/y"}},
          .timing = AssetEntry::Timing{true, "anchors agree", 6},
          .bible = AssetEntry::Bible{"Cobb: Кобб", "rus"},
          .createdAt = 1795000000.25};
}

// The keys of a record in file order, with those of nested records and of an array's first element.
std::string shape(const Json& j) {
  if (j.is_array()) return j.empty() ? "[]" : "[" + shape(j[0]) + "]";
  if (!j.is_object()) return "";
  std::string s;
  for (const auto& [k, v] : j.items()) s += (s.empty() ? "" : ",") + k + shape(v);
  return "{" + s + "}";
}

}  // namespace

TEST(ResultStore, AssetEntriesRoundTripWithTheirKeysInFileOrder) {
  test::TestHome home;
  const std::string file = home.file("cache/subs/assets.json");  // folders made on write
  AssetStore store(file);
  const AssetEntry failure{
      .kind = "movie", .imdb = "tt0110357", .outcome = "no-match", .why = "no candidate fits", .createdAt = 1795000001};
  const std::string key = "movie|tt1375666|Inception.2010.mkv|8.1GB";
  store.write({{key, fullEntry()}, {"movie|tt0110357", failure}});

  const auto back = store.read();
  ASSERT_EQ(back.size(), 2u);
  EXPECT_EQ(back.at(key), fullEntry()) << "the key, with its \"|\", is kept whole";
  EXPECT_EQ(back.at("movie|tt0110357"), failure);

  const std::string text = readFile(file).value_or("");
  const auto json = json::parse(text);
  ASSERT_TRUE(json);
  EXPECT_EQ(shape((*json)[key]),
            "{kind,imdb,title,winner{fileId,release,lang,verdict,rank},fit{scale,offsetMs,residMs,pts},"
            "cues[{n,start,end,text}],timing{settled,why,windows},bible{text,tgt},createdAt}");
  EXPECT_EQ(shape((*json)["movie|tt0110357"]), "{kind,imdb,outcome,why,createdAt}")
      << "absent optional fields are left out";
  EXPECT_NE(text.find("\n  \""), std::string::npos) << "pretty printed";
  EXPECT_NE(text.find("\"http://x/y\""), std::string::npos) << "slashes are not escaped";
  EXPECT_NE(text.find("1795000000.25"), std::string::npos) << "createdAt counts from 1970";
  EXPECT_FALSE(std::filesystem::exists(file + ".tmp"));
}

TEST(ResultStore, TranslationsKeepWholeKeysAndCueOrder) {
  test::TestHome home;
  TranslationStore store(home.file(kTranslationStoreFile));
  TranslationEntry t{.src = "en", .tgt = "ru", .fileId = "8812345", .createdAt = 1795000000};
  for (int n : {10, 2, 1, 100}) t.map[std::to_string(n)] = "line " + std::to_string(n);
  const std::string key = translationKey("movie|tt1375666|a|b", "8812345", "ru");
  store.upsert(key, t);

  const auto back = store.read();
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back.begin()->first, "movie|tt1375666|a|b|8812345|ru");
  EXPECT_EQ(back.begin()->second, t);
  const auto json = json::parse(readFile(store.file()).value_or(""));
  ASSERT_TRUE(json);
  EXPECT_EQ(shape((*json)[key]), "{map{1,2,10,100},src,tgt,fileId,createdAt}");
}

TEST(ResultStore, AbsentOrDamagedFilesReadEmptyAndAreReplacedByTheNextWrite) {
  test::TestHome home;
  AssetStore store(home.file(kAssetStoreFile));
  EXPECT_TRUE(store.read().empty());

  for (const std::string& damaged :
       {std::string(), std::string("{\"k\": {\"kind\": \"movie\""), std::string("[1,2]"),
        std::string("{\"k\": {\"kind\": \"movie\", \"imdb\": 7, \"createdAt\": 1}}"),
        std::string("{\"k\": {\"kind\": \"movie\", \"imdb\": \"tt1\"}}"), std::string("\xff\xfe\x00garbage", 10)}) {
    ASSERT_TRUE(writeFileAtomically(store.file(), damaged));
    EXPECT_TRUE(store.read().empty()) << damaged;
  }
  store.upsert("movie|tt1", fullEntry());
  const auto back = store.read();
  ASSERT_EQ(back.size(), 1u);
  EXPECT_EQ(back.at("movie|tt1"), fullEntry());

  // A store whose folder can't be made writes nothing and doesn't throw.
  ASSERT_TRUE(writeFileAtomically(home.file("blocker"), "file"));
  AssetStore blocked(home.file("blocker/assets.json"));
  blocked.upsert("k", fullEntry());
  EXPECT_TRUE(blocked.read().empty());

  // A degenerate fit can't make the file unreadable to the store itself.
  AssetEntry broken = fullEntry();
  broken.fit->scale = std::nan("");
  broken.createdAt = INFINITY;
  store.upsert("movie|tt2", broken);
  EXPECT_EQ(store.read().size(), 2u) << "the other film's entry is still there";
  EXPECT_EQ(store.read().at("movie|tt2").fit->scale, 0);

  // A file that is there but can't be read is left alone, not replaced.
  if (::geteuid() != 0) {
    const std::string before = readFile(store.file()).value_or("");
    ::chmod(store.file().c_str(), 0);
    store.upsert("movie|tt3", fullEntry());
    ::chmod(store.file().c_str(), 0600);
    EXPECT_EQ(readFile(store.file()).value_or(""), before);
  }
}

TEST(ResultStore, ConcurrentUpsertsFromTwoThreadsLoseNothing) {
  test::TestHome home;
  const std::string file = home.file(kTranslationStoreFile);
  constexpr int kEach = 60;
  auto worker = [&](const std::string& prefix, const std::string& spelling) {
    TranslationStore store(spelling);  // a store of its own over the same file
    for (int i = 0; i < kEach; ++i) {
      const std::string key = prefix + std::to_string(i);
      const TranslationEntry t{{{"1", key}}, "en", "ru", "f", static_cast<double>(i)};
      store.upsert(key, t);
    }
  };
  // The second thread spells the path differently; it is still the same lock.
  const std::string other = home.path() + "/./" + kTranslationStoreFile;
  std::thread a(worker, "a", file);
  std::thread b(worker, "b", other);
  a.join();
  b.join();
  const auto all = TranslationStore(file).read();
  EXPECT_EQ(all.size(), 2u * kEach);
  EXPECT_EQ(all.count("a0") + all.count("b59"), 2u);
}
