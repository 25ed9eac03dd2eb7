#pragma once

#include <optional>
#include <vector>

#include <QUrl>

#include "sources/providers/ProviderRegistry.h"
#include "sources/providers/StreamProvider.h"

namespace vt {

class AppConfig;

// The primary add-on: the trimmed `streamAddonOverride` when set (that
// address or nothing), else Torrentio with the Real-Debrid key in its path,
// else nothing when there is no key.
std::optional<QUrl> addonURL(const AppConfig& config);

// Comet on the public host when `useComet` is on, then the MediaFusion
// address; an extra that can't be built is left out.
std::vector<StreamProvider> extraProviders(const AppConfig& config);

// Stores the extras and the key in force (the primary address's key, else
// the `rdKey` setting) in the registry. This is the AppConfig::RegistrySync
// the application installs, so it runs at load and after every write of
// `rdKey`, `streamAddonOverride`, `useComet` and `mediafusionURL`.
void syncStreamProviders(const AppConfig& config, StreamProviderRegistry& registry);
void syncStreamProviders(const AppConfig& config);

}  // namespace vt
