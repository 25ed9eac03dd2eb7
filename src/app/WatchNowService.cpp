#include "app/WatchNowService.h"

#include <QDateTime>
#include <QUuid>
#include <algorithm>
#include <charconv>
#include <limits>

#include "app/VantoryApp.h"
#include "catalog/CatalogStore.h"
#include "core/AppConfig.h"
#include "core/LibraryFolders.h"
#include "core/LibraryStore.h"
#include "platform/Clock.h"
#include "platform/Json.h"
#include "platform/Log.h"
#include "platform/ProcessTable.h"
#include "platform/Settings.h"
#include "plex/PMSClient.h"
#include "plex/PlexWebLink.h"

namespace vt {

std::string message(const WatchNowService::Phase& phase) {
  using K = WatchNowService::Phase::Kind;
  switch (phase.kind) {
    case K::failed:
      return phase.text;
    case K::resolving:
      return "Finding a source";
    case K::publishing:
      return "Waiting for Plex";
    case K::ready:
      return "Ready in Plex";
  }
  return {};
}

namespace {

std::string episodeKey(const std::string& seriesId, EpisodeNumber n) {
  return seriesId + ":" + std::to_string(n.season) + ":" + std::to_string(n.episode);
}

// "<season>:<episode>", exactly two integers.
EpisodeNumber numberOf(const EpisodeMeta& e) { return EpisodeNumber{e.season, e.episode}; }

std::optional<EpisodeNumber> parseEpisodeNumber(const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos || text.find(':', colon + 1) != std::string::npos) return std::nullopt;
  auto integer = [](std::string_view s) -> std::optional<int> {
    int v = 0;
    const auto* end = s.data() + s.size();
    const auto r = std::from_chars(s.data(), end, v);
    if (s.empty() || r.ec != std::errc() || r.ptr != end) return std::nullopt;
    return v;
  };
  const auto s = integer(std::string_view(text).substr(0, colon));
  const auto e = integer(std::string_view(text).substr(colon + 1));
  if (!s || !e) return std::nullopt;
  return EpisodeNumber{*s, *e};
}

// The calendar year of a date, in UTC.
int calendarYear(Date date) {
  return QDateTime::fromSecsSinceEpoch(static_cast<qint64>(unixSecondsFromDate(date)), Qt::UTC).date().year();
}

// The first four characters of a year text as an integer; the largest
// integer when they don't read as one.
int leadingYear(const std::string& year) {
  const std::string_view head = std::string_view(year).substr(0, 4);
  int v = 0;
  const auto r = std::from_chars(head.data(), head.data() + head.size(), v);
  if (head.empty() || r.ec != std::errc() || r.ptr != head.data() + head.size()) return std::numeric_limits<int>::max();
  return v;
}

// A release date as a person reads it: the day of an ISO date, else the text.
// The date as the rest of the application shows dates ("Jun 1, 2099").
std::string releaseDay(const std::string& released) { return shortDateText(released).value_or(released); }

}  // namespace

WatchNowService::WatchNowService(Parts parts) : p_(std::move(parts)) { loadLastStarted(); }

WatchNowService::~WatchNowService() {
  *alive_ = false;
  for (auto& [id, task] : tasks_) task.cancel();
  for (auto& [id, removal] : removals_) removal.cancel();
  scope_.cancelAll();
}

void WatchNowService::logLine(const std::string& line) const { vt::logLine(line); }

bool WatchNowService::isConnected() const {
  const auto& c = *p_.config;
  return !c.token().empty() && !c.plexServerName().empty() && !c.rdKey().empty();
}

const WatchNowService::Job* WatchNowService::job(const std::string& id) const {
  const auto it = jobs_.find(id);
  return it == jobs_.end() ? nullptr : &it->second;
}

std::optional<std::string> WatchNowService::run(const std::string& id) const {
  const auto it = runs_.find(id);
  return it == runs_.end() ? std::nullopt : std::optional(it->second);
}

const WatchNowService::Job* WatchNowService::activeJob(const std::string& seriesId) const {
  const std::string prefix = seriesId + ":";
  for (const auto& [id, j] : jobs_)
    if (id.starts_with(prefix) && j.phase.isActive()) return &j;
  return nullptr;
}

// Presses --------------------------------------------------------------------

void WatchNowService::watch(const Film& film) {
  if (!isConnected()) {
    p_.gate->mustShowConnect = true;
    p_.gate->pendingAction = [this, alive = alive_, film] {
      if (*alive) watch(film);
    };
    return;
  }
  start(Press{.kind = Kind::film, .id = film.imdbId, .imdbId = film.imdbId, .displayName = film.name});
}

void WatchNowService::watch(const Episode& episode) {
  if (!isConnected()) {
    p_.gate->mustShowConnect = true;
    p_.gate->pendingAction = [this, alive = alive_, episode] {
      if (*alive) watch(episode);
    };
    return;
  }
  const std::string key = episodeKey(episode.series.imdbId, episode.number);
  const std::string display =
      episode.series.name + " S" + std::to_string(episode.number.season) + "E" + std::to_string(episode.number.episode);
  const Job* existing = job(key);
  const bool starts = !existing || !existing->phase.isActive();
  start(Press{
      .kind = Kind::episode, .id = key, .imdbId = episode.series.imdbId, .displayName = display, .episode = episode});
  if (starts) {
    lastStarted_[episode.series.imdbId] = episode.number;
    saveLastStarted();
  }
}

void WatchNowService::start(Press press) {
  const std::string id = press.id;
  if (const Job* existing = job(id); existing && existing->phase.isActive()) return;
  dropRemovalJob(id);
  Job fresh;
  fresh.id = id;
  fresh.displayName = press.displayName;
  fresh.startedAt = p_.clock->now();
  jobs_[id] = std::move(fresh);
  if (const auto it = tasks_.find(id); it != tasks_.end()) it->second.cancel();
  const std::string uuid = QUuid::createUuid().toString(QUuid::WithoutBraces).toUpper().toStdString();
  runs_[id] = uuid;
  emit jobsChanged();
  auto task = vt::Job::start(
      [this, press = std::move(press), uuid, alive = alive_](CancelToken token) -> QCoro::Task<> {
        co_await body(press, uuid, token);
        if (!*alive) co_return;
        // A later press owns the entries once it made a run of its own.
        if (const auto r = runs_.find(press.id); r != runs_.end() && r->second == uuid) {
          runs_.erase(r);
          tasks_.erase(press.id);
        }
      },
      scope_.token());
  // A body that ended before its first suspension already cleaned up.
  if (task.isRunning()) tasks_[id] = task;
}

// The job ------------------------------------------------------------------------

QCoro::Task<> WatchNowService::body(Press press, std::string uuid, CancelToken token) {
  const std::string id = press.id;
  const bool episode = press.kind == Kind::episode;
  // Read after each suspension before anything of this: the service may have gone.
  const auto alive = alive_;
  if (!p_.config->controlURL()) {
    jobs_.erase(id);
    emit jobsChanged();
    co_return;
  }

  // File the title in the library collection.
  const auto library = p_.catalog->libraryCollection();
  if (!library) {
    fail(id, uuid, {"Couldn't prepare playback", "Couldn't prepare playback."}, press.displayName);
    co_return;
  }
  CatalogMeta meta{.id = press.imdbId,
                   .name = episode ? press.episode->series.name : press.displayName,
                   .mediaType = std::string(episode ? "series" : "movie")};
  const std::vector<CatalogMeta> metas{meta};
  if (p_.catalog->addItems(metas, library->id) > 0) filedByPress_.insert(id);
  const std::function<void()> undoFiling = [catalog = p_.catalog, imdb = press.imdbId, libraryId = library->id] {
    catalog->removeItem(imdb, libraryId);
  };

  // A title resolved within the last two hours, with a live link, is used as it is.
  const LibraryTitle* existing = episode ? p_.store->titleByEpisodeKey(id) : p_.store->titleByImdb(press.imdbId);
  if (existing && episode && existing->url.empty()) existing = nullptr;
  if (existing && existing->resolvedAt && p_.clock->now() - *existing->resolvedAt <= kReuseSeconds &&
      !(p_.linkIsDead && p_.linkIsDead(*existing))) {
    LibraryTitle title = *existing;
    co_await finish(press, std::move(title), uuid, undoFiling, token);
    co_return;
  }

  ResolveOutcome outcome;
  if (episode) {
    if (p_.resolveEpisode) {
      Episode e = *press.episode;
      outcome = co_await p_.resolveEpisode(std::move(e), token);
    } else {
      outcome = ResolveOutcome::transient();
    }
  } else {
    outcome = co_await p_.resolveFilm(press.imdbId, token);
  }
  if (token.isCancelled()) {
    if (*alive) undoAfterCancel(press, undoFiling);
    co_return;
  }

  if (outcome.kind == ResolveOutcome::Kind::resolved && outcome.title) {
    p_.store->upsert(*outcome.title);
    p_.catalog->markVetted(id);
    // The library keeps the name a published title already has.
    const LibraryTitle* stored = episode ? p_.store->titleByEpisodeKey(id) : p_.store->titleByImdb(press.imdbId);
    LibraryTitle title = stored ? *stored : *outcome.title;
    co_await finish(press, std::move(title), uuid, undoFiling, token);
    co_return;
  }
  const Failure failure = co_await failureFor(std::move(outcome), episode, token);
  if (token.isCancelled()) {
    if (*alive) undoAfterCancel(press, undoFiling);
    co_return;
  }
  fail(id, uuid, failure, press.displayName);
}

QCoro::Task<WatchNowService::Failure> WatchNowService::failureFor(ResolveOutcome outcome, bool episode,
                                                                  CancelToken token) {
  using K = ResolveOutcome::Kind;
  if (outcome.kind == K::noStream || outcome.kind == K::transient) {
    std::optional<std::string> accountProblem;
    if (p_.account) {
      const auto user = co_await p_.account(token);
      if (user) {
        // Premium days, whole: less than a day left counts as run out.
        const int64_t days = user.value().premium / 86400;
        if (user.value().type != "premium" || days <= 0) accountProblem = accountExpiredText();
      } else if (user.error().kind == RDError::Kind::http &&
                 (user.error().status == 401 || user.error().status == 403)) {
        accountProblem = accountRefusedText();
      }
    }
    if (accountProblem) co_return Failure{*accountProblem, *accountProblem + "."};
    if (outcome.kind == K::noStream) co_return Failure{"No source found", "No source found."};
    co_return Failure{"Source lookup failed — try again", "Source lookup failed. Try again in a minute."};
  }
  // Not released yet.
  if (outcome.released && !outcome.released->empty()) {
    const std::string text = episode ? "Not aired yet (airs " + releaseDay(*outcome.released) + ")"
                                     : "Not released yet (releases " + releaseDay(*outcome.released) + ")";
    co_return Failure{text, text + "."};
  }
  if (calendarYear(p_.clock->now()) >= leadingYear(outcome.year))
    co_return Failure{"Only in cinemas so far", "Only in cinemas so far: nothing but camera recordings yet."};
  if (episode) co_return Failure{"Not aired yet", "Not aired yet."};
  co_return Failure{"Not released yet", "Not released yet."};
}

QCoro::Task<> WatchNowService::finish(Press press, LibraryTitle title, std::string uuid,
                                      std::function<void()> undoFiling, CancelToken token) {
  const std::string id = press.id;
  const bool tv = title.season.has_value() || press.kind == Kind::episode;
  const auto alive = alive_;
  setPhase(id, Phase{Phase::Kind::publishing, {}});
  if (p_.applyToEngine) p_.applyToEngine();

  const std::string file = lastPathComponent(title.name);
  const std::string location = p_.dataDirectory + "/" + libraryFolderName(tv);
  const auto made = p_.plex->make();
  if (!made) {
    fail(id, uuid, {"Plex isn't connected", "Plex isn't connected."}, press.displayName);
    co_return;
  }
  const PMSClient client = made->cancelledBy(token);

  // Wait for Plex to index the file.
  const Date deadline = p_.clock->now() + kIndexDeadline;
  std::optional<Date> failingSince;
  std::optional<std::string> ratingKey;
  while (!token.isCancelled() && p_.clock->now() < deadline) {
    const auto index = co_await client.fileIndex(location);
    if (token.isCancelled()) break;
    if (index) {
      failingSince.reset();
      const auto item = index.value().find(file);
      if (item != index.value().end() && item->second.ratingKey) {
        ratingKey = item->second.ratingKey;
        break;
      }
    } else if (index.error().kind == PMSError::Kind::badStatus && index.error().status == 401) {
      fail(id, uuid, {"Plex wants you to sign in again", "Plex wants you to sign in again — Settings → Plex."},
           press.displayName);
      co_return;
    } else {
      if (!failingSince) failingSince = p_.clock->now();
      if (p_.clock->now() - *failingSince > kUnansweredLimit) {
        fail(
            id, uuid,
            {"Plex Media Server isn't answering — is it running?", "Plex Media Server isn't answering. Is it running?"},
            press.displayName);
        co_return;
      }
    }
    if (!co_await p_.clock->sleep(kIndexPoll, token)) break;
  }
  if (token.isCancelled()) {
    if (*alive) undoAfterCancel(press, undoFiling);
    co_return;
  }
  if (!ratingKey) {
    fail(id, uuid, {"Plex hasn't indexed it yet", "Plex is taking a while to index it — it should appear shortly."},
         press.displayName);
    co_return;
  }

  // Warm the engine for the first seconds of playback.
  const auto control = tv ? (p_.tvControlURL ? p_.tvControlURL() : std::nullopt)
                          : (p_.movieControlURL ? p_.movieControlURL() : std::nullopt);
  if (control && p_.prewarm) {
    co_await p_.prewarm(*control, title.name, token);
    if (token.isCancelled()) {
      if (*alive) undoAfterCancel(press, undoFiling);
      co_return;
    }
  }

  std::optional<std::string> openURL;
  const auto machine = co_await client.machineInfo();
  if (token.isCancelled()) {
    if (*alive) undoAfterCancel(press, undoFiling);
    co_return;
  }
  if (machine && !machine.value().first.empty() && machine.value().first != "—")
    openURL = plexWebAddress(p_.webAppBase, machine.value().first, *ratingKey);

  const auto it = jobs_.find(id);
  if (it == jobs_.end() || run(id) != uuid) co_return;
  it->second.openURL = openURL;
  it->second.phase = Phase{Phase::Kind::ready, {}};
  filedByPress_.erase(id);
  emit jobsChanged();
  logLine("[plex] watch-now: " + press.displayName + " is ready in Plex");
  p_.notifier->post(Notification{.title = "Ready in Plex",
                                 .body = press.displayName + " is ready to watch.",
                                 .identifier = "watchnow-ready-" + uuid,
                                 .openURL = openURL,
                                 .sound = true});

  // A ready job goes away after a while, unless pressed again.
  dropRemovalJob(id);
  removals_[id] = vt::Job::start(
      [this, id, alive = alive_](CancelToken t) -> QCoro::Task<> {
        if (!co_await p_.clock->sleep(kReadyLinger, t) || !*alive) co_return;
        const Job* j = job(id);
        if (j && j->phase.kind == Phase::Kind::ready) remove(id);
      },
      scope_.token());
}

void WatchNowService::setPhase(const std::string& id, Phase phase) {
  const auto it = jobs_.find(id);
  if (it == jobs_.end()) return;
  it->second.phase = std::move(phase);
  emit jobsChanged();
}

void WatchNowService::fail(const std::string& id, const std::string& uuid, const Failure& failure,
                           const std::string& displayName) {
  const auto it = jobs_.find(id);
  if (it == jobs_.end() || run(id) != uuid) return;
  it->second.phase = Phase::failed(failure.jobText);
  it->second.openURL.reset();
  emit jobsChanged();
  logLine("[plex] watch-now: couldn't prepare " + displayName + ": " + failure.jobText);
  p_.notifier->post(Notification{.title = "Couldn't prepare " + displayName,
                                 .body = failure.notificationText,
                                 .identifier = "watchnow-failed-" + uuid,
                                 .openURL = std::nullopt});
}

bool WatchNowService::anotherActiveJob(const std::string& id) const {
  const std::string prefix = id + ":";
  return std::any_of(jobs_.begin(), jobs_.end(), [&](const auto& entry) {
    return (entry.first == id || entry.first.starts_with(prefix)) && entry.second.phase.isActive();
  });
}

void WatchNowService::undoAfterCancel(const Press& press, const std::function<void()>& undoFiling) {
  const bool filed = filedByPress_.erase(press.id) > 0;
  // A newer press of the same title keeps what it needs.
  if (!filed || anotherActiveJob(press.id)) return;
  const LibraryTitle* title =
      press.kind == Kind::episode ? p_.store->titleByEpisodeKey(press.id) : p_.store->titleByImdb(press.imdbId);
  if (title) {
    p_.store->remove(title->name);
    if (p_.applyToEngine) p_.applyToEngine();
  }
  undoFiling();
}

void WatchNowService::dropRemovalJob(const std::string& id) {
  const auto it = removals_.find(id);
  if (it == removals_.end()) return;
  it->second.cancel();
  removals_.erase(it);
}

// Operations on jobs -------------------------------------------------------------

void WatchNowService::open(const std::string& id) {
  const Job* j = job(id);
  std::string base = p_.webAppBase;
  while (!base.empty() && base.back() == '/') base.pop_back();
  p_.notifier->openURL(j && j->openURL ? *j->openURL : base + "/desktop/");
}

void WatchNowService::remove(const std::string& id) {
  // Everything of the job goes before its run is cancelled: a cancel resumes
  // the run at once, and its undo must find no job of this id left.
  std::optional<vt::Job> task;
  if (const auto it = tasks_.find(id); it != tasks_.end()) {
    task = it->second;
    tasks_.erase(it);
  }
  runs_.erase(id);
  dropRemovalJob(id);
  const bool removed = jobs_.erase(id) > 0;
  if (task) task->cancel();
  if (removed) emit jobsChanged();
}

void WatchNowService::clear(const std::string& id) {
  std::vector<std::string> doomed;
  const std::string prefix = id + ":";
  for (const auto& [jobId, j] : jobs_)
    if (jobId == id || jobId.starts_with(prefix)) doomed.push_back(jobId);
  for (const auto& jobId : doomed) remove(jobId);
  lastStarted_.erase(id);
  saveLastStarted();
}

// Series ---------------------------------------------------------------------------

std::optional<WatchNowService::ContinueTarget> WatchNowService::continueTarget(
    const std::string& imdbId, const std::vector<EpisodeMeta>& aired) const {
  if (aired.empty()) return std::nullopt;
  auto lastWith = [&](auto predicate) -> std::optional<ContinueTarget> {
    for (auto it = aired.rbegin(); it != aired.rend(); ++it) {
      const Job* j = job(episodeKey(imdbId, numberOf(*it)));
      if (j && predicate(j->phase)) return ContinueTarget{*it, j->phase, false};
    }
    return std::nullopt;
  };
  if (auto t = lastWith([](const Phase& p) { return p.isActive(); })) return t;
  if (auto t = lastWith([](const Phase& p) { return p.kind == Phase::Kind::ready; })) return t;
  if (auto t = lastWith([](const Phase& p) { return p.kind == Phase::Kind::failed; })) return t;
  const auto last = lastStarted_.find(imdbId);
  if (last != lastStarted_.end()) {
    const auto at =
        std::find_if(aired.begin(), aired.end(), [&](const EpisodeMeta& e) { return numberOf(e) == last->second; });
    if (at != aired.end()) {
      if (std::next(at) == aired.end()) return std::nullopt;
      return ContinueTarget{*std::next(at), std::nullopt, false};
    }
  }
  return ContinueTarget{aired.front(), std::nullopt, true};
}

void WatchNowService::continueSeries(const Series& series) {
  auto failWith = [this, series](const std::string& text) {
    dropRemovalJob(series.imdbId);
    Job failed;
    failed.id = series.imdbId;
    failed.displayName = series.name;
    failed.phase = Phase::failed(text);
    failed.startedAt = p_.clock->now();
    jobs_[series.imdbId] = std::move(failed);
    emit jobsChanged();
  };
  if (!p_.airedEpisodes) {
    failWith("Couldn't load episodes");
    return;
  }
  scope_.start([this, series, failWith, alive = alive_](CancelToken token) -> QCoro::Task<> {
    const auto aired = co_await p_.airedEpisodes(series.imdbId, token);
    if (token.isCancelled() || !*alive) co_return;
    if (!aired) {
      failWith("Couldn't load episodes");
      co_return;
    }
    if (const auto target = continueTarget(series.imdbId, *aired)) {
      if (target->phase && target->phase->isActive()) co_return;
      if (target->phase && target->phase->kind == Phase::Kind::ready) {
        open(episodeKey(series.imdbId, numberOf(target->episode)));
        co_return;
      }
      watch(Episode{series, numberOf(target->episode)});
      co_return;
    }
    // Every aired episode was started: round again from the first.
    if (!aired->empty()) {
      watch(Episode{series, numberOf(aired->front())});
      co_return;
    }
    failWith("No aired episodes");
  });
}

void WatchNowService::onWatching(const std::set<std::string>& names) {
  bool changed = false;
  for (const auto& name : names) {
    const LibraryTitle* t = p_.store->titleNamed(name);
    if (!t || !t->seriesImdbId || !t->season || !t->episode) continue;
    lastStarted_[*t->seriesImdbId] = EpisodeNumber{*t->season, *t->episode};
    changed = true;
  }
  if (changed) saveLastStarted();
}

void WatchNowService::loadLastStarted() {
  const auto text = p_.config->store().string(kLastStartedKey);
  if (!text) return;
  const auto j = json::parse(*text);
  if (!j || !j->is_object()) return;
  for (const auto& [series, value] : j->items()) {
    if (!value.is_string()) continue;
    if (const auto n = parseEpisodeNumber(value.get<std::string>())) lastStarted_[series] = *n;
  }
}

void WatchNowService::saveLastStarted() {
  Json j = Json::object();
  for (const auto& [series, n] : lastStarted_) j[series] = std::to_string(n.season) + ":" + std::to_string(n.episode);
  p_.config->store().setString(kLastStartedKey, json::encode(j));
}

}  // namespace vt
