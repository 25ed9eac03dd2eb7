#pragma once

#include <optional>
#include <string_view>

#include <QUrl>

namespace vt {

// A settings text parsed as an absolute URL: strict syntax, with a scheme and
// a host. Anything else is none, which callers treat as "not configured".
inline std::optional<QUrl> parseUrl(std::string_view text) {
  QUrl url(QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())), QUrl::StrictMode);
  if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) return std::nullopt;
  return url;
}

// An add-on address as users paste them: lenient about characters such as
// "|" that add-on configurations put in the path, but with a scheme and host.
inline std::optional<QUrl> parseAddonUrl(std::string_view text) {
  QUrl url(QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())), QUrl::TolerantMode);
  if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) return std::nullopt;
  return url;
}

}  // namespace vt
