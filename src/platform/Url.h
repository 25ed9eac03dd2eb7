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

// `base` with `path` after its own path and exactly one "/" between them.
inline QUrl withPathAppended(const QUrl& base, std::string_view path) {
  QUrl url = base;
  QString p = url.path();
  if (!p.endsWith('/')) p += '/';
  url.setPath(p + QString::fromUtf8(path.data(), static_cast<qsizetype>(path.size())));
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
