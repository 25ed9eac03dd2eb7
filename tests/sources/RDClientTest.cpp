#include <gtest/gtest.h>

#include "fakes/FakeRealDebrid.h"
#include "platform/Clock.h"
#include "platform/Http.h"
#include "platform/Job.h"
#include "sources/rd/RDClient.h"
#include "support/PauseClock.h"
#include "support/TestKit.h"

using namespace vt;
using vt::test::FakeRealDebrid;

namespace {

const std::string kHash = "0123456789abcdef0123456789abcdef01234567";

struct Rig {
  FakeRealDebrid rd;
  test::PauseClock clock{RDClient::kRequestTimeout};
  HttpClient http{clock, HttpClient::Session::ephemeral};
  RDClient client{http, rd.key, rd.restBase()};

  template <class T>
  T drive(QCoro::Task<T> task) {
    return test::drive(clock, std::move(task));
  }
};

template <class T, class F>
Job startInto(std::optional<T>& out, F call) {
  return Job::start([&out, call](CancelToken t) -> QCoro::Task<> {
    auto task = call(t);
    auto value = co_await std::move(task);
    out.emplace(std::move(value));
  });
}

template <class T>
std::string text(const Result<T, RDError>& r) {
  return r ? std::string() : message(r.error());
}

}  // namespace

TEST(RDClient, AnEmptyKeyFailsEveryCallWithoutTraffic) {
  Rig rig;
  RDClient noKey(rig.http, "", rig.rd.restBase());
  const std::vector<RDError> errors = {
      rig.drive(noKey.request("user")).error(), rig.drive(noKey.post("torrents/addMagnet", {{"magnet", "x"}})).error(),
      rig.drive(noKey.pollUntilLink("T1", true, 45)).error(), rig.drive(noKey.deleteTorrent("T1")).error()};
  for (const auto& e : errors) EXPECT_EQ(e, RDError::noKey());
  EXPECT_TRUE(rig.rd.requests().empty()) << "nothing left the machine";
}

TEST(RDClient, MagnetFlowWalksEveryStatusToAPlayableLink) {
  Rig rig;
  auto stages = FakeRealDebrid::fullStages();
  stages[3].infoCalls = 6;  // downloading long enough to reach the slow pauses
  rig.rd.releases[kHash] = {"Film.2020.1080p.BluRay.x264-GRP",
                            {{1, "/Film/Sample.mkv", 40'000'000}, {2, "/Film/Film.2020.mkv", 6'100'000'000}},
                            stages};

  auto id = rig.drive(rig.client.addMagnet(kHash));
  ASSERT_TRUE(id) << text(id);
  const auto add = rig.rd.requests().back();
  EXPECT_EQ(add.body, "magnet=magnet%3A%3Fxt%3Durn%3Abtih%3A" + QByteArray::fromStdString(kHash));
  EXPECT_EQ(add.header("Authorization"), "Bearer " + QByteArray::fromStdString(rig.rd.key));

  auto link = rig.drive(rig.client.pollUntilLink(*id, true, 45));
  ASSERT_TRUE(link) << text(link);
  ASSERT_TRUE(link->has_value());
  const auto& torrent = rig.rd.torrents.at(*id);
  EXPECT_EQ(**link, torrent.links.at(0));
  EXPECT_EQ(torrent.selection, "2") << "the largest file";
  EXPECT_EQ(torrent.selectCalls, 1);
  EXPECT_EQ(torrent.infoCalls, 10) << "conversion, selection, queued, six downloading, downloaded";
  // No pause after the selection; 0.7 s while under 3 s, then 3 s.
  EXPECT_EQ(rig.clock.pauses, (std::vector<double>{0.7, 0.7, 0.7, 0.7, 0.7, 3, 3, 3}));

  auto direct = rig.drive(rig.client.unrestrict(**link));
  ASSERT_TRUE(direct) << text(direct);
  EXPECT_EQ(direct->filesize, 6'100'000'000);

  EXPECT_TRUE(rig.drive(rig.client.deleteTorrent(*id)));
  EXPECT_EQ(rig.rd.deleted, std::vector<std::string>{*id});
}

TEST(RDClient, TheLargestFileIsChosenAndATieGoesToTheLaterOne) {
  using Files = std::optional<std::vector<TorrentFile>>;
  EXPECT_EQ(fileSelection(Files({{1, 5}, {7, 9}, {3, 9}, {4, 2}}), true), "3");
  EXPECT_EQ(fileSelection(Files({{1, 5}, {7, 9}}), false), "all");
  EXPECT_EQ(fileSelection(std::nullopt, true), "all");
}

TEST(RDClient, ADownloadedTorrentAnswersAtOnceAndAFailedSelectionDoesNotStopThePolling) {
  Rig rig;
  rig.rd.releases[kHash] = {"Film", {{1, "/Film.mkv", 2'000'000'000}}, {{"downloaded", 0}}};
  auto id = *rig.drive(rig.client.addMagnet(kHash));
  auto link = rig.drive(rig.client.pollUntilLink(id, true, 2));
  ASSERT_TRUE(link && link->has_value()) << text(link);
  EXPECT_EQ(rig.rd.torrents.at(id).infoCalls, 1);
  EXPECT_EQ(rig.rd.torrents.at(id).selectCalls, 0);
  EXPECT_TRUE(rig.clock.pauses.empty());

  // The selection is refused and never lands: asked once, then polled to the deadline.
  const std::string other = "fedcba9876543210fedcba9876543210fedcba98";
  rig.rd.releases[other] = {"Film", {{1, "/f.mkv", 900'000'000}}, FakeRealDebrid::cachedStages()};
  auto stuck = *rig.drive(rig.client.addMagnet(other));
  rig.rd.fail("torrents/selectFiles/", 503);
  auto none = rig.drive(rig.client.pollUntilLink(stuck, true, 2));
  ASSERT_TRUE(none) << text(none);
  EXPECT_FALSE(none->has_value());
  EXPECT_EQ(rig.rd.requestsTo("/rest/1.0/torrents/selectFiles/" + QString::fromStdString(stuck)).size(), 1u);
  EXPECT_EQ(rig.clock.pauses.size(), 3u);

  // The service may go on after a failed answer: the next info decides.
  const std::string third = "00112233445566778899aabbccddeeff00112233";
  rig.rd.releases[third] = {"Film", {{1, "/f.mkv", 900'000'000}}, {{"waiting_files_selection", 1}, {"downloaded", 0}}};
  auto goesOn = *rig.drive(rig.client.addMagnet(third));
  rig.rd.fail("torrents/selectFiles/", 500);
  auto later = rig.drive(rig.client.pollUntilLink(goesOn, true, 2));
  ASSERT_TRUE(later) << text(later);
  EXPECT_TRUE(later->has_value());
}

TEST(RDClient, AWorkingTorrentGivesUpAtTheDeadlineWithNothing) {
  Rig rig;
  rig.rd.releases[kHash] = {"Slow", {{1, "/f.mkv", 900'000'000}}, {{"waiting_files_selection", 0}, {"queued", 0}}};
  auto id = *rig.drive(rig.client.addMagnet(kHash));
  auto r = rig.drive(rig.client.pollUntilLink(id, true, 2));
  ASSERT_TRUE(r) << text(r);
  EXPECT_FALSE(r->has_value()) << "still working is not an error";
  EXPECT_EQ(rig.clock.pauses, (std::vector<double>{0.7, 0.7, 0.7}));
  EXPECT_EQ(rig.rd.torrents.at(id).infoCalls, 5);
}

TEST(RDClient, StatusesMapToHttpErrorsAndOnlyClientErrorsAreRefusals) {
  Rig rig;
  const std::map<int, bool> refusal = {{400, true}, {401, false}, {429, false}, {451, true}, {503, false}};
  for (const auto& [status, isRefusal] : refusal) {
    rig.rd.clearFaults();
    rig.rd.fail("torrents/info/", status);
    const auto e = rig.drive(rig.client.torrentInfo("T1")).error();
    EXPECT_EQ(e, RDError::http(status));
    EXPECT_EQ(e.isRefusal(), isRefusal) << status;
  }

  // An unknown torrent is a 404 from the service: a refusal. The poll ends with it.
  rig.rd.clearFaults();
  const auto gone = rig.drive(rig.client.pollUntilLink("TR-unknown", true, 45)).error();
  EXPECT_EQ(gone, RDError::http(404));
  EXPECT_TRUE(gone.isRefusal());

  // A failed torrent status is a refusal of the release.
  rig.rd.releases[kHash] = {"Bad", {}, FakeRealDebrid::failingStages("magnet_error", 2)};
  auto id = *rig.drive(rig.client.addMagnet(kHash));
  const auto bad = rig.drive(rig.client.pollUntilLink(id, true, 45)).error();
  EXPECT_EQ(message(bad), "RealDebrid refused this release (magnet_error)");
  EXPECT_TRUE(bad.isRefusal());
}

TEST(RDClient, RepliesThatAreNotTheirRecordEndInAnErrorNotACrash) {
  Rig rig;
  rig.rd.torrents["T1"] = {"T1", kHash, "Film", {{1, "/f.mkv", 1}}, {{"downloading", 0}}};
  const std::vector<QByteArray> broken = {
      "not json", "null", R"({"status":"downloaded","links":[1,2]})",
      R"({"status":"waiting_files_selection","files":[{"id":1,"bytes":2.5}]})",
      R"({"id":7,"download":["x"],"filesize":"big","type":false,"premium":"lots","expiration":1})"};
  const auto undecodable = RDError{RDError::Kind::undecodable};
  for (const auto& body : broken) {
    rig.rd.clearFaults();
    rig.rd.answer("", body);
    EXPECT_EQ(rig.drive(rig.client.pollUntilLink("T1", true, 45)).error(), undecodable) << body.toStdString();
    EXPECT_EQ(rig.drive(rig.client.addMagnet(kHash)).error(), undecodable) << body.toStdString();
    EXPECT_EQ(rig.drive(rig.client.unrestrict("https://real-debrid.com/d/X")).error(), undecodable);
    EXPECT_EQ(rig.drive(rig.client.user()).error(), undecodable) << body.toStdString();
  }
}

TEST(RDClient, ASilentServerEndsAtTheTimeLimit) {
  Rig rig;
  rig.rd.hang("torrents/");
  std::optional<Result<TorrentInfo, RDError>> info;
  auto job = startInto(info, [&](CancelToken t) { return rig.client.torrentInfo("T1", t); });
  ASSERT_TRUE(test::spinUntil([&] { return rig.rd.requests().size() == 1; }));
  rig.clock.manual.advance(14.9);
  test::settle(20);
  EXPECT_FALSE(info);
  rig.clock.manual.advance(0.1);
  ASSERT_TRUE(test::spinUntil([&] { return info.has_value(); }));
  EXPECT_EQ(info->error().kind, RDError::Kind::transport);
}

TEST(RDClient, CancellingClosesTheRequest) {
  Rig rig;
  rig.rd.hang("torrents/info/");
  std::optional<Result<std::optional<std::string>, RDError>> r;
  auto job = startInto(r, [&](CancelToken t) { return rig.client.pollUntilLink("T1", true, 45, t); });
  ASSERT_TRUE(test::spinUntil([&] { return rig.rd.requests().size() == 1; }));
  job.cancel();
  ASSERT_TRUE(test::spinUntil([&] { return r.has_value(); }));
  EXPECT_EQ(r->error().kind, RDError::Kind::cancelled);
  EXPECT_TRUE(test::spinUntil([&] { return rig.rd.abandonedRequests() == 1; })) << "the server saw the close";
}

TEST(RDClient, TheKeyNeverAppearsInAnErrorTextOrOnTheUrl) {
  Rig rig;
  std::vector<RDError> errors;
  rig.rd.releases[kHash] = {"Bad", {}, FakeRealDebrid::failingStages("virus")};
  auto id = *rig.drive(rig.client.addMagnet(kHash));
  errors.push_back(rig.drive(rig.client.pollUntilLink(id, true, 45)).error());
  for (int status : {401, 500}) {
    rig.rd.fail("", status);
    errors.push_back(rig.drive(rig.client.user()).error());
  }
  rig.rd.answer("user", "{");
  errors.push_back(rig.drive(rig.client.user()).error());
  RDClient nowhere(rig.http, rig.rd.key, QUrl("http://127.0.0.1:1/rest/1.0/"));
  errors.push_back(rig.drive(nowhere.user()).error());
  EXPECT_EQ(errors.back().kind, RDError::Kind::transport);
  for (const auto& e : errors) {
    EXPECT_EQ(message(e).find(rig.rd.key), std::string::npos) << message(e);
    EXPECT_EQ(e.detail.find(rig.rd.key), std::string::npos);
  }
  for (const auto& req : rig.rd.requests()) {
    EXPECT_FALSE(req.url.toString().contains(QString::fromStdString(rig.rd.key)));
    EXPECT_FALSE(req.body.contains(QByteArray::fromStdString(rig.rd.key)));
  }
}
