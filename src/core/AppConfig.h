#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include <QObject>
#include <QUrl>

#include "platform/Settings.h"
#include "sources/release/Quality.h"

namespace vt {

// The one settings object. Every write to a persisted field reaches the store
// before the setter returns; there is no save step. Main thread only.
class AppConfig : public QObject {
  Q_OBJECT
 public:
  // Rebuilds the stream provider set from the settings; supplied by the
  // sources subsystem. Called at load and after the writes that affect it.
  using RegistrySync = std::function<void(const AppConfig&)>;

  static constexpr int64_t kCacheLimitMinGB = 8;
  static constexpr int64_t kCacheLimitMaxGB = 128;

  // Loads every setting (migrating the old quality record) and syncs the registry.
  explicit AppConfig(SettingsStore& store, RegistrySync registrySync = {});

  const std::string& token() const { return token_; }
  const std::string& rdKey() const { return rdKey_; }
  const std::string& pmsURLString() const { return pmsURLString_; }
  const std::string& controlURLString() const { return controlURLString_; }
  const std::string& streamAddonOverride() const { return streamAddonOverride_; }
  bool useComet() const { return useComet_; }
  const std::string& mediafusionURL() const { return mediafusionURL_; }
  const std::string& plexUsername() const { return plexUsername_; }
  const std::string& plexServerName() const { return plexServerName_; }
  const std::optional<std::string>& pendingPlexSyncPath() const { return pendingPlexSyncPath_; }
  const std::string& clientIdentifier() const { return clientIdentifier_; }
  QualityLevel quality() const { return quality_; }
  int64_t cacheLimitGB() const { return cacheLimitGB_; }
  bool rerankExisting() const { return rerankExisting_; }
  const StreamPreference& streamPreference() const { return streamPreference_; }
  bool allowTS() const { return allowTS_; }
  bool companionVersions() const { return companionVersions_; }

  void setToken(const std::string& v);
  // Trimmed of white space and line breaks before it is stored.
  void setRdKey(const std::string& v);
  void setPmsURLString(const std::string& v);
  void setControlURLString(const std::string& v);
  void setStreamAddonOverride(const std::string& v);
  void setUseComet(bool v);
  void setMediafusionURL(const std::string& v);
  void setPlexUsername(const std::string& v);
  void setPlexServerName(const std::string& v);
  // None removes the key.
  void setPendingPlexSyncPath(const std::optional<std::string>& v);
  void setQuality(QualityLevel v);
  // Not clamped here: the settings view limits the range; reads clamp.
  void setCacheLimitGB(int64_t v);
  void setRerankExisting(bool v);
  void setAllowTS(bool v);

  // The server URL parses and a token is set.
  bool isConfigured() const;
  std::optional<QUrl> pmsURL() const;
  void signOut();

  // Control addresses of the two engine instances: the tv engine listens two
  // ports above the movie engine.
  std::optional<QUrl> controlURL() const;
  std::optional<QUrl> tvControlURL() const;
  std::string movieControlAddress() const;
  std::string tvControlAddress() const;

  // URL of an image on the Plex server, optionally through its transcoder.
  std::optional<QUrl> imageURL(const std::string& path, int width, int height, bool transcode) const;

  // Re-runs the registry sync (after the provider set changes elsewhere).
  void syncRegistry() const;

  SettingsStore& store() const { return store_; }

 signals:
  void changed();

 private:
  void load();
  void storeText(const char* key, std::string& field, const std::string& value);
  void applyQuality(QualityLevel level);

  SettingsStore& store_;
  RegistrySync registrySync_;

  std::string token_;
  std::string rdKey_;
  std::string pmsURLString_ = "http://127.0.0.1:32400";
  std::string controlURLString_ = "http://127.0.0.1:12050";
  std::string streamAddonOverride_;
  bool useComet_ = true;
  std::string mediafusionURL_;
  std::string plexUsername_;
  std::string plexServerName_;
  std::optional<std::string> pendingPlexSyncPath_;
  std::string clientIdentifier_;
  QualityLevel quality_ = kDefaultQualityLevel;
  int64_t cacheLimitGB_ = 32;
  bool rerankExisting_ = true;
  StreamPreference streamPreference_;
  bool allowTS_ = false;
  bool companionVersions_ = false;
};

}  // namespace vt
