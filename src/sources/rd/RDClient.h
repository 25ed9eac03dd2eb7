#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <QByteArray>
#include <QUrl>
#include <qcoro/qcorotask.h>

#include "platform/Cancellation.h"
#include "platform/Result.h"

namespace vt {

class HttpClient;
struct HttpRequest;

// Why a call to Real-Debrid failed. The first three cases are the service's
// own answers; the others are what the network or a broken reply did to us.
// No case carries the API key, and no text prints it.
struct RDError {
  enum class Kind {
    http,         // a status outside 200..299
    refused,      // the torrent ended in a status that means "bad release"
    noKey,        // nothing was sent: no key
    transport,    // no answer: refused connection, reset, time limit...
    undecodable,  // a reply that is not the record it should be
    cancelled,    // the job's token stopped the request
  };
  Kind kind = Kind::transport;
  int status = 0;      // http
  std::string detail;  // refused: the torrent status; transport: the network's text

  static RDError http(int status) { return {Kind::http, status, {}}; }
  static RDError refused(std::string torrentStatus) { return {Kind::refused, 0, std::move(torrentStatus)}; }
  static RDError noKey() { return {Kind::noKey, 0, {}}; }

  // Whether the failure says "this release is bad" rather than "try again":
  // a refused torrent, or a client error other than 401, 403 and 429.
  bool isRefusal() const;

  bool operator==(const RDError&) const = default;
};

std::string message(const RDError& error);

// Reply records. Keys as on the wire; a missing required key or a wrongly
// typed value makes the whole reply undecodable.
struct RDUserInfo {
  std::string type;
  int64_t premium = 0;  // seconds of premium left
  std::string expiration;
  bool operator==(const RDUserInfo&) const = default;
};

struct TorrentFile {
  int64_t id = 0;
  int64_t bytes = 0;
  bool operator==(const TorrentFile&) const = default;
};

struct TorrentInfo {
  std::string status;
  std::optional<std::vector<TorrentFile>> files;
  std::optional<std::vector<std::string>> links;
  bool operator==(const TorrentInfo&) const = default;
};

struct UnrestrictResp {
  std::string download;
  std::optional<int64_t> filesize;
  bool operator==(const UnrestrictResp&) const = default;
};

// One row of the downloads list; read leniently, a bad field is absent.
struct RDDownload {
  std::optional<std::string> link, download, filename;
  bool operator==(const RDDownload&) const = default;
};

// Decoders of the reply bodies; none when the body is not the record.
std::optional<RDUserInfo> decodeUserInfo(const QByteArray& body);
std::optional<std::string> decodeAddMagnet(const QByteArray& body);
std::optional<TorrentInfo> decodeTorrentInfo(const QByteArray& body);
std::optional<UnrestrictResp> decodeUnrestrict(const QByteArray& body);
std::optional<std::vector<RDDownload>> decodeDownloads(const QByteArray& body);

// The file to ask for: the id of the largest file (a tie goes to the later
// one), or "all" when `largestOnly` is off or the list is absent or empty.
std::string fileSelection(const std::optional<std::vector<TorrentFile>>& files, bool largestOnly);

// A thin, stateless client of the Real-Debrid REST API. Every request
// carries "Authorization: Bearer <key>"; an empty key fails every call with
// noKey before anything is sent. The client never retries on its own, apart
// from the polling of pollUntilLink, whose pauses run on the HTTP client's
// clock. Cheap to copy; many flows may run at once.
class RDClient {
 public:
  static constexpr double kRequestTimeout = 15;
  static constexpr double kPostTimeout = 20;
  // Polling pauses: short ones for the first seconds, when a cached torrent
  // usually turns "downloaded", then longer ones.
  static constexpr double kQuickPause = 0.7;
  static constexpr double kSlowPause = 3;
  static constexpr double kQuickPhase = 3;

  using Form = std::map<std::string, std::string>;

  // The REST base from the endpoint table: the API host + "/rest/1.0/".
  static QUrl defaultBase();

  RDClient(HttpClient& http, std::string key, QUrl base = defaultBase());

  const QUrl& base() const { return base_; }

  // A call without a body; the path is appended to the base and may carry a
  // query. Gives the body of a 2xx answer.
  QCoro::Task<Result<QByteArray, RDError>> request(std::string path, QByteArray method = "GET",
                                                   CancelToken token = CancelToken::none()) const;
  // A form call: the fields percent-encoded in the body.
  QCoro::Task<Result<QByteArray, RDError>> post(std::string path, Form form,
                                                CancelToken token = CancelToken::none()) const;

  // The new torrent's id.
  QCoro::Task<Result<std::string, RDError>> addMagnet(std::string hash, CancelToken token = CancelToken::none()) const;
  // `files` is "all" or the decimal id of one file.
  QCoro::Task<Result<void, RDError>> selectFiles(std::string id, std::string files,
                                                 CancelToken token = CancelToken::none()) const;
  QCoro::Task<Result<TorrentInfo, RDError>> torrentInfo(std::string id, CancelToken token = CancelToken::none()) const;
  // Polls the torrent until it is downloaded (its first link, or none when it
  // has no links), refused (an error), or `budgetSeconds` have passed (none:
  // still working). Selects the files once when the torrent asks for them.
  QCoro::Task<Result<std::optional<std::string>, RDError>> pollUntilLink(std::string id, bool largestOnly,
                                                                         double budgetSeconds,
                                                                         CancelToken token = CancelToken::none()) const;
  QCoro::Task<Result<UnrestrictResp, RDError>> unrestrict(std::string link,
                                                          CancelToken token = CancelToken::none()) const;
  QCoro::Task<Result<RDUserInfo, RDError>> user(CancelToken token = CancelToken::none()) const;
  QCoro::Task<Result<void, RDError>> deleteTorrent(std::string id, CancelToken token = CancelToken::none()) const;
  // The latest 50 entries of the account's downloads.
  QCoro::Task<Result<std::vector<RDDownload>, RDError>> downloads(CancelToken token = CancelToken::none()) const;

 private:
  QUrl urlFor(const std::string& path) const;
  QCoro::Task<Result<QByteArray, RDError>> send(HttpRequest request, CancelToken token) const;

  HttpClient* http_;
  std::string key_;
  QUrl base_;
};

// Percent-encodes a form: every byte but ASCII letters, digits and "-._~".
QByteArray encodeForm(const RDClient::Form& form);

}  // namespace vt
