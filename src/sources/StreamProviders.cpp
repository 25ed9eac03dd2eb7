#include "sources/StreamProviders.h"

#include "core/AppConfig.h"
#include "platform/Endpoints.h"
#include "platform/Text.h"

namespace vt {

std::optional<QUrl> addonURL(const AppConfig& config) {
  if (const auto override = trimmed(config.streamAddonOverride()); !override.empty()) return parseAddonUrl(override);
  const auto& key = config.rdKey();
  if (key.empty()) return std::nullopt;
  std::string base = endpoints().torrentio;
  while (!base.empty() && base.back() == '/') base.pop_back();
  // Encoded so that a "#", "?" or "%" in the key stays in the path and
  // rdKey() reads back the same key.
  const auto encodedKey = QUrl::toPercentEncoding(QString::fromStdString(key));
  return parseAddonUrl(base + "/realdebrid=" + encodedKey.toStdString() + "/");
}

std::vector<StreamProvider> extraProviders(const AppConfig& config) {
  std::vector<StreamProvider> out;
  if (config.useComet()) {
    if (auto comet = StreamProvider::comet(config.rdKey(), endpoints().cometHost, true)) out.push_back(*comet);
  }
  if (auto mediafusion = StreamProvider::mediafusion(config.mediafusionURL())) out.push_back(*mediafusion);
  return out;
}

void syncStreamProviders(const AppConfig& config, StreamProviderRegistry& registry) {
  auto extras = extraProviders(config);
  std::string key;
  if (const auto addon = addonURL(config)) key = rdKey(*addon).value_or("");
  if (key.empty()) key = config.rdKey();
  registry.update(std::move(extras), std::move(key));
}

void syncStreamProviders(const AppConfig& config) { syncStreamProviders(config, StreamProviderRegistry::shared()); }

}  // namespace vt
