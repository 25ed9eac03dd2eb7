#include "core/AppConfig.h"

#include <QUrlQuery>
#include <algorithm>

#include "platform/Crypto.h"
#include "platform/Text.h"
#include "platform/Url.h"

namespace vt {

namespace {

constexpr int kMovieControlPort = 12050;

}  // namespace

AppConfig::AppConfig(SettingsStore& store, RegistrySync registrySync)
    : store_(store), registrySync_(std::move(registrySync)) {
  load();
}

void AppConfig::load() {
  if (auto id = store_.string("clientIdentifier"); id && !id->empty()) {
    clientIdentifier_ = *id;
  } else {
    clientIdentifier_ = newUuid();
    store_.setString("clientIdentifier", clientIdentifier_);
  }

  auto text = [&](const char* key, std::string& field) {
    if (auto v = store_.string(key)) field = *v;
  };
  text("pmsURLString", pmsURLString_);
  text("controlURLString", controlURLString_);
  text("streamAddonOverride", streamAddonOverride_);
  text("plexUsername", plexUsername_);
  text("plexServerName", plexServerName_);
  text("token", token_);
  text("rdKey", rdKey_);
  pendingPlexSyncPath_ = store_.string("pendingPlexSyncPath");

  std::optional<QualityLevel> level;
  if (auto raw = store_.integer("quality")) level = qualityLevelFromRaw(*raw);
  if (!level) {
    // Profiles from before quality levels: derive the level once from the
    // old record, store it, and drop the old keys.
    if (auto legacy = store_.data("streamPreference"))
      level = qualityLevelFromLegacy(*legacy);
    else if (auto legacyText = store_.string("streamPreference"))
      level = qualityLevelFromLegacy(*legacyText);
    else
      level = kDefaultQualityLevel;
    store_.setInteger("quality", static_cast<int64_t>(*level));
    store_.remove("streamPreference");
    store_.remove("companionVersions");
  }
  quality_ = *level;
  streamPreference_ = vt::streamPreference(quality_);
  companionVersions_ = vt::companionVersions(quality_);

  rerankExisting_ = store_.boolean("rerankExisting").value_or(true);
  cacheLimitGB_ = std::clamp<int64_t>(store_.integer("cacheLimitGB").value_or(32), kCacheLimitMinGB, kCacheLimitMaxGB);
  allowTS_ = store_.boolean("allowTS").value_or(false);
  useComet_ = store_.boolean("useComet").value_or(true);
  mediafusionURL_ = store_.string("mediafusionURL").value_or("");

  syncRegistry();
}

void AppConfig::syncRegistry() const {
  if (registrySync_) registrySync_(*this);
}

void AppConfig::storeText(const char* key, std::string& field, const std::string& value) {
  field = value;
  store_.setString(key, value);
  emit changed();
}

void AppConfig::setToken(const std::string& v) { storeText("token", token_, v); }

// The provider settings re-sync the registry before observers hear of the
// change, so that whatever they start sees the new providers.
void AppConfig::setRdKey(const std::string& v) {
  rdKey_ = trimmed(v);
  store_.setString("rdKey", rdKey_);
  syncRegistry();
  emit changed();
}

void AppConfig::setPmsURLString(const std::string& v) { storeText("pmsURLString", pmsURLString_, v); }
void AppConfig::setControlURLString(const std::string& v) { storeText("controlURLString", controlURLString_, v); }

void AppConfig::setStreamAddonOverride(const std::string& v) {
  streamAddonOverride_ = v;
  store_.setString("streamAddonOverride", v);
  syncRegistry();
  emit changed();
}

void AppConfig::setUseComet(bool v) {
  useComet_ = v;
  store_.setBoolean("useComet", v);
  syncRegistry();
  emit changed();
}

void AppConfig::setMediafusionURL(const std::string& v) {
  mediafusionURL_ = v;
  store_.setString("mediafusionURL", v);
  syncRegistry();
  emit changed();
}

void AppConfig::setPlexUsername(const std::string& v) { storeText("plexUsername", plexUsername_, v); }
void AppConfig::setPlexServerName(const std::string& v) { storeText("plexServerName", plexServerName_, v); }

void AppConfig::setPendingPlexSyncPath(const std::optional<std::string>& v) {
  pendingPlexSyncPath_ = v;
  if (v)
    store_.setString("pendingPlexSyncPath", *v);
  else
    store_.remove("pendingPlexSyncPath");
  emit changed();
}

void AppConfig::applyQuality(QualityLevel level) {
  quality_ = level;
  streamPreference_ = vt::streamPreference(level);
  companionVersions_ = vt::companionVersions(level);
}

void AppConfig::setQuality(QualityLevel v) {
  applyQuality(v);
  store_.setInteger("quality", static_cast<int64_t>(v));
  emit changed();
}

void AppConfig::setCacheLimitGB(int64_t v) {
  cacheLimitGB_ = v;
  store_.setInteger("cacheLimitGB", v);
  emit changed();
}

void AppConfig::setRerankExisting(bool v) {
  rerankExisting_ = v;
  store_.setBoolean("rerankExisting", v);
  emit changed();
}

void AppConfig::setAllowTS(bool v) {
  allowTS_ = v;
  store_.setBoolean("allowTS", v);
  emit changed();
}

std::optional<QUrl> AppConfig::pmsURL() const { return parseUrl(pmsURLString_); }

bool AppConfig::isConfigured() const { return pmsURL().has_value() && !token_.empty(); }

void AppConfig::signOut() {
  if (!token_.empty()) setToken("");
  if (!plexUsername_.empty()) setPlexUsername("");
  if (!plexServerName_.empty()) setPlexServerName("");
}

std::optional<QUrl> AppConfig::controlURL() const { return parseUrl(controlURLString_); }

std::optional<QUrl> AppConfig::tvControlURL() const {
  auto url = controlURL();
  if (!url) return std::nullopt;
  url->setPort(url->port(kMovieControlPort) + 2);
  return url;
}

std::string AppConfig::movieControlAddress() const {
  const auto url = controlURL();
  if (!url) return "127.0.0.1:12050";
  return url->host().toStdString() + ":" + std::to_string(url->port(kMovieControlPort));
}

std::string AppConfig::tvControlAddress() const {
  const auto url = controlURL();
  if (!url) return "127.0.0.1:12052";
  return url->host().toStdString() + ":" + std::to_string(url->port(kMovieControlPort) + 2);
}

std::optional<QUrl> AppConfig::imageURL(const std::string& path, int width, int height, bool transcode) const {
  auto base = pmsURL();
  if (!base) return std::nullopt;
  const auto token = QString::fromStdString(token_);
  QUrlQuery query;
  QUrl url = *base;
  auto appendPath = [&](const QString& p) {
    QString joined = url.path();
    if (joined.endsWith('/') && p.startsWith('/')) joined.chop(1);
    url.setPath(joined + p);
  };
  if (transcode) {
    appendPath(QStringLiteral("/photo/:/transcode"));
    query.addQueryItem("width", QString::number(width));
    query.addQueryItem("height", QString::number(height));
    query.addQueryItem("minSize", "1");
    query.addQueryItem("url", QString::fromStdString(path));
  } else {
    appendPath(QString::fromStdString(path));
  }
  query.addQueryItem("X-Plex-Token", token);
  url.setQuery(query);
  return url;
}

}  // namespace vt
