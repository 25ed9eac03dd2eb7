#include "engine/ManifestPublisher.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "core/AppConfig.h"
#include "core/LibraryStore.h"
#include "platform/Clock.h"
#include "platform/Log.h"
#include "plex/PMSClient.h"

namespace vt {

namespace {

// The manifest is written in place (the engine reads it on reload only).
bool writeManifest(const std::string& path, const std::string& bytes, std::string& error) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) {
    error = std::strerror(errno);
    return false;
  }
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      error = std::strerror(errno);
      ::close(fd);
      return false;
    }
    done += static_cast<size_t>(n);
  }
  ::close(fd);
  return true;
}

}  // namespace

ManifestPublisher::ManifestPublisher(LibraryStore& library, AppConfig& config, Clock& clock, EngineStatusClient& client,
                                     EngineInstanceState& movie, Hooks hooks)
    : library_(library), config_(config), clock_(clock), client_(client), movie_(movie), hooks_(std::move(hooks)) {}

ManifestPublisher::~ManifestPublisher() {
  *alive_ = false;
  flushTask_.cancel();
  for (auto& j : resendTasks_) j.cancel();
}

void ManifestPublisher::log(const std::string& line) const {
  if (hooks_.log)
    hooks_.log(line);
  else
    logLine(line);
}

ManifestEntries ManifestPublisher::buildEntries() const {
  return vt::buildEntries(library_, hooks_.isHidden, config_.companionVersions());
}

QCoro::Task<bool> ManifestPublisher::sendConfig(std::vector<EngineEntry> entries, EngineInstanceState& instance) {
  const auto prints = fingerprints(entries);
  if (instance.lastConfigFingerprint == prints.all) co_return false;

  std::string error;
  if (!writeManifest(instance.paths.configURL, encodeEngineConfig(entries), error)) {
    log(instance.paths.label + " config write failed: " + error);
    co_return false;
  }
  const bool visibleUnchanged = instance.lastVisibleConfigFingerprint == prints.visible;
  instance.lastConfigFingerprint = prints.all;
  instance.lastVisibleConfigFingerprint = prints.visible;
  instance.entryCount = entries.size();
  if (instance.state != EngineState::running) co_return !visibleUnchanged;

  auto alive = alive_;
  const auto reply = co_await client_.reload(instance.paths.controlURL);
  if (!*alive) co_return false;
  log(instance.paths.label + " reloaded engine (" + std::to_string(entries.size()) + " titles)");

  if (reply.deferred && *reply.deferred > 0) {
    log(instance.paths.label + " " + std::to_string(*reply.deferred) +
        " changed title(s) in use — applying after playback");
    instance.lastConfigFingerprint.reset();
    if (!visibleUnchanged) instance.scanWhenApplied = true;
    if (!instance.resendScheduled) {
      instance.resendScheduled = true;
      EngineInstanceState* target = &instance;
      std::erase_if(resendTasks_, [](const Job& j) { return !j.isRunning(); });
      resendTasks_.push_back(Job::start([this, target, alive](CancelToken token) -> QCoro::Task<> {
        if (!co_await clock_.sleep(kResendDelay, token) || !*alive) co_return;
        while (hooks_.playbackActive && hooks_.playbackActive()) {
          if (!co_await clock_.sleep(kResendDelay, token) || !*alive) co_return;
        }
        target->resendScheduled = false;
        if (hooks_.applyConfig) hooks_.applyConfig();
      }));
    }
    co_return false;
  }
  const bool result = !visibleUnchanged || instance.scanWhenApplied;
  instance.scanWhenApplied = false;
  co_return result;
}

QCoro::Task<EngineApplyResult> ManifestPublisher::applyEngineConfig() {
  auto entries = buildEntries();
  EngineApplyResult result;
  auto alive = alive_;
  result.movieVisibleChanged = co_await sendConfig(std::move(entries.movie), movie_);
  if (!*alive) co_return result;

  if (!entries.tv.empty()) {
    auto& tv = hooks_.tvInstance();
    if (tv.state == EngineState::stopped || tv.state == EngineState::failed) {
      if (hooks_.startInstance) co_await hooks_.startInstance(tv, std::move(entries.tv));
      result.tvVisibleChanged = result.tvActive = tv.state == EngineState::running;
    } else {
      result.tvVisibleChanged = co_await sendConfig(std::move(entries.tv), tv);
      result.tvActive = tv.state == EngineState::running;
    }
  } else if (auto* tv = hooks_.existingTvInstance ? hooks_.existingTvInstance() : nullptr;
             tv && (tv->state == EngineState::starting || tv->state == EngineState::running)) {
    log("[tv-supervisor] no episodes remain in the library — stopping TV engine");
    if (hooks_.stopInstance) co_await hooks_.stopInstance(*tv);
  }
  co_return result;
}

void ManifestPublisher::requestFlush(int count) {
  pendingFlushCount_ += count;
  if (pendingFlushCount_ >= kFlushBatch || clock_.now() - lastFlushAt_ >= kFlushWindow) {
    flushNow();
    return;
  }
  if (flushTask_.isRunning()) return;  // the window is not extended
  auto alive = alive_;
  flushTask_ = Job::start([this, alive](CancelToken token) -> QCoro::Task<> {
    if (!co_await clock_.sleep(kFlushWindow, token) || !*alive) co_return;
    // The task ends here; flushNow would otherwise cancel the job it runs in.
    flushTask_ = Job();
    flushNow();
  });
}

void ManifestPublisher::flushNow() {
  flushTask_.cancel();
  flushTask_ = Job();
  if (pendingFlushCount_ <= 0) return;
  pendingFlushCount_ = 0;
  lastFlushAt_ = clock_.now();
  if (hooks_.applyConfig) hooks_.applyConfig();
}

}  // namespace vt

namespace vt {

void ManifestPublisher::requestSubtitleReimport(const LibraryTitle& title, double delaySeconds) {
  auto client = PMSClient::fromConfig(config_);
  if (!client) return;
  // The two library folders lie side by side in the data folder.
  const auto dataDirectory = std::filesystem::path(movie_.paths.mountPoint).parent_path();
  const std::string location = (dataDirectory / (title.season ? "Library TV" : "Library")).string();
  auto alive = alive_;
  Job::start([this, alive, client = std::move(*client), name = title.name, location,
              delaySeconds](CancelToken token) -> QCoro::Task<> {
    // A cancelled wait still asks: the subtitle is already in place.
    if (delaySeconds > 0) co_await clock_.sleep(delaySeconds, token);
    co_await client.refreshItem(name, location);
    if (*alive) log("[supervisor] requested subtitle re-import for \"" + name + "\"");
  });
}

}  // namespace vt
