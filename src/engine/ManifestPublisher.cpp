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
#include "core/LibraryFolders.h"
#include "core/LibraryTitle.h"

namespace vt {

namespace {

// The manifest is written in place (the engine reads it on reload only).
bool writeManifest(const std::string& path, const std::string& bytes, std::string& error) {
  std::error_code ec;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ec);
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
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
                                     EngineInstances& instances, Hooks hooks)
    : library_(library),
      config_(config),
      clock_(clock),
      client_(client),
      instances_(instances),
      hooks_(std::move(hooks)) {}

ManifestPublisher::~ManifestPublisher() = default;

void ManifestPublisher::log(const std::string& line) const {
  if (hooks_.log)
    hooks_.log(line);
  else
    logLine(line);
}

ManifestEntries ManifestPublisher::buildEntries() const {
  return vt::buildEntries(library_, hooks_.isHidden, config_.companionVersions());
}

QCoro::Task<bool> ManifestPublisher::sendConfig(const std::vector<EngineEntry>& entries,
                                                EngineInstanceState& instance) {
  const size_t count = entries.size();
  const auto prints = fingerprints(entries);
  if (instance.lastConfigFingerprint == prints.all) co_return false;

  std::string error;
  encodeEngineConfig(entries, manifestText_);
  if (!writeManifest(instance.paths.configURL, manifestText_, error)) {
    log(instance.paths.label + " config write failed: " + error);
    co_return false;
  }
  const bool visibleUnchanged = instance.lastVisibleConfigFingerprint == prints.visible;
  instance.lastConfigFingerprint = prints.all;
  instance.lastVisibleConfigFingerprint = prints.visible;
  instance.entryCount = count;
  if (instance.state != EngineState::running) co_return !visibleUnchanged;

  const auto token = jobs_.token();
  const auto reply = co_await client_.reload(instance.paths.controlURL, token);
  if (token.isCancelled()) co_return false;
  log(instance.paths.label + " reloaded engine (" + std::to_string(count) + " titles)");

  if (reply.deferred && *reply.deferred > 0) {
    log(instance.paths.label + " " + std::to_string(*reply.deferred) +
        " changed title(s) in use — applying after playback");
    instance.lastConfigFingerprint.reset();
    if (!visibleUnchanged) instance.scanWhenApplied = true;
    if (!instance.resendScheduled) {
      instance.resendScheduled = true;
      EngineInstanceState* target = &instance;
      jobs_.start([this, target](CancelToken token) -> QCoro::Task<> {
        if (!co_await clock_.sleep(kResendDelay, token)) co_return;
        while (hooks_.playbackActive && hooks_.playbackActive()) {
          if (!co_await clock_.sleep(kResendDelay, token)) co_return;
        }
        target->resendScheduled = false;
        if (hooks_.applyConfig) hooks_.applyConfig();
      });
    }
    co_return false;
  }
  const bool result = !visibleUnchanged || instance.scanWhenApplied;
  instance.scanWhenApplied = false;
  co_return result;
}

QCoro::Task<EngineApplyResult> ManifestPublisher::applyEngineConfig() {
  // Built into the kept lists. Applications don't overlap (the coordinator
  // runs one at a time), and sendConfig reads the list before it suspends.
  vt::buildEntries(library_, hooks_.isHidden, config_.companionVersions(), built_);
  const bool anyEpisodes = !built_.tv.empty();
  EngineApplyResult result;
  const auto token = jobs_.token();
  result.movieVisibleChanged = co_await sendConfig(built_.movie, instances_.movieInstance());
  if (token.isCancelled()) co_return result;

  if (anyEpisodes) {
    auto& tv = instances_.tvInstance();
    if (tv.state == EngineState::stopped || tv.state == EngineState::failed) {
      auto episodes = built_.tv;
      co_await instances_.startInstance(tv, std::move(episodes));
      if (token.isCancelled()) co_return result;
      result.tvVisibleChanged = result.tvActive = tv.state == EngineState::running;
    } else {
      result.tvVisibleChanged = co_await sendConfig(built_.tv, tv);
      if (token.isCancelled()) co_return result;
      result.tvActive = tv.state == EngineState::running;
    }
  } else if (auto* tv = instances_.existingTvInstance();
             tv && (tv->state == EngineState::starting || tv->state == EngineState::running)) {
    log("[tv-supervisor] no episodes remain in the library — stopping TV engine");
    co_await instances_.stopInstance(*tv);
  }
  co_return result;
}

void ManifestPublisher::requestFlush(int count) {
  pendingFlushCount_ += count;
  if (pendingFlushCount_ >= kFlushBatch || clock_.now() - lastFlushAt_ >= kFlushWindow) {
    flushNow();
    return;
  }
  if (flushScheduled_) return;  // the window is not extended
  flushScheduled_ = true;
  flushes_.start([this](CancelToken token) -> QCoro::Task<> {
    if (!co_await clock_.sleep(kFlushWindow, token)) co_return;
    // The job ends here; flushNow would otherwise cancel the job it runs in.
    flushScheduled_ = false;
    flushNow();
  });
}

void ManifestPublisher::flushNow() {
  if (flushScheduled_) {
    flushScheduled_ = false;
    flushes_.cancelAll();
  }
  if (pendingFlushCount_ <= 0) return;
  pendingFlushCount_ = 0;
  lastFlushAt_ = clock_.now();
  if (hooks_.applyConfig) hooks_.applyConfig();
}

}  // namespace vt

namespace vt {

void ManifestPublisher::requestSubtitleReimport(const LibraryTitle& title, double delaySeconds) {
  if (!hooks_.refreshItem) return;
  // The two library folders lie side by side in the data folder.
  const auto dataDirectory = std::filesystem::path(instances_.movieInstance().paths.mountPoint).parent_path();
  const std::string location = (dataDirectory / libraryFolderName(title.season.has_value())).string();
  jobs_.start([this, name = title.name, location, delaySeconds](CancelToken token) -> QCoro::Task<> {
    if (delaySeconds > 0 && !co_await clock_.sleep(delaySeconds, token)) co_return;
    const bool asked = co_await hooks_.refreshItem(name, location, token);
    if (!asked || token.isCancelled()) co_return;
    log("[supervisor] requested subtitle re-import for \"" + name + "\"");
  });
}

}  // namespace vt
