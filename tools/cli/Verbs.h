#pragma once

// The work of each verb, callable without a process.
#include <iosfwd>
#include <optional>
#include <string>

#include "cli/Cli.h"
#include "platform/FolderAccess.h"
#include "platform/Json.h"
#include "platform/Paths.h"
#include "sources/StreamCandidate.h"
#include "sources/ranking/StreamRanker.h"
#include "catalog/StremioCatalogClient.h"
#include "sources/resolve/StreamResolver.h"
#include "sources/release/Quality.h"

namespace vt::cli {

// release: names on `in`, one a line (a trailing "\r" dropped), and one
// compact JSON object a line on `out` with every field the parser found.
int releaseNames(std::istream& in, std::ostream& out);

struct RankOptions {
  std::optional<QualityLevel> level;  // none: the home's quality setting
  std::optional<int> runtimeMinutes;
  bool includeUncached = false;
  std::optional<std::string> home;  // where the pick history comes from
};

// rank: candidate rows as JSON lines on `in` ("filename", "size" as the
// add-on's text, "isCached", "seeders"); the kept rows in rank order on `out`,
// each with its own keys in input order, then "score", "efficiencyScore" and
// "reasons". A line that doesn't read is skipped with a message on `err`.
int rankRows(const RankOptions& options, std::istream& in, std::ostream& out, std::ostream& err);

// A row read leniently: a key of the wrong type counts as absent, a missing
// "isCached" as false. None when the row isn't a JSON object.
std::optional<StreamCandidate> candidateFromRow(const Json& row);

std::optional<QualityLevel> qualityLevelFromName(const std::string& name);

// config: show, get, set and unset the settings a user may set (the table
// of core/UserSettings.h), in the settings of --home or, without it, the
// application's own. Writes go through AppConfig.
int configCommand(const Arguments& args, Io& io);

// resolve: the candidates of a link in rank order as JSON lines, then one
// line for the outcome: {"outcome":"resolved","title":{...}} (0), or
// "noStream", "unreleased", "transient" (1). Why it ended goes to `err`.
// Nothing is written to the library.
QCoro::Task<int> resolveLink(StreamResolver& resolver, QUrl addon, bool allowTS, StreamRanker ranker, std::string link,
                             std::ostream& out, std::ostream& err);

// setup-mount: what the kernel NFS client needs so that `user` can mount the
// library folders without root, readable by the media server's account.
struct MountSetup {
  Account user;
  AppPaths paths;  // the user's data folder and settings
  std::string fstab = "/etc/fstab";
  std::optional<Account> mediaServer;  // none: no folder rights are given
  bool remove = false;
};
int setupMount(const MountSetup& setup, Io& io);
// setup-mount --check: one JSON line per library folder of `paths`, with
// whether `mediaServer` can read it and what stops it; 0 when both can.
// `mountinfo` is the text of /proc/self/mountinfo (read when empty).
int checkMountAccess(const AppPaths& paths, const std::optional<Account>& mediaServer, Io& io,
                     const std::string& mountinfo = {});

// subtitle: a subtitle file's bytes and the language tag its decoding takes.
struct SubtitleFile {
  std::string bytes;
  std::optional<std::string> language;
};
// check: one JSON object with what reading the file found, and the shape
// gate's refusal; its coverage test only with the film's length.
int subtitleCheck(const SubtitleFile& file, std::optional<double> filmSeconds, std::ostream& out);
// fit: the cues as SRT with the fit applied.
int subtitleFit(const SubtitleFile& file, double scale, int64_t offsetMs, std::ostream& out);
// catalog: the collections of `directory` as JSON lines, loaded read-only.
int listCatalog(const std::string& directory, std::ostream& out);
// catalog --fetch: each page of an add-on catalog as {"skip":N,"ids":[...]},
// then the ids a walk to `limit` gives, or an error line (1).
QCoro::Task<int> fetchCatalog(StremioCatalogClient& client, QUrl base, std::string type, std::string catalogId,
                              std::optional<std::string> genre, int limit, std::ostream& out);

// Sends one request to the running application on its control socket and
// hands each answer line to `onLine` until it returns false (0) or the
// application closes the connection (1). 2, with the reason on `io.err`,
// when nothing answers on the socket.
int askRunningApplication(const std::string& socketPath, const Json& request,
                          const std::function<bool(const Json& line)>& onLine, Io& io, const std::string& verb);

// The verb table entries.
Verb releaseVerb();
Verb rankVerb();
Verb configVerb();
Verb resolveVerb();
Verb setupMountVerb();
Verb subtitleVerb();
Verb catalogVerb();
Verb plexLinkVerb();
Verb watchVerb();
Verb statusVerb();
Verb subscribeVerb();
Verb unsubscribeVerb();

}  // namespace vt::cli
