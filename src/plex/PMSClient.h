#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <QByteArray>
#include <QUrl>
#include <qcoro/qcorotask.h>

#include "platform/Date.h"
#include "platform/Cancellation.h"
#include "platform/Json.h"
#include "platform/Result.h"

namespace vt {

class AppConfig;
class Clock;
class HttpClient;

// Why a request to the Plex server failed.
struct PMSError {
  enum class Kind {
    badStatus,    // the server answered outside 200..299
    noToken,      // nothing was sent: no token
    transport,    // no answer: refused, timed out...
    undecodable,  // machineInfo's reply did not decode
  };
  Kind kind = Kind::transport;
  int status = 0;
  std::string detail;  // the transport's own text

  bool operator==(const PMSError&) const = default;
};

std::string message(const PMSError& e);

// One playback on the server.
struct PlaySession {
  std::optional<std::string> sessionKey, title, file, playerState, playerProduct, playerTitle;
  std::optional<int64_t> viewOffsetMs, durationMs;
  std::optional<double> transcodeSpeed;
  std::optional<bool> transcodeThrottled;
  std::optional<std::string> transcodeProtocol, transcodeVideoDecision;
  bool operator==(const PlaySession&) const = default;
};

// Reply records; every field optional, keys as on the wire.
struct PlexPart {
  std::optional<std::string> file;
};
struct PlexMedia {
  std::optional<int64_t> duration;
  std::vector<PlexPart> parts;
};
struct PlexItem {
  std::optional<std::string> ratingKey, title;
  std::optional<int64_t> year;
  std::optional<std::string> thumb, grandparentRatingKey;
  std::optional<int64_t> viewOffset, duration, addedAt;
  std::vector<PlexMedia> media;
};
struct PlexSection {
  std::string key;
  std::string type;  // "" when the server gave none
};
struct PlexCollectionRow {
  std::string title;
  std::string ratingKey;
  bool smart = false;
};
struct PlexImdbEntry {
  std::string title;
  std::string year;
  std::optional<std::string> thumb;
};
struct PlexItemDetails {
  std::string file;
  std::optional<int64_t> viewOffsetMs, durationMs;
};

// Decoders of the reply records. Lenient: a wrongly typed or missing field is
// absent; none only when the body is not JSON of the expected outer shape.
std::optional<std::vector<PlexItem>> decodeSectionItems(const QByteArray& body);
std::optional<std::vector<PlaySession>> decodeSessions(const QByteArray& body);
std::optional<std::vector<PlexCollectionRow>> decodeCollections(const QByteArray& body);
// The smart flag of a collection row: a Boolean, an integer (non-zero), or the
// text "1" or "true"; anything else is plain.
bool decodeSmartFlag(const Json& value);

// The only door to the user's Plex Media Server. A small value: build one
// from the settings, ask, drop it. Empty token: every call fails with
// noToken before any traffic.
class PMSClient {
 public:
  static constexpr double kReadTimeout = 8;
  static constexpr double kWriteTimeout = 15;

  PMSClient(HttpClient& http, QUrl baseURL, std::string token, std::string clientIdentifier);
  // None when the server URL does not parse or no token is set.
  static std::optional<PMSClient> fromConfig(const AppConfig& config, HttpClient& http);

  using Query = std::vector<std::pair<std::string, std::string>>;

  // The request primitive: path appended to the base, query items only when
  // there are any, the four Plex headers. Returns the body.
  QCoro::Task<Result<QByteArray, PMSError>> httpRequest(QByteArray method, std::string path, Query query,
                                                        double timeout) const;
  QCoro::Task<Result<QByteArray, PMSError>> putQuery(std::string path, Query query) const;
  QCoro::Task<Result<QByteArray, PMSError>> postQuery(std::string path, Query query) const;

  // (machineIdentifier, myPlexUsername); an absent identifier is "—".
  QCoro::Task<Result<std::pair<std::string, std::optional<std::string>>, PMSError>> machineInfo() const;
  QCoro::Task<Result<std::optional<PlexSection>, PMSError>> sectionForLocation(std::string location) const;
  QCoro::Task<Result<void, PMSError>> createSection(std::string name, bool isShow, std::string location) const;
  QCoro::Task<Result<void, PMSError>> disableAnalysisJobs(std::string location) const;
  QCoro::Task<Result<void, PMSError>> refreshSection(std::string location) const;
  QCoro::Task<Result<std::vector<PlexItem>, PMSError>> sectionItems(std::string location) const;
  QCoro::Task<Result<std::map<std::string, PlexItem>, PMSError>> fileIndex(std::string location) const;
  QCoro::Task<Result<std::map<std::string, PlexImdbEntry>, PMSError>> imdbIndex(std::string location) const;
  QCoro::Task<Result<void, PMSError>> refreshItem(std::string file, std::string location) const;
  QCoro::Task<Result<std::optional<PlexItemDetails>, PMSError>> itemDetails(std::string ratingKey) const;
  QCoro::Task<Result<std::vector<PlaySession>, PMSError>> sessions() const;
  QCoro::Task<Result<void, PMSError>> emptyTrash(std::string sectionKey) const;
  QCoro::Task<Result<void, PMSError>> addLabel(std::string sectionKey, std::vector<std::string> ratingKeys,
                                               std::string label) const;
  QCoro::Task<Result<void, PMSError>> removeLabel(std::vector<std::string> ratingKeys, std::string label) const;
  QCoro::Task<Result<std::map<std::string, std::string>, PMSError>> sectionLabels(std::string sectionKey) const;
  QCoro::Task<Result<std::set<std::string>, PMSError>> labelledKeys(std::string sectionKey, std::string labelId) const;
  QCoro::Task<Result<std::vector<PlexCollectionRow>, PMSError>> sectionCollections(std::string sectionKey) const;
  QCoro::Task<Result<std::optional<std::string>, PMSError>> createSmartCollection(std::string title,
                                                                                  std::string labelId,
                                                                                  std::string sectionKey,
                                                                                  std::string machineIdentifier) const;
  QCoro::Task<Result<void, PMSError>> deleteCollection(std::string ratingKey) const;
  QCoro::Task<Result<void, PMSError>> deleteCollectionNamed(std::string title, std::string location) const;
  QCoro::Task<Result<std::vector<std::string>, PMSError>> itemsWithoutDuration(std::string location, Date before) const;
  QCoro::Task<Result<std::set<std::string>, PMSError>> showKeys(std::string location) const;
  QCoro::Task<Result<std::map<std::string, std::string>, PMSError>> episodeShowMap(std::string location) const;

  const QUrl& baseURL() const { return baseURL_; }
  // A copy whose requests wait at most `seconds`, reads and writes alike.
  PMSClient withTimeLimit(double seconds) const {
    PMSClient c = *this;
    c.timeLimit_ = seconds;
    return c;
  }
  // A copy whose requests end when `token` is cancelled.
  PMSClient cancelledBy(CancelToken token) const {
    PMSClient c = *this;
    c.cancel_ = std::move(token);
    return c;
  }

 private:
  QUrl urlFor(const std::string& path) const;
  QCoro::Task<Result<QByteArray, PMSError>> send(QByteArray method, QUrl url, double timeout) const;

  HttpClient* http_;
  QUrl baseURL_;
  std::string token_;
  std::string clientIdentifier_;
  CancelToken cancel_;
  std::optional<double> timeLimit_;
};

// Makes Plex clients from the settings as they are at the moment of asking.
// The application owns one and hands it to everything that talks to Plex.
class PMSClientFactory {
 public:
  PMSClientFactory(const AppConfig& config, HttpClient& http) : config_(&config), http_(&http) {}
  // None when the settings can't make a client.
  std::optional<PMSClient> make() const { return PMSClient::fromConfig(*config_, *http_); }

 private:
  const AppConfig* config_;
  HttpClient* http_;
};

// Percent-encoding with only Unicode letters and digits and "-._~" left as
// they are, as the smart collection request needs. Other queries keep only
// ASCII letters and digits and "-._~".
std::string percentEncodeStrict(std::string_view text);

}  // namespace vt
